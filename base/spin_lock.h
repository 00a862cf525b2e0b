#pragma once

#include <atomic>
#include <cstdint>

namespace Vexel::Detail {

/// Holds a word as a lock for a few instructions. Not recursive.
///
/// A thread that the end of the process stops in the middle of them never lets go. The last thread, which
/// runs the destructors of static objects then, does not get the lock but does not wait for ever either: it
/// must leave alone what the lock guards.
class SpinGuard {
public:
    explicit SpinGuard(std::atomic<std::uint32_t>& word) noexcept
        : word_(word), held_(word.exchange(1, std::memory_order_acquire) == 0 || wait()) {}
    SpinGuard(const SpinGuard&) = delete;
    SpinGuard& operator=(const SpinGuard&) = delete;
    ~SpinGuard() {
        if (held_)
            word_.store(0, std::memory_order_release);
    }

    /// False when the holder is gone for good.
    explicit operator bool() const noexcept { return held_; }

private:
    bool wait() noexcept;

    std::atomic<std::uint32_t>& word_;
    bool held_;
};

} // namespace Vexel::Detail
