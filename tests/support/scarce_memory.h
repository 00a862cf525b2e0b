#pragma once

#include "support/fault_sweep.h"

#include <cstddef>
#include <functional>

/// Allocations that fail, or during which something happens. Reaches the code of the test program itself (the
/// layers linked into it included), not that of DLLs.

/// Makes the next `count` allocations of threads other than the main one fail with `std::bad_alloc`.
void FailAllocationsElsewhere(int count) noexcept;

/// Calls `event` in the main thread's next allocation but `skipped`, once; it may raise `std::bad_alloc`.
/// Null takes an event back that has not come yet.
void AtMainAllocation(int skipped, void (*event)()) noexcept;

/// Runs `call`, which may raise, while the main thread's next allocation but `spared` fails; all from there
/// on if it is `forGood`. Whether there was one.
bool WithFailingAllocation(unsigned spared, const std::function<void()>& call, bool forGood = false);

/// The bytes that all allocations so far asked for, whatever was freed in between.
std::size_t AllocatedBytes() noexcept;
/// The allocations that have not been freed.
std::ptrdiff_t LiveAllocations() noexcept;
