// One block of the process is kept between users, because buffers of this size are taken and given back all
// the time and the system zeroes every page that it hands out anew. The kept block only grows: it is replaced
// by one of at least twice the size. Two marks protect it while it is in use or about to be copied from,
// since the depletion handler may call anything here.

#include "base/platform.h"

#include <vexel/memory_streams.h>

#include <windows.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

using Vexel::Detail::platform;

namespace {

using DepletionHandler = bool (*)(unsigned long long);

constexpr unsigned long long kSmallestShared = 0x80000;
constexpr unsigned long long kLimit = std::numeric_limits<unsigned long long>::max();

// The block that is kept for reuse. `inUse` while a buffer holds it; `pinned` while memory is being
// allocated.
struct SharedBlock {
    void* address = nullptr;
    unsigned long long capacity = 0;
    bool inUse = false;
    bool pinned = false;
};

SharedBlock shared;
DepletionHandler depletionHandler = nullptr;

// Both give more than can be had where the result cannot be expressed.
unsigned long long roundedToPages(unsigned long long bytes) noexcept {
    SYSTEM_INFO system;
    GetSystemInfo(&system);
    const unsigned long long page = system.dwPageSize;
    return bytes <= kLimit - page ? (bytes + page - 1) / page * page : kLimit;
}

unsigned long long doubledUpTo(unsigned long long capacity, unsigned long long bytes) noexcept {
    while (capacity < bytes)
        capacity = capacity <= kLimit / 2 ? capacity * 2 : kLimit;
    return capacity;
}

} // namespace

// The depletion handler is free to compact, and to use other buffers. A shared block that the caller is about
// to copy from, or that another buffer holds, must still be there when it returns.
void* BigBuffer::alloc(unsigned long long n) noexcept {
    const bool pinnedBefore = std::exchange(shared.pinned, true);
    void* block = platform().commitPages(n);
    if (!block && depletionHandler && depletionHandler(n))
        block = platform().commitPages(n);
    shared.pinned = pinnedBefore;
    return block;
}

void* BigBuffer::take(void* block, unsigned long long n) noexcept {
    if (!block)
        return nullptr;
    address_ = block;
    size_ = n;
    return block;
}

void* BigBuffer::allocate(unsigned long long n) noexcept {
    if (address_)
        return nullptr;
    if (shared.inUse)
        return take(alloc(n), n);
    if (shared.address && shared.capacity >= n) {
        shared.inUse = true;
        return take(shared.address, n);
    }

    unsigned long long capacity = roundedToPages((std::max)(n, kSmallestShared));
    if (shared.address) {
        capacity = doubledUpTo(shared.capacity, n);
        platform().releasePages(shared.address);
        shared.address = nullptr;
    }
    void* const block = alloc(capacity);
    // The depletion handler may have used a buffer meanwhile, which has taken the free place. A block that it
    // still holds becomes its own, one that it gave back is not kept.
    if (shared.address && !shared.inUse)
        platform().releasePages(shared.address);
    shared.address = block;
    shared.capacity = block ? capacity : 0;
    shared.inUse = block != nullptr;
    return take(block, n);
}

void* BigBuffer::reallocate(unsigned long long n) noexcept {
    if (!address_ || size_ >= n)
        return address_;
    const bool holdsShared = address_ == shared.address;
    if (holdsShared && n <= shared.capacity)
        return take(address_, n);

    const unsigned long long capacity = holdsShared ? doubledUpTo(shared.capacity, n) : n;
    void* const block = alloc(capacity);
    if (!block)
        return nullptr;
    // A private block, too, is filled from the shared one, not from the block that it replaces. Callers'
    // private blocks have always come out so. It may be longer than the shared block, or that may be gone.
    if (shared.address)
        std::memcpy(block, shared.address, (std::min)(size_, shared.capacity));
    platform().releasePages(address_);
    if (holdsShared) {
        shared.address = block;
        shared.capacity = capacity;
    }
    return take(block, n);
}

void BigBuffer::clear() noexcept {
    if (!address_)
        return;
    if (address_ == shared.address)
        shared.inUse = false;
    else
        platform().releasePages(address_);
    address_ = nullptr;
    size_ = 0;
}

bool BigBuffer::compact() noexcept {
    if (!shared.address || shared.inUse || shared.pinned)
        return false;
    platform().releasePages(shared.address);
    shared.address = nullptr;
    shared.capacity = 0;
    return true;
}

void BigBuffer::setMemoryDepletionHandler(bool (*handler)(unsigned long long)) noexcept {
    depletionHandler = handler;
}
