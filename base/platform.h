#pragma once

#include <windows.h>

#include <objbase.h>
#include <shlobj.h>

#include <functional>
#include <thread>

namespace Vexel::Detail {

/// What the system tells about a file-system entry.
struct EntryInfo {
    DWORD attributes = 0;
    DWORD reparseTag = 0; ///< of a reparse point that is examined itself; else 0
};

/// The calls that fail for reasons outside the program. They are made through `platform()`, so that a test
/// can put in ones that fail, count or answer as another machine would. What is reached through a COM
/// interface is not here: a test puts an object of its own behind the interface.
struct Platform {
    /// Examines an entry, either a link itself or what it leads to. Returns 0 or the system's error code,
    /// with `info` as it was.
    DWORD (*readEntry)(const wchar_t* path, bool followLinks, EntryInfo& info);
    /// Opens an existing file for reading and writing, keeping other writers out, and closes it at once.
    /// Returns 0 or the system's error code.
    DWORD (*probeForWriting)(const wchar_t* path);
    decltype(&::CreateFileW) createFile;
    decltype(&::GetFileAttributesW) getAttributes;
    decltype(&::GetFileInformationByHandle) getFileInformation;
    decltype(&::SetFileInformationByHandle) setFileInformation;
    decltype(&::GetFileSizeEx) getFileSize;
    decltype(&::GetFileTime) getFileTime;
    decltype(&::ReadFile) readFile;
    decltype(&::WriteFile) writeFile;
    decltype(&::SetFilePointerEx) setPosition;
    decltype(&::SetEndOfFile) setEndOfFile;
    decltype(&::FlushFileBuffers) flushFile;
    decltype(&::CopyFileW) copyFile;
    decltype(&::MoveFileExW) moveFile;
    decltype(&::DeleteFileW) deleteFile;
    decltype(&::SetFileAttributesW) setAttributes;
    decltype(&::GetTempPathW) getTempPath;
    decltype(&::SHGetKnownFolderPath) getKnownFolder;

    decltype(&::StgOpenStorageEx) openStorage;
    decltype(&::StgIsStorageFile) isStorageFile;

    /// Heap memory of buffers; null leaves `block` as it is. To be freed by `freeMemory`.
    void* (*reallocate)(void* block, unsigned long long bytes) noexcept;
    void (*freeMemory)(void* block) noexcept;
    /// Whole pages from the system; to be freed by `releasePages`.
    void* (*commitPages)(unsigned long long bytes) noexcept;
    void (*releasePages)(void* pages) noexcept;

    decltype(&::GetProcessTimes) getProcessTimes;
    decltype(&::GetTickCount) getTickCount;
    /// Raises `std::system_error` when no thread can be had.
    std::thread (*startThread)(const std::function<void()>& body);
    bool (*processIsEnding)();
};

/// The calls in use. Not guarded: to be changed only while no other thread is in the library.
Platform& platform() noexcept;

} // namespace Vexel::Detail
