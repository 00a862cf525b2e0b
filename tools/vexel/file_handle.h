#pragma once

#include <windows.h>

#include <utility>

namespace Vexel::Tool {

/// Owns a file handle; INVALID_HANDLE_VALUE means none.
class FileHandle {
public:
    FileHandle() = default;
    explicit FileHandle(HANDLE handle) noexcept : handle_(handle) {}
    FileHandle(FileHandle&& other) noexcept : handle_(std::exchange(other.handle_, INVALID_HANDLE_VALUE)) {}
    FileHandle& operator=(FileHandle&& other) noexcept {
        std::swap(handle_, other.handle_);
        return *this;
    }
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;
    ~FileHandle() { close(); }

    explicit operator bool() const noexcept { return handle_ != INVALID_HANDLE_VALUE; }
    HANDLE get() const noexcept { return handle_; }

    /// False when closing reports an error, which may be the last news of failed writes.
    bool close() noexcept {
        const HANDLE handle = std::exchange(handle_, INVALID_HANDLE_VALUE);
        return handle == INVALID_HANDLE_VALUE || CloseHandle(handle);
    }

private:
    HANDLE handle_ = INVALID_HANDLE_VALUE;
};

} // namespace Vexel::Tool
