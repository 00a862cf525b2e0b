// One figure of the report at a time, in a process of its own so that its peak of memory is this work's
// alone:
//   bench_curves make (package|compound) ITEMS FILE
//   bench_curves (open|list|read|change|copy) ITEMS FILE
//   bench_curves pack THREADS FILE
// All but `make` print the median of the seconds that the work took, the bytes that it added to the peak of
// the working set, and how often it was done. scripts/performance_report.py makes plots of them.

#include "support/archives.h"

#include <vexel/copying.h>
#include <vexel/storage.h>

#include <windows.h>

#include <objbase.h>

#include <psapi.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cwchar>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

using namespace Vexel::Bench;

namespace {

constexpr unsigned kEach = 100; ///< streams in a storage
constexpr std::size_t kSize = 200;
constexpr std::size_t kLarge = std::size_t{64} << 20;
constexpr unsigned kMostRounds = 9;
constexpr double kEnoughSeconds = 3;

std::wstring storageName(unsigned stream) { return L"Storage " + std::to_wstring(stream / kEach); }
std::wstring streamName(unsigned stream) { return L"Stream " + std::to_wstring(stream % kEach); }

const std::vector<unsigned char>& text() {
    static const auto kBytes = someBytes(std::size_t{1} << 20, false);
    return kBytes;
}
const unsigned char* contentsOf(unsigned stream) {
    return text().data() + std::size_t{stream} * 31 % (text().size() - kSize);
}

void makePackage(unsigned count, const wchar_t* path) {
    StorageRef root, storage;
    require(root.create(SharedPathName(path, false, false)));
    for (unsigned i = 0; i < count; ++i) {
        if (i % kEach == 0)
            require(storage.create(storageName(i).c_str(), root, false));
        StreamRef stream;
        require(stream.create(streamName(i).c_str(), storage));
        check(stream.WriteBytes(contentsOf(i), kSize) == kSize);
    }
    require(root.commit());
}

void makeCompound(unsigned count, const wchar_t* path) {
    constexpr DWORD kWhole = STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
    ComPtr<IStorage> root, storage;
    require(StgCreateStorageEx(path, kWhole, STGFMT_DOCFILE, 0, nullptr, nullptr, IID_IStorage,
                               reinterpret_cast<void**>(root.GetAddressOf())));
    for (unsigned i = 0; i < count; ++i) {
        if (i % kEach == 0)
            require(
                root->CreateStorage(storageName(i).c_str(), kWhole, 0, 0, storage.ReleaseAndGetAddressOf()));
        ComPtr<::IStream> stream;
        require(storage->CreateStream(streamName(i).c_str(), kWhole, 0, 0, &stream));
        require(stream->Write(contentsOf(i), kSize, nullptr));
    }
    require(root->Commit(STGC_DEFAULT));
}

StorageRef opened(const wchar_t* path, RootStorageOpenMode mode) {
    StorageRef root;
    require(root.open(SharedPathName(path, false, false), mode, false));
    return root;
}

void list(const StorageRef& root, unsigned count) {
    struct Counter : Vexel::TreeObserver {
        bool onNode(const Vexel::TreeNode& node) override {
            streams += node.type == StorageType::Stream;
            return true;
        }
        unsigned streams = 0;
    } counter;
    require(Vexel::walkTree(root, counter));
    check(counter.streams == count);
}

void read(const StorageRef& root, unsigned index) {
    StorageRef storage;
    StreamRef stream;
    require(storage.open(storageName(index).c_str(), root, true));
    require(stream.open(streamName(index).c_str(), storage, true));
    unsigned char bytes[kSize];
    check(stream.ReadBytes(bytes, kSize) == kSize);
}

void change(const StorageRef& root, unsigned index) {
    StorageRef storage;
    StreamRef stream;
    require(storage.open(storageName(index).c_str(), root, false));
    require(stream.open(streamName(index).c_str(), storage, false));
    check(stream.WriteBytes(contentsOf(index + 1), kSize) == kSize);
    require(stream.commit());
    require(storage.commit());
    require(root.commit());
}

/// Into a package beside it: the handles make no compound files.
void copy(const StorageRef& root, const wchar_t* path) {
    const std::wstring target = std::wstring(path) + L".copy";
    {
        StorageRef package;
        require(package.create(SharedPathName(target, false, false)));
        require(root.copyTo(package));
        require(package.commit());
    }
    StorageContainer::Instance().deleteUnusedObjects();
    DeleteFileW(target.c_str());
}

const std::vector<unsigned char>& largeText() {
    static const auto kBytes = someBytes(kLarge, false);
    return kBytes;
}

void pack(unsigned threads) {
    const auto entries = newEntries(1, largeText(), kLarge);
    const ScratchFile target(L"large.7z");
    const auto file = Vexel::Detail::adopt(new TemporaryFile(target.path()));
    require(file->create());
    require(writeArchive(entries, nullptr, file.Get(), target.path(), threads));
}

std::function<void()> actionOf(std::wstring_view name, unsigned number, const wchar_t* path) {
    using Mode = RootStorageOpenMode;
    if (name == L"open")
        return [=] { opened(path, Mode::ReadOnly); };
    if (name == L"list")
        return [=] { list(opened(path, Mode::ReadOnly), number); };
    if (name == L"read")
        return [=] { read(opened(path, Mode::ReadOnly), number / 2); };
    if (name == L"change")
        return [=] { change(opened(path, Mode::ReadWrite), number / 2); };
    if (name == L"copy")
        return [=] { copy(opened(path, Mode::ReadOnly), path); };
    if (name == L"pack")
        return [=] { pack(number); };
    return {};
}

std::size_t peak() {
    PROCESS_MEMORY_COUNTERS counters{};
    check(GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters) != FALSE);
    return counters.PeakWorkingSetSize;
}

void measure(const std::function<void()>& action) {
    const std::size_t before = peak();
    std::size_t after = 0;
    std::vector<double> times;
    double total = 0;
    while (times.size() < kMostRounds && total < kEnoughSeconds) {
        const auto start = std::chrono::steady_clock::now();
        action();
        StorageContainer::Instance().deleteUnusedObjects();
        times.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        total += times.back();
        if (after == 0)
            after = peak();
    }
    std::sort(times.begin(), times.end());
    std::printf("%.6f\t%llu\t%u\n", times[times.size() / 2], static_cast<unsigned long long>(after - before),
                static_cast<unsigned>(times.size()));
}

} // namespace

// NOLINTNEXTLINE(misc-use-internal-linkage): the entry point is called from outside.
int wmain(int argc, wchar_t** argv) {
    start();
    const std::wstring_view command = argc > 3 ? argv[1] : L"";
    if (command == L"make" && argc == 5) {
        const auto count = static_cast<unsigned>(std::wcstoul(argv[3], nullptr, 10));
        (argv[2] == std::wstring_view(L"package") ? makePackage : makeCompound)(count, argv[4]);
        return 0;
    }
    const auto action =
        argc == 4 ? actionOf(command, static_cast<unsigned>(std::wcstoul(argv[2], nullptr, 10)), argv[3])
                  : std::function<void()>();
    if (!action)
        return 2;
    if (command == L"pack")
        largeText(); // is no part of the work
    measure(action);
    return 0;
}
