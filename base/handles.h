#pragma once

#include <windows.h>

#include <utility>

namespace Vexel::Detail {

/// Owns a handle that `CloseWith` closes; `INVALID_HANDLE_VALUE` stands for none.
template <BOOL (*CloseWith)(HANDLE)>
class UniqueHandle {
public:
    UniqueHandle() noexcept = default;
    explicit UniqueHandle(HANDLE handle) noexcept : handle_(handle) {}
    UniqueHandle(UniqueHandle&& other) noexcept
        : handle_(std::exchange(other.handle_, INVALID_HANDLE_VALUE)) {}
    UniqueHandle& operator=(UniqueHandle&& other) noexcept {
        std::swap(handle_, other.handle_);
        return *this;
    }
    UniqueHandle(const UniqueHandle&) = delete;
    UniqueHandle& operator=(const UniqueHandle&) = delete;
    ~UniqueHandle() { close(); }

    explicit operator bool() const noexcept { return handle_ != INVALID_HANDLE_VALUE; }
    HANDLE get() const noexcept { return handle_; }

    /// False when closing reports an error, which may be the last news of failed writes.
    bool close() noexcept {
        const HANDLE handle = std::exchange(handle_, INVALID_HANDLE_VALUE);
        return handle == INVALID_HANDLE_VALUE || CloseWith(handle);
    }

private:
    HANDLE handle_ = INVALID_HANDLE_VALUE;
};

// The system's own functions are imported, and an imported address is no constant.
inline BOOL closeFile(HANDLE file) { return CloseHandle(file); }
inline BOOL closeSearch(HANDLE search) { return FindClose(search); }

using FileHandle = UniqueHandle<closeFile>;
using SearchHandle = UniqueHandle<closeSearch>;

} // namespace Vexel::Detail
