// The system's own calls in the table of the seam. A call goes in as it is where the system's answer is all
// that is wanted; the functions here are for what takes several calls, or where systems differ. The table is
// one local static object, made while the module is loaded, because making it at the end of the process could
// wait for ever.

#include "base/platform.h"

#include "base/handles.h"
#include "base/last_error.h"
#include "base/process_end_query.h"

#include <cstdlib>
#include <limits>

namespace Vexel::Detail {

namespace {

DWORD readEntry(const wchar_t* path, bool followLinks, EntryInfo& info) {
    // Most entries are no links, and their attributes can be had without opening them.
    const DWORD attributes = GetFileAttributesW(path);
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return lastError();
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) {
        info = {attributes, 0};
        return ERROR_SUCCESS;
    }

    constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    const DWORD flags = FILE_FLAG_BACKUP_SEMANTICS | (followLinks ? 0 : FILE_FLAG_OPEN_REPARSE_POINT);
    const FileHandle entry(
        CreateFileW(path, FILE_READ_ATTRIBUTES, kShareAll, nullptr, OPEN_EXISTING, flags, nullptr));
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

DWORD probeForWriting(const wchar_t* path) {
    // Some systems let a privileged user write to such a file.
    const DWORD attributes = GetFileAttributesW(path);
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_READONLY))
        return ERROR_ACCESS_DENIED;
    const FileHandle file(
        CreateFileW(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    return file ? ERROR_SUCCESS : lastError();
}

// No object is larger, and what the heap adds and rounds up cannot overflow below it.
constexpr unsigned long long kLargestBlock = std::numeric_limits<std::ptrdiff_t>::max();

void* reallocateOnHeap(void* block, unsigned long long bytes) noexcept {
    return bytes <= kLargestBlock ? std::realloc(block, bytes) : nullptr;
}

void freeOnHeap(void* block) noexcept { std::free(block); }

void* commitPages(unsigned long long bytes) noexcept {
    return bytes <= kLargestBlock ? VirtualAlloc(nullptr, bytes, MEM_COMMIT, PAGE_READWRITE) : nullptr;
}

void releasePages(void* pages) noexcept { VirtualFree(pages, 0, MEM_RELEASE); }

std::thread startThread(const std::function<void()>& body) { return std::thread(body); }

bool processIsEnding() { return queryProcessEnd(); }

// Makes the table while the module is loaded: the first use may be at the end of the process, when a local
// static object must not be made any more.
[[maybe_unused]] const Platform& madeEarly = platform();

} // namespace

Platform& platform() noexcept {
    static Platform calls{.readEntry = readEntry,
                          .probeForWriting = probeForWriting,
                          .createFile = ::CreateFileW,
                          .getAttributes = ::GetFileAttributesW,
                          .getFileInformation = ::GetFileInformationByHandle,
                          .setFileInformation = ::SetFileInformationByHandle,
                          .getFileSize = ::GetFileSizeEx,
                          .getFileTime = ::GetFileTime,
                          .readFile = ::ReadFile,
                          .writeFile = ::WriteFile,
                          .setPosition = ::SetFilePointerEx,
                          .setEndOfFile = ::SetEndOfFile,
                          .flushFile = ::FlushFileBuffers,
                          .copyFile = ::CopyFileW,
                          .moveFile = ::MoveFileExW,
                          .deleteFile = ::DeleteFileW,
                          .setAttributes = ::SetFileAttributesW,
                          .getTempPath = ::GetTempPathW,
                          .getKnownFolder = ::SHGetKnownFolderPath,
                          .openStorage = ::StgOpenStorageEx,
                          .isStorageFile = ::StgIsStorageFile,
                          .reallocate = reallocateOnHeap,
                          .freeMemory = freeOnHeap,
                          .commitPages = commitPages,
                          .releasePages = releasePages,
                          .getProcessTimes = ::GetProcessTimes,
                          .getTickCount = ::GetTickCount,
                          .startThread = startThread,
                          .processIsEnding = processIsEnding};
    return calls;
}

} // namespace Vexel::Detail
