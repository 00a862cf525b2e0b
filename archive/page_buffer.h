#pragma once

#include <cstddef>
#include <span>
#include <utility>

namespace Vexel::Storage::Engine {

/// Bytes in a range of addresses of their own, which takes memory for no more of it than was asked for so
/// far, and gives back what is used up. Addresses never change.
class PageBuffer {
public:
    PageBuffer() = default;
    /// Throws std::bad_alloc.
    explicit PageBuffer(std::size_t size);
    PageBuffer(const PageBuffer&) = delete;
    PageBuffer& operator=(const PageBuffer&) = delete;
    PageBuffer(PageBuffer&& other) noexcept { swap(other); }
    PageBuffer& operator=(PageBuffer&& other) noexcept {
        swap(other);
        return *this;
    }
    ~PageBuffer();

    std::byte* data() const noexcept { return data_; }
    std::size_t size() const noexcept { return size_; }
    /// For reading what has memory, and for writing.
    std::span<std::byte> all() const noexcept { return {data_, size_}; }

    /// Sees that the first `count` bytes have memory; false when there is none left.
    bool grow(std::size_t count) noexcept;
    /// Gives back what lies wholly within the first `count` bytes, which must not be touched any more.
    void dropFront(std::size_t count) noexcept;
    std::size_t dropped() const noexcept { return dropped_; }

private:
    void swap(PageBuffer& other) noexcept {
        std::swap(data_, other.data_);
        std::swap(size_, other.size_);
        std::swap(grown_, other.grown_);
        std::swap(dropped_, other.dropped_);
    }

    std::byte* data_ = nullptr;
    std::size_t size_ = 0;
    std::size_t grown_ = 0;
    std::size_t dropped_ = 0;
};

} // namespace Vexel::Storage::Engine
