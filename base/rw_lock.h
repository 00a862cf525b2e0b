#pragma once

#include "base/process_end.h"

#include <atomic>
#include <cstdint>
#include <thread>

/// Reader/writer spin locks of one word, for sections that are short or rarely contended. Bit 0: held
/// exclusively; bit 1: a writer waits, so that readers cannot keep it out; each reader adds 4.
///
/// At the end of the process one thread is left, and nobody lets go of anything: it does not wait. What
/// others were reading when they were ended is whole, and it takes their lock; what one was changing may not
/// be, and it is refused.
namespace Vexel::Detail {

using RwLockWord = std::atomic<std::uint64_t>;

namespace RwLock {

constexpr std::uint64_t kHeld = 1;
constexpr std::uint64_t kWaiting = 2;
constexpr std::uint64_t kReader = 4;

/// Waits a little longer each time, then gives the processor away.
class BackOff {
public:
    /// False when there is nobody to wait for.
    bool pause() noexcept {
        // Whoever waits already does not live to see the end.
        if (spins_ == 1 && isProcessEnding())
            return false;
        if (spins_ > kMostSpins) {
            std::this_thread::yield();
            return true;
        }
        for (unsigned i = 0; i < spins_; ++i)
            std::atomic_signal_fence(std::memory_order_seq_cst);
        spins_ *= 2;
        return true;
    }

private:
    static constexpr unsigned kMostSpins = 16;
    unsigned spins_ = 1;
};

/// From threads that were ended. False when one of them was a writer.
inline bool takeOver(RwLockWord& word, std::uint64_t possession) noexcept {
    if ((word & kHeld) != 0)
        return false;
    word = possession;
    return true;
}

/// False, as below, only at the end of the process.
inline bool lockShared(RwLockWord& word) noexcept {
    BackOff backOff;
    do {
        if ((word.load(std::memory_order_relaxed) & (kHeld | kWaiting)) != 0)
            continue;
        if ((word.fetch_add(kReader, std::memory_order_acquire) & kHeld) == 0)
            return true;
        word.fetch_sub(kReader, std::memory_order_relaxed);
    } while (backOff.pause());
    return takeOver(word, kReader);
}

/// False when somebody else holds the lock exclusively or waits to.
inline bool tryLockShared(RwLockWord& word) noexcept {
    std::uint64_t seen = word.load(std::memory_order_relaxed);
    while ((seen & (kHeld | kWaiting)) == 0) {
        if (word.compare_exchange_weak(seen, seen + kReader, std::memory_order_acquire,
                                       std::memory_order_relaxed))
            return true;
    }
    return false;
}

inline void unlockShared(RwLockWord& word) noexcept { word.fetch_sub(kReader, std::memory_order_release); }

inline bool lockExclusive(RwLockWord& word) noexcept {
    BackOff backOff;
    do {
        std::uint64_t seen = word.load(std::memory_order_relaxed);
        if ((seen & ~kWaiting) == 0) {
            if (word.compare_exchange_weak(seen, kHeld, std::memory_order_acquire, std::memory_order_relaxed))
                return true;
        } else if ((seen & kWaiting) == 0) {
            word.fetch_or(kWaiting, std::memory_order_relaxed);
        }
    } while (backOff.pause());
    return takeOver(word, kHeld);
}

/// False when somebody else holds the lock or waits for it.
inline bool tryLockExclusive(RwLockWord& word) noexcept {
    std::uint64_t seen = 0;
    return word.compare_exchange_strong(seen, kHeld, std::memory_order_acquire, std::memory_order_relaxed);
}

inline void unlockExclusive(RwLockWord& word) noexcept {
    word.fetch_and(~(kHeld | kWaiting), std::memory_order_release);
}

/// Turns the caller's share into exclusive possession. False when another writer was let through first: what
/// was read under the share may no longer hold.
inline bool upgrade(RwLockWord& word) noexcept {
    if (isProcessEnding()) { // beside a reader nobody was changing anything
        word = kHeld;
        return true;
    }
    std::uint64_t seen = word.load(std::memory_order_relaxed);
    BackOff backOff;
    do {
        if ((seen & kWaiting) != 0 && (seen & ~kWaiting) != kReader) {
            unlockShared(word);
            lockExclusive(word);
            return false;
        }
    } while (!word.compare_exchange_weak(seen, seen | kHeld | kWaiting, std::memory_order_acquire,
                                         std::memory_order_relaxed));
    while ((word.load(std::memory_order_acquire) & ~(kHeld | kWaiting)) != kReader)
        backOff.pause();
    word.fetch_sub(kReader + kWaiting, std::memory_order_acquire);
    return true;
}

} // namespace RwLock

/// Holds a lock to the end of its scope. At the end of the process it may not get it.
class RwGuard {
public:
    enum Mode { Shared, Exclusive };

    RwGuard(RwLockWord& word, Mode mode) noexcept
        : RwGuard(word, mode, mode == Exclusive ? RwLock::lockExclusive(word) : RwLock::lockShared(word)) {}
    RwGuard(const RwGuard&) = delete;
    RwGuard& operator=(const RwGuard&) = delete;
    ~RwGuard() {
        if (!held_)
            return;
        if (exclusive_)
            RwLock::unlockExclusive(word_);
        else
            RwLock::unlockShared(word_);
    }

    explicit operator bool() const noexcept { return held_; }

    /// For a guard that holds the lock. True when nothing can have changed since it was taken; it is held
    /// exclusively in any case.
    bool upgrade() noexcept {
        if (exclusive_)
            return true;
        exclusive_ = true;
        return RwLock::upgrade(word_);
    }

protected:
    RwGuard(RwLockWord& word, Mode mode, bool held) noexcept
        : word_(word), exclusive_(mode == Exclusive), held_(held) {}

private:
    RwLockWord& word_;
    bool exclusive_;
    bool held_;
};

/// The same, if the lock can be had at once.
class RwTryGuard : public RwGuard {
public:
    RwTryGuard(RwLockWord& word, Mode mode) noexcept
        : RwGuard(word, mode,
                  mode == Exclusive ? RwLock::tryLockExclusive(word) : RwLock::tryLockShared(word)) {}
};

} // namespace Vexel::Detail
