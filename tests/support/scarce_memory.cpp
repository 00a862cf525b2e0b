#include "support/scarce_memory.h"

#include <windows.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <utility>

namespace {

std::atomic<int> failures{0};
std::atomic<std::size_t> allocated{0};
std::atomic<std::ptrdiff_t> alive{0};
const DWORD kMainThread = GetCurrentThreadId();

// The main thread's alone.
int allocationsToSkip = 0;
void (*allocationEvent)() = nullptr;

bool mayAllocate() {
    if (GetCurrentThreadId() != kMainThread) {
        if (failures <= 0)
            return true;
        return failures-- <= 0; // another thread may have taken the last one
    }
    if (allocationEvent && allocationsToSkip-- == 0)
        std::exchange(allocationEvent, nullptr)();
    return true;
}

} // namespace

void FailAllocationsElsewhere(int count) noexcept { failures = count; }

void AtMainAllocation(int skipped, void (*event)()) noexcept {
    allocationsToSkip = skipped;
    allocationEvent = event;
}

bool WithFailingAllocation(unsigned spared, const std::function<void()>& call, bool forGood) {
    static bool struck, isPersistent;
    static void (*strike)();
    strike = [] {
        struck = true;
        if (isPersistent)
            AtMainAllocation(0, strike);
        throw std::bad_alloc();
    };
    const struct End {
        ~End() { AtMainAllocation(0, nullptr); }
    } end;
    struck = false;
    isPersistent = forGood;
    AtMainAllocation(static_cast<int>(spared), strike);
    call();
    return struck;
}

std::size_t AllocatedBytes() noexcept { return allocated; }
std::ptrdiff_t LiveAllocations() noexcept { return alive; }

void* operator new(std::size_t size) {
    allocated += size;
    void* memory = mayAllocate() ? std::malloc(size > 0 ? size : 1) : nullptr;
    alive += memory != nullptr;
    return memory ? memory : throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    alive -= memory != nullptr;
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept { operator delete(memory); }

// The library's own, which are the same, are in its DLL and do not call those above.
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    try {
        return operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept { return operator new(size, tag); }
void operator delete[](void* memory) noexcept { operator delete(memory); }
void operator delete[](void* memory, std::size_t) noexcept { operator delete(memory); }
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept { operator delete(memory); }
void operator delete[](void* memory, const std::nothrow_t& /*tag*/) noexcept { operator delete(memory); }
