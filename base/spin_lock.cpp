// Waiting is kept apart from taking: a lock is nearly always free, and taking it is inline. The waiter asks
// each time whether the process is ending, for then the holder may be a thread that is no more.

#include "base/spin_lock.h"

#include "base/process_end.h"

#include <thread>

namespace Vexel::Detail {

bool SpinGuard::wait() noexcept {
    do {
        if (isProcessEnding())
            return false;
        std::this_thread::yield();
    } while (word_.exchange(1, std::memory_order_acquire) != 0);
    return true;
}

} // namespace Vexel::Detail
