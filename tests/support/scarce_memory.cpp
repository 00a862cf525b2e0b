#include "support/scarce_memory.h"

#include <windows.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<int> failures{0};
const DWORD mainThread = GetCurrentThreadId();

bool MayAllocate() noexcept { return failures <= 0 || GetCurrentThreadId() == mainThread || failures-- <= 0; }

} // namespace

void FailAllocationsElsewhere(int count) noexcept { failures = count; }

void* operator new(std::size_t size) {
    void* memory = MayAllocate() ? std::malloc(size > 0 ? size : 1) : nullptr;
    return memory ? memory : throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
