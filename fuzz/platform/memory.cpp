// Counts what all threads have, by the sanitizer's calls at each allocation. What is reserved and not
// committed counts as well: bounds are bounds of what is asked for.

#include "fuzz/targets/memory.h"

#include <sanitizer/allocator_interface.h>

#include <atomic>

namespace Vexel::Fuzz {

namespace {

std::atomic<std::ptrdiff_t> held{0};
std::atomic<std::ptrdiff_t> peak{0};

void taken(const volatile void*, std::size_t size) {
    const std::ptrdiff_t sum = held += static_cast<std::ptrdiff_t>(size);
    std::ptrdiff_t before = peak;
    while (sum > before && !peak.compare_exchange_weak(before, sum)) {
    }
}

void givenBack(const volatile void* block) {
    if (block)
        held -= static_cast<std::ptrdiff_t>(__sanitizer_get_allocated_size(const_cast<const void*>(block)));
}

} // namespace

MemoryWatch::MemoryWatch() {
    static const int kInstalled = __sanitizer_install_malloc_and_free_hooks(taken, givenBack);
    static_cast<void>(kInstalled);
    held = peak = 0;
}

std::size_t MemoryWatch::most() const { return static_cast<std::size_t>(peak.load()); }

std::ptrdiff_t MemoryWatch::left() const { return held; }

} // namespace Vexel::Fuzz
