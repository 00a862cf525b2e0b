#include "io/memory_blocks.h"

#include <windows.h>

#include <cstdlib>
#include <limits>

namespace Vexel::Detail {
namespace {

// No object is larger, and what the heap adds and rounds up cannot overflow below it.
constexpr unsigned long long largestBlock = std::numeric_limits<std::ptrdiff_t>::max();

void* reallocateOnHeap(void* block, unsigned long long bytes) noexcept {
    return bytes <= largestBlock ? std::realloc(block, bytes) : nullptr;
}

void freeOnHeap(void* block) noexcept { std::free(block); }

void* commitPages(unsigned long long bytes) noexcept {
    return bytes <= largestBlock ? VirtualAlloc(nullptr, bytes, MEM_COMMIT, PAGE_READWRITE) : nullptr;
}

void releasePages(void* pages) noexcept { VirtualFree(pages, 0, MEM_RELEASE); }

} // namespace

MemorySource memorySource = {reallocateOnHeap, freeOnHeap, commitPages, releasePages};

} // namespace Vexel::Detail
