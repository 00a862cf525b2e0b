#pragma once

/// Makes the next `count` allocations of threads other than the main one fail with `std::bad_alloc`. Reaches
/// the code of the test program itself (the layers linked into it included), not that of DLLs.
void FailAllocationsElsewhere(int count) noexcept;
