#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace Vexel::Tool {

/// Calls `work(i)` for each number below `count`, on a thread for each processor, and `take(i, result)` on
/// this thread, in order and as soon as each result is there. What either throws ends the whole: no further
/// work is begun, what was begun is waited for, and the first of them is thrown here.
template <class Result, class Work, class Take>
void inParallel(std::size_t count, const Work& work, const Take& take) {
    struct Slot {
        std::optional<Result> result;
        std::exception_ptr failure;
    };
    std::mutex lock;
    std::condition_variable ready;
    std::vector<Slot> slots(count);
    std::size_t next = 0;
    const auto runOne = [&](std::size_t i) {
        Slot slot;
        try {
            slot.result = work(i);
        } catch (...) {
            slot.failure = std::current_exception();
        }
        const std::lock_guard guard(lock);
        if (slot.failure)
            next = count;
        slots[i] = std::move(slot);
        ready.notify_all();
    };
    const auto runAll = [&](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            std::unique_lock guard(lock);
            const std::size_t mine = next;
            if (mine >= count)
                return;
            ++next;
            guard.unlock();
            runOne(mine);
        }
    };
    std::vector<std::jthread> threads; // stopped and waited for by their destructors
    const std::size_t processors = std::max(1u, std::thread::hardware_concurrency());
    while (threads.size() < std::min(count, processors))
        threads.emplace_back(runAll);
    for (std::size_t i = 0; i < count; ++i) {
        std::unique_lock guard(lock);
        ready.wait(guard, [&] { return slots[i].result || slots[i].failure; });
        const Slot slot = std::move(slots[i]);
        guard.unlock();
        if (slot.failure)
            std::rethrow_exception(slot.failure);
        if (slot.result)
            take(i, *slot.result);
    }
}

} // namespace Vexel::Tool
