#pragma once

#include <windows.h>

#include <shlobj.h>

#include <functional>
#include <thread>

namespace Vexel::Detail {

/// What the system tells about a file-system entry.
struct EntryInfo {
    DWORD attributes = 0;
    DWORD reparseTag = 0; ///< of a reparse point that is examined itself; else 0
};

/// The system calls of this layer that fail for reasons outside the program. They are called through
/// `Platform()`, so that a test can put in ones that fail, count or answer as another machine would.
struct PlatformFiles {
    /// Examines an entry, either a link itself or what it leads to. Returns 0 or the system's error code,
    /// with `info` as it was.
    DWORD (*readEntry)(wchar_t const* path, bool followLinks, EntryInfo& info);
    decltype(&::CreateFileW) openFile;
    decltype(&::CopyFileW) copyFile;
    decltype(&::DeleteFileW) deleteFile;
    decltype(&::SetFileAttributesW) setAttributes;
    decltype(&::GetTempPathW) getTempPath;
    decltype(&::GetProcessTimes) getProcessTimes;
    decltype(&::GetTickCount) getTickCount;
    decltype(&::SHGetKnownFolderPath) getKnownFolder;
    /// Raises `std::system_error` when no thread can be had.
    std::thread (*startThread)(std::function<void()> const& body);
    /// Whether the process is past the point where the system has ended all threads but this one.
    bool (*processIsEnding)();
};

/// The calls in use. Not guarded: to be changed only while no other thread is in this layer.
PlatformFiles& Platform() noexcept;

} // namespace Vexel::Detail
