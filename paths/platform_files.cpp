#include "paths/platform_files.h"

#include "paths/file_handle.h"

namespace Vexel::Detail {

namespace {

DWORD ReadEntry(wchar_t const* path, bool followLinks, EntryInfo& info) {
    // Most entries are no links, and their attributes can be had without opening them.
    const DWORD attributes = GetFileAttributesW(path);
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return GetLastError();
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) {
        info = {attributes, 0};
        return ERROR_SUCCESS;
    }

    constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    const DWORD flags = FILE_FLAG_BACKUP_SEMANTICS | (followLinks ? 0 : FILE_FLAG_OPEN_REPARSE_POINT);
    const FileHandle entry(
        CreateFileW(path, FILE_READ_ATTRIBUTES, shareAll, nullptr, OPEN_EXISTING, flags, nullptr));
    if (!entry)
        return GetLastError();
    FILE_ATTRIBUTE_TAG_INFO read{};
    if (!GetFileInformationByHandleEx(entry.get(), FileAttributeTagInfo, &read, sizeof read))
        return GetLastError();
    info = {read.FileAttributes, read.ReparseTag};
    return ERROR_SUCCESS;
}

std::thread StartThread(std::function<void()> const& body) { return std::thread(body); }

// Only by name: the import libraries do not have it. Looked up while the module is loaded: making a local
// static takes a lock of the runtime, which at the end of the process may be held for good.
using EndQuery = BOOLEAN(NTAPI*)();
const EndQuery endQuery = [] {
    const FARPROC address = GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlDllShutdownInProgress");
    return reinterpret_cast<EndQuery>(reinterpret_cast<void*>(address));
}();

bool ProcessIsEnding() { return endQuery && endQuery(); }

// Makes the table of calls while the module is loaded, for the same reason.
[[maybe_unused]] const PlatformFiles& madeEarly = Platform();

} // namespace

PlatformFiles& Platform() noexcept {
    static PlatformFiles calls{ReadEntry,       CopyFileW,    DeleteFileW, SetFileAttributesW, GetTempPathW,
                               GetProcessTimes, GetTickCount, StartThread, ProcessIsEnding};
    return calls;
}

} // namespace Vexel::Detail
