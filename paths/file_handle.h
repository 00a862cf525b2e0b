#pragma once

#include <windows.h>

#include <utility>

namespace Vexel::Detail {

/// Owns a file handle; `INVALID_HANDLE_VALUE` stands for none.
class FileHandle {
public:
    FileHandle() noexcept = default;
    explicit FileHandle(HANDLE handle) noexcept : handle_(handle) {}
    FileHandle(FileHandle&& other) noexcept : handle_(std::exchange(other.handle_, INVALID_HANDLE_VALUE)) {}
    FileHandle& operator=(FileHandle&& other) noexcept {
        std::swap(handle_, other.handle_);
        return *this;
    }
    FileHandle(FileHandle const&) = delete;
    FileHandle& operator=(FileHandle const&) = delete;
    ~FileHandle() { close(); }

    explicit operator bool() const noexcept { return handle_ != INVALID_HANDLE_VALUE; }
    HANDLE get() const noexcept { return handle_; }

    void close() noexcept {
        if (*this)
            CloseHandle(std::exchange(handle_, INVALID_HANDLE_VALUE));
    }

private:
    HANDLE handle_ = INVALID_HANDLE_VALUE;
};

} // namespace Vexel::Detail
