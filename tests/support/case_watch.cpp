#include "support/case_watch.h"

#include <windows.h>

#include <psapi.h>

#include <cstdio>
#include <mutex>

namespace Support {

namespace {

constexpr ULONGLONG kLongestCase = 20'000; // milliseconds, on a busy machine
constexpr std::size_t kMostMemory = std::size_t{256} << 20;

std::mutex mutex;
std::string current; // what is at hand
ULONGLONG since = 0;

std::size_t memoryInUse() {
    PROCESS_MEMORY_COUNTERS counters{};
    return GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters) ? counters.PagefileUsage : 0;
}

void dieIf(bool condition, const char* reason) {
    if (!condition)
        return;
    std::fprintf(stderr, "\n%s in the case \"%s\"\n", reason, current.c_str());
    TerminateProcess(GetCurrentProcess(), 3);
}

} // namespace

CaseWatch::CaseWatch() {
    begin("none");
    watcher_ = std::jthread([before = memoryInUse()](const std::stop_token& stop) {
        for (; !stop.stop_requested(); Sleep(50)) {
            const std::lock_guard lock(mutex);
            dieIf(GetTickCount64() - since > kLongestCase, "no end");
            dieIf(memoryInUse() > before + kMostMemory, "too much memory");
        }
    });
}

void CaseWatch::begin(const std::string& name) {
    const std::lock_guard lock(mutex);
    current = name;
    since = GetTickCount64();
}

} // namespace Support
