#pragma once

/// Where the memory of buffers comes from. All allocations of memory streams and large buffers go through
/// here, so that tests can make each of them fail.
namespace Vexel::Detail {

struct MemorySource {
    void* (*reallocate)(void* block,
                        unsigned long long bytes) noexcept; ///< heap; null leaves `block` as it is
    void (*free)(void* block) noexcept;
    void* (*commit)(unsigned long long bytes) noexcept; ///< whole pages from the system
    void (*release)(void* pages) noexcept;
};

extern MemorySource memorySource;

} // namespace Vexel::Detail
