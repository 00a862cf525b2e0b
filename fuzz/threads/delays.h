#pragma once

// Included before everything else: each access to an atomic variable of the sources may take a while, so that
// what is rare between threads becomes common. The standard headers come first, since they mean the real
// ones.

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <locale>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

namespace Vexel::Fuzz {

/// Now and then gives the processor away.
inline void delay() noexcept {
    static thread_local unsigned state =
        static_cast<unsigned>(reinterpret_cast<std::size_t>(&state) >> 4) | 1;
    state = state * 1664525 + 1013904223;
    if (state >> 28 == 0)
        std::this_thread::yield();
}

} // namespace Vexel::Fuzz

namespace std {

template <class Value>
class DelayedAtomic : public atomic<Value> {
    using Base = atomic<Value>;
    static void delay() noexcept { Vexel::Fuzz::delay(); }

public:
    DelayedAtomic() noexcept = default;
    constexpr DelayedAtomic(Value value) noexcept : Base(value) {}
    // Those of the base would go past the delays.
    Value operator=(Value value) noexcept { return store(value), value; }
    Value operator++() noexcept { return fetch_add(1) + 1; }
    Value operator++(int) noexcept { return fetch_add(1); }
    Value operator--() noexcept { return fetch_sub(1) - 1; }
    Value operator--(int) noexcept { return fetch_sub(1); }
    Value operator+=(Value value) noexcept { return fetch_add(value) + value; }
    Value operator-=(Value value) noexcept { return fetch_sub(value) - value; }
    Value operator|=(Value value) noexcept { return fetch_or(value) | value; }
    Value operator&=(Value value) noexcept { return fetch_and(value) & value; }
    operator Value() const noexcept { return load(); }
    Value load(memory_order order = memory_order_seq_cst) const noexcept {
        delay();
        return Base::load(order);
    }
    void store(Value value, memory_order order = memory_order_seq_cst) noexcept {
        delay();
        Base::store(value, order);
        delay();
    }
    Value exchange(Value value, memory_order order = memory_order_seq_cst) noexcept {
        delay();
        const Value before = Base::exchange(value, order);
        delay();
        return before;
    }
    Value fetch_add(Value value, memory_order order = memory_order_seq_cst) noexcept {
        delay();
        const Value before = Base::fetch_add(value, order);
        delay();
        return before;
    }
    Value fetch_sub(Value value, memory_order order = memory_order_seq_cst) noexcept {
        delay();
        const Value before = Base::fetch_sub(value, order);
        delay();
        return before;
    }
    Value fetch_or(Value value, memory_order order = memory_order_seq_cst) noexcept {
        delay();
        return Base::fetch_or(value, order);
    }
    Value fetch_and(Value value, memory_order order = memory_order_seq_cst) noexcept {
        delay();
        return Base::fetch_and(value, order);
    }
    bool compare_exchange_weak(Value& expected, Value value, memory_order success,
                               memory_order failure) noexcept {
        delay();
        return Base::compare_exchange_weak(expected, value, success, failure);
    }
    bool compare_exchange_weak(Value& expected, Value value,
                               memory_order order = memory_order_seq_cst) noexcept {
        delay();
        return Base::compare_exchange_weak(expected, value, order);
    }
    bool compare_exchange_strong(Value& expected, Value value, memory_order success = memory_order_seq_cst,
                                 memory_order failure = memory_order_seq_cst) noexcept {
        delay();
        return Base::compare_exchange_strong(expected, value, success, failure);
    }
};

} // namespace std

#define atomic DelayedAtomic
