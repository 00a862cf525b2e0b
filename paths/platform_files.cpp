#include "paths/platform_files.h"

#include "base/last_error.h"
#include "base/process_end.h"
#include "paths/file_handle.h"

namespace Vexel::Detail {

namespace {

DWORD ReadEntry(wchar_t const* path, bool followLinks, EntryInfo& info) {
    // Most entries are no links, and their attributes can be had without opening them.
    const DWORD attributes = GetFileAttributesW(path);
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return lastError();
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) {
        info = {attributes, 0};
        return ERROR_SUCCESS;
    }

    constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    const DWORD flags = FILE_FLAG_BACKUP_SEMANTICS | (followLinks ? 0 : FILE_FLAG_OPEN_REPARSE_POINT);
    const FileHandle entry(
        CreateFileW(path, FILE_READ_ATTRIBUTES, shareAll, nullptr, OPEN_EXISTING, flags, nullptr));
    if (!entry)
        return lastError();
    if (followLinks) { // the target may be on a volume that knows no tags
        BY_HANDLE_FILE_INFORMATION target{};
        if (!GetFileInformationByHandle(entry.get(), &target))
            return lastError();
        info = {target.dwFileAttributes, 0};
        return ERROR_SUCCESS;
    }
    FILE_ATTRIBUTE_TAG_INFO read{};
    if (!GetFileInformationByHandleEx(entry.get(), FileAttributeTagInfo, &read, sizeof read))
        return lastError();
    info = {read.FileAttributes, read.ReparseTag};
    return ERROR_SUCCESS;
}

std::thread StartThread(std::function<void()> const& body) { return std::thread(body); }

bool ProcessIsEnding() { return processIsEnding(); }

// Makes the table of calls while the module is loaded: the first use may be at the end of the process, when a
// local static object must not be made any more.
[[maybe_unused]] const PlatformFiles& madeEarly = Platform();

} // namespace

PlatformFiles& Platform() noexcept {
    static PlatformFiles calls{ReadEntry,       CreateFileW,        CopyFileW,
                               DeleteFileW,     SetFileAttributesW, GetTempPathW,
                               GetProcessTimes, GetTickCount,       SHGetKnownFolderPath,
                               StartThread,     ProcessIsEnding};
    return calls;
}

} // namespace Vexel::Detail
