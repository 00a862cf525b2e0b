// The memory that an open archive of many items takes at its peak, against the engine's database alone. Each
// is measured in a process of its own, by what its working set grows by.

#include "support/archives.h"

#include <vexel/archive.h>

#include <windows.h>

#include <psapi.h>

#include <algorithm>
#include <cstdio>
#include <string_view>
#include <vector>

using namespace Vexel::Bench;

namespace {

constexpr unsigned kManyItems = 100'000;
/// An item in the map and its name are larger than its record.
constexpr double kLimit = 1.6;

std::size_t peakSize() {
    PROCESS_MEMORY_COUNTERS counters{};
    check(GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters) != FALSE);
    return counters.PeakWorkingSetSize;
}

void openOurs(const wchar_t* path) {
    SZipArchive archive(path, true, true);
    require(archive.reload());
    check(archive.items().size() >= kManyItems);
}

void openPeer(const wchar_t* path) {
    const auto input = Vexel::Detail::adopt<IInStream>(new PlainInput(path));
    N7z::CInArchive archive(true);
    N7z::CDbEx database;
    const UInt64 limit = 0;
    require(archive.Open(input.Get(), &limit));
    require(archive.ReadDatabase(database));
    check(database.Files.Size() == kManyItems);
}

/// In the process that is measured: the exit code is the result.
int measure(std::string_view what, const wchar_t* path) {
    start();
    const std::size_t before = peakSize();
    what == "ours" ? openOurs(path) : openPeer(path);
    return static_cast<int>(peakSize() - before);
}

double measureElsewhere(const wchar_t* what, const wchar_t* path) {
    wchar_t program[MAX_PATH];
    check(GetModuleFileNameW(nullptr, program, MAX_PATH) < MAX_PATH);
    std::wstring command = std::wstring(L"bench ") + what + L" \"" + path + L"\"";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    check(CreateProcessW(program, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                         &process) != FALSE);
    WaitForSingleObject(process.hProcess, INFINITE);
    DWORD bytes = 0;
    check(GetExitCodeProcess(process.hProcess, &bytes) && bytes > 1);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return static_cast<double>(bytes) / kManyItems;
}

double medianOf(const wchar_t* what, const wchar_t* path) {
    std::vector<double> sizes(5);
    std::generate(sizes.begin(), sizes.end(), [&] { return measureElsewhere(what, path); });
    std::nth_element(sizes.begin(), sizes.begin() + 2, sizes.end());
    return sizes[2];
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 3 && argv[1][0] != '-')
        return measure(argv[1], CString(argv[2]));
    start();
    const auto text = someBytes(std::size_t{1} << 20, false);
    const auto many = archiveOf(L"many.7z", kManyItems, text, 20);
    const double ours = medianOf(L"ours", many->path());
    const double peer = medianOf(L"peer", many->path());
    const bool within = ours / peer <= kLimit;
    std::printf("peak memory of 100,000 open items: ours %.0f bytes each, peer %.0f bytes each, ratio %.2f "
                "(limit %.2f)%s\n",
                ours, peer, ours / peer, kLimit, within ? "" : " ABOVE THE LIMIT");
    return within ? 0 : 1;
}
