#pragma once

#include "archive/status.h"
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
    decltype(&::SetFilePointerEx) setPosition;
    decltype(&::SetEndOfFile) setEndOfFile;
    decltype(&::FlushFileBuffers) flushFile;
    decltype(&::MoveFileExW) moveFile;
    decltype(&::DeleteFileW) deleteFile;
};

/// The calls in use. Not guarded: to be changed only while no other thread is in this layer.
Platform& platform() noexcept;

} // namespace Vexel::Storage::Engine
