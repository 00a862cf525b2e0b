#pragma once

#include <windows.h>

#include <utility>

namespace Vexel::Storage::Engine {

/// A lock, with changes of what it guards that can be waited for. Unlike the standard library's, which makes
/// its parts when they are first used, it takes no memory and cannot fail.
class Monitor {
public:
    Monitor() noexcept = default;
    Monitor(const Monitor&) = delete;
    Monitor& operator=(const Monitor&) = delete;
    ~Monitor() = default;

    void lock() noexcept { AcquireSRWLockExclusive(&lock_); }
    void unlock() noexcept { ReleaseSRWLockExclusive(&lock_); }

    /// Used by threads that have the lock.
    class Change {
    public:
        /// Lets go of the lock until the change is told, or for no reason at all.
        void wait(Monitor& monitor) noexcept {
            isAwaited_ = true;
            SleepConditionVariableSRW(&condition_, &monitor.lock_, INFINITE, 0);
        }
        /// Tells everybody who waits.
        void tell() noexcept {
            if (std::exchange(isAwaited_, false))
                WakeAllConditionVariable(&condition_);
        }

    private:
        CONDITION_VARIABLE condition_ = CONDITION_VARIABLE_INIT;
        bool isAwaited_ = false;
    };

private:
    SRWLOCK lock_ = SRWLOCK_INIT;
};

} // namespace Vexel::Storage::Engine
