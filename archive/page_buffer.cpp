// Address space is reserved for all of it at once and costs nothing; pages get memory as they are asked for.
// A buffer that grows by being copied would need twice the memory for moments.

#include "archive/page_buffer.h"

#include <windows.h>

#include <algorithm>
#include <new>

namespace Vexel::Storage::Engine {

namespace {

/// Memory is taken and given back in such steps, which are whole pages.
constexpr std::size_t kStep = 0x100000;

} // namespace

PageBuffer::PageBuffer(std::size_t size) : size_(size) {
    if (size == 0)
        return;
    data_ = static_cast<std::byte*>(VirtualAlloc(nullptr, size, MEM_RESERVE, PAGE_READWRITE));
    if (!data_)
        throw std::bad_alloc();
}

PageBuffer::~PageBuffer() {
    if (data_)
        VirtualFree(data_, 0, MEM_RELEASE);
}

bool PageBuffer::grow(std::size_t count) noexcept {
    if (count <= grown_)
        return true;
    const std::size_t wanted = (std::min)(size_, (count + kStep - 1) / kStep * kStep);
    if (!VirtualAlloc(data_ + grown_, wanted - grown_, MEM_COMMIT, PAGE_READWRITE))
        return false;
    grown_ = wanted;
    return true;
}

void PageBuffer::dropFront(std::size_t count) noexcept {
    const std::size_t end = count / kStep * kStep;
    if (end > dropped_ && end <= grown_ && VirtualFree(data_ + dropped_, end - dropped_, MEM_DECOMMIT))
        dropped_ = end;
}

} // namespace Vexel::Storage::Engine
