#pragma once

#include "paths/file_handle.h"

#include <windows.h>

namespace Vexel::Storage::Engine {

/// The system calls on an archive's files, which fail for reasons outside the program. They are called
/// through `platform()`, so that a test can make each of them fail.
struct Platform {
    decltype(&::CreateFileW) createFile;
    decltype(&::GetFileSizeEx) getFileSize;
    decltype(&::GetFileTime) getFileTime;
    decltype(&::ReadFile) readFile;
    decltype(&::WriteFile) writeFile;
    decltype(&::SetEndOfFile) setEndOfFile;
    decltype(&::FlushFileBuffers) flushFile;
    decltype(&::MoveFileExW) moveFile;
    decltype(&::DeleteFileW) deleteFile;
};

/// The calls in use. Not guarded: to be changed only while no other thread is in this layer.
Platform& platform() noexcept;

/// A Win32 error as a status of the storage facility, where the codes keep their numbers; 0 stays 0.
constexpr HRESULT storageStatus(DWORD error) noexcept {
    return static_cast<HRESULT>(0x80030000UL * (error != 0) | (error & 0xFFFF));
}

} // namespace Vexel::Storage::Engine
