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

constexpr const wchar_t* kPath = LR"(C:\users\somebody\Documents\Projects\House\ground floor.vxl)";

void copyName(benchmark::State& state) {
    const SharedPathName name(kPath, false, false);
    for (auto _ : state) {
        SharedPathName copy(name);
        benchmark::DoNotOptimize(copy);
        bool equal = copy == name;
        benchmark::DoNotOptimize(equal);
    }
}

void copySharedString(benchmark::State& state) {
    const auto string = std::make_shared<const std::wstring>(kPath);
    for (auto _ : state) {
        std::shared_ptr<const std::wstring> copy(string);
        benchmark::DoNotOptimize(copy);
    }
}

void intern(benchmark::State& state) {
    const SharedPathName known(kPath, false, false);
    for (auto _ : state) {
        const SharedPathName name(kPath, false, false);
        benchmark::DoNotOptimize(name.hash());
    }
}

// The least that a table of one's own would do for the same.
class PathMap {
public:
    int intern(const wchar_t* text) {
        wchar_t buffer[MAX_PATH];
        const std::wstring key(buffer, GetFullPathNameW(text, MAX_PATH, buffer, nullptr));
        const std::scoped_lock guard(mutex_);
        return numbers_.try_emplace(key, static_cast<int>(numbers_.size())).first->second;
    }

private:
    std::mutex mutex_;
    std::unordered_map<std::wstring, int> numbers_;
};

void internInMap(benchmark::State& state) {
    PathMap map;
    for (auto _ : state)
        benchmark::DoNotOptimize(map.intern(kPath));
}

} // namespace

int main(int argc, char** argv) {
    Vexel::Bench::Suite suite;
    suite.compare("copy and compare a name", 1.0, copyName, copySharedString);
    suite.compare("intern a known absolute path", 0.6, intern, internInMap);
    suite.measure("intern from several threads", intern)->Threads(1)->Threads(2)->Threads(4);
    return suite.run(argc, argv);
}
