#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

namespace Vexel::Detail {

/// Guards a few instructions by a word that lies elsewhere; use with std::lock_guard. Not recursive.
class SpinLock {
public:
    explicit SpinLock(std::atomic<std::uint32_t>& word) noexcept : word_(word) {}

    void lock() noexcept {
        while (word_.exchange(1, std::memory_order_acquire) != 0)
            std::this_thread::yield();
    }
    void unlock() noexcept { word_.store(0, std::memory_order_release); }

private:
    std::atomic<std::uint32_t>& word_;
};

} // namespace Vexel::Detail
