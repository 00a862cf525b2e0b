// Shared path names against what one would use without them: a shared string, and a map from full paths.

#include "support/ratio.h"

#include <vexel/path_name.h>

#include <windows.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

namespace {

constexpr std::wstring_view path = LR"(C:\users\somebody\Documents\Projects\House\ground floor.vxl)";

void copyName(benchmark::State& state) {
    const SharedPathName name(path, false, false);
    for (auto _ : state) {
        const SharedPathName copy(name);
        benchmark::DoNotOptimize(copy == name);
        benchmark::ClobberMemory();
    }
}

void copySharedString(benchmark::State& state) {
    const auto name = std::make_shared<const std::wstring>(path);
    for (auto _ : state) {
        const std::shared_ptr<const std::wstring> copy(name);
        benchmark::DoNotOptimize(copy == name);
        benchmark::ClobberMemory();
    }
}

void intern(benchmark::State& state) {
    const SharedPathName known(path, false, false);
    for (auto _ : state) {
        const SharedPathName name(path, false, false);
        benchmark::DoNotOptimize(name.hash());
    }
}

// The least that a table of one's own would do for the same: the full path, a look-up under a lock, a counted
// result.
class PathMap {
public:
    std::shared_ptr<const std::wstring> intern(std::wstring_view text) {
        const std::wstring terminated(text);
        wchar_t buffer[MAX_PATH];
        const DWORD length = GetFullPathNameW(terminated.c_str(), MAX_PATH, buffer, nullptr);
        std::wstring key(buffer, length);
        const std::lock_guard guard(mutex_);
        auto& entry = entries_[key];
        if (!entry)
            entry = std::make_shared<const std::wstring>(std::move(key));
        return entry;
    }

private:
    std::mutex mutex_;
    std::unordered_map<std::wstring, std::shared_ptr<const std::wstring>> entries_;
};

void internInMap(benchmark::State& state) {
    PathMap map;
    for (auto _ : state)
        benchmark::DoNotOptimize(map.intern(path));
}

} // namespace

int main(int argc, char** argv) {
    Vexel::Bench::Suite suite;
    suite.compare("copy and compare a name", 1.0, copyName, copySharedString);
    suite.compare("intern a known absolute path", 1.2, intern, internInMap);
    suite.measure("intern from several threads", intern)->Threads(1)->Threads(2)->Threads(4);
    return suite.run(argc, argv);
}
