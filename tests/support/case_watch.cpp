#include "support/case_watch.h"

#include <windows.h>

#include <psapi.h>

#include <atomic>
#include <mutex>
#include <stop_token>
#include <thread>

namespace Support {

namespace {

constexpr unsigned kLongestCase = 20'000; // milliseconds, on a busy machine
constexpr std::size_t kMostMemory = std::size_t{256} << 20;

std::mutex mutex;
char current[200]; // what is at hand; read without the lock when the program dies
std::atomic<unsigned> cases{0};

[[noreturn]] void die(const char* reason) {
    const std::string line = std::string("\n") + reason + " in the case \"" + current + "\"\n";
    DWORD done = 0;
    WriteFile(GetStdHandle(STD_ERROR_HANDLE), line.data(), static_cast<DWORD>(line.size()), &done, nullptr);
    TerminateProcess(GetCurrentProcess(), 3);
    std::abort();
}

std::size_t memoryInUse() {
    PROCESS_MEMORY_COUNTERS counters{};
    return GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters) ? counters.PagefileUsage : 0;
}

LONG CALLBACK onException(EXCEPTION_POINTERS* what) {
    const DWORD code = what->ExceptionRecord->ExceptionCode;
    if (code == EXCEPTION_STACK_OVERFLOW || code == EXCEPTION_ACCESS_VIOLATION)
        die(code == EXCEPTION_STACK_OVERFLOW ? "the stack overflows" : "a crash");
    return EXCEPTION_CONTINUE_SEARCH;
}

/// Looks at the program until it is told to stop.
void watch(const std::stop_token& stop) {
    const std::size_t before = memoryInUse();
    unsigned seen = 0;
    ULONGLONG since = GetTickCount64();
    for (; !stop.stop_requested(); Sleep(50)) {
        if (const unsigned now = cases; now != seen) {
            seen = now;
            since = GetTickCount64();
        }
        if (GetTickCount64() - since > kLongestCase)
            die("no end");
        if (memoryInUse() > before + kMostMemory)
            die("too much memory");
    }
}

std::jthread watcher;
void* handler = nullptr;

} // namespace

CaseWatch::CaseWatch() {
    begin("none");
    handler = AddVectoredExceptionHandler(1, onException);
    watcher = std::jthread(watch);
}

CaseWatch::~CaseWatch() {
    watcher = {}; // stopped and waited for
    RemoveVectoredExceptionHandler(handler);
}

void CaseWatch::begin(const std::string& name) {
    const std::lock_guard lock(mutex);
    name.copy(current, sizeof current - 1);
    current[(std::min)(name.size(), sizeof current - 1)] = '\0';
    ++cases;
}

} // namespace Support
