#include "log_sink.h"

#include "base/process_end_query.h"
#include "default_sink.h"

#include <vexel/diagnostics.h>

#include <windows.h>

#include <atomic>
#include <limits>
#include <utility>

namespace Vexel::Detail {
namespace {

struct Target {
    VxLogSink sink = nullptr;
    void* context = nullptr;
};

constexpr int kEveryLevel = std::numeric_limits<int>::min();

/// The present sink and how many calls are running. No lock is held during a call, so a sink may log. Calls
/// are counted per generation of the sink: who sets a new one waits for those of the old one only, however
/// busy the new one is.
///
/// Slim locks and nothing that is built or destroyed at run time: usable before `main` and at process exit.
/// There, when all other threads are gone and what they held stays held, nothing is locked or waited for: one
/// word says which of the two targets is the present one, so that it is whole wherever a thread was stopped.
class SinkSlot {
public:
    bool wants(int level) const noexcept {
        return level >= minimumLevel_.load(std::memory_order_relaxed) &&
               (level >= VxLog_Warning || !queryProcessEnd());
    }

    void call(int level, const wchar_t* message) noexcept {
        // A sink of the application may wait for a lock that is held for good.
        if (queryProcessEnd()) {
            writeToStandardError(level, message);
            return;
        }
        const auto [target, generation] = enter();
        try {
            if (target.sink)
                target.sink(level, message, target.context);
            else
                writeToStandardError(level, message);
        } catch (...) {
            // Logging never fails for the one who logs.
        }
        leave(generation);
    }

    Target exchange(Target target) noexcept {
        if (queryProcessEnd())
            return replace(target);
        AcquireSRWLockExclusive(&settingLock_); // one generation ends at a time
        AcquireSRWLockExclusive(&lock_);
        const unsigned ended = generation_;
        const Target old = replace(target);
        while (calls_[ended] != 0)
            SleepConditionVariableSRW(&callsEnded_, &lock_, INFINITE, 0);
        ReleaseSRWLockExclusive(&lock_);
        ReleaseSRWLockExclusive(&settingLock_);
        return old;
    }

private:
    Target replace(Target target) noexcept {
        const Target old = targets_[generation_];
        const unsigned next = generation_ ^ 1U;
        targets_[next] = target;
        minimumLevel_.store(target.sink ? kEveryLevel : VxLog_Warning, std::memory_order_relaxed);
        generation_ = next;
        return old;
    }

    std::pair<Target, unsigned> enter() noexcept {
        AcquireSRWLockExclusive(&lock_);
        const unsigned generation = generation_;
        ++calls_[generation];
        const Target target = targets_[generation];
        ReleaseSRWLockExclusive(&lock_);
        return {target, generation};
    }

    void leave(unsigned generation) noexcept {
        AcquireSRWLockExclusive(&lock_);
        if (--calls_[generation] == 0)
            WakeAllConditionVariable(&callsEnded_);
        ReleaseSRWLockExclusive(&lock_);
    }

    SRWLOCK settingLock_ = SRWLOCK_INIT;
    SRWLOCK lock_ = SRWLOCK_INIT; ///< guards all below but the level
    CONDITION_VARIABLE callsEnded_ = CONDITION_VARIABLE_INIT;
    Target targets_[2];
    std::atomic<unsigned> generation_ = 0;
    unsigned calls_[2] = {0, 0};
    std::atomic<int> minimumLevel_ = VxLog_Warning;
};

constinit SinkSlot slot;

} // namespace

bool logWanted(int level) noexcept { return slot.wants(level); }

void deliverToSink(int level, const wchar_t* message) noexcept { slot.call(level, message); }

} // namespace Vexel::Detail

VxLogSink VxLog_SetSink(VxLogSink sink, void* context, void** oldContext) noexcept {
    const auto old = Vexel::Detail::slot.exchange({sink, context});
    if (oldContext)
        *oldContext = old.context;
    return old.sink;
}
