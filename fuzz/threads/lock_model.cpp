// Every interleaving of two threads of three operations each on the locks of one word. The locks' own code
// runs, with a stand-in for std::atomic that hands control to a scheduler before each access; what a thread
// waits for is a change by another one. States that were met before are not gone on from: a thread's is told
// by what it has seen.
//
// Looked for are two writers or a writer beside a reader, a share that was turned into possession although
// somebody wrote meanwhile, a try that fails although nobody else is there, threads that wait for each other
// for ever, and a word that is not free at the end. Accesses are taken in order, as x86-64's lock
// instructions give it; what weaker machines might do is for ThreadSanitizer.

#include <setjmp.h>
#include <ucontext.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>
#include <unordered_set>
#include <vector>

namespace {

constexpr unsigned kMostThreads = 3;
constexpr std::size_t kStackBytes = 0x10000;

struct Fiber {
    std::unique_ptr<char[]> stack{new char[kStackBytes]};
    ucontext_t start{};
    jmp_buf place{};
    bool isStarted = false;
    bool isDone = false;
    bool hasLooked = false;       // at anything since it paused last
    bool isWaiting = false;       // until a change
    std::uint64_t paused = ~0ULL; // the number of changes when it paused last
    std::uint64_t seen = 0;       // a hash of what it has seen, as far as it still matters
    // Of the operation at hand: what is left of it while it waits.
    std::uint64_t operation = 0, remembered = 0, shares = 0, exchanges = 0;
};

struct World {
    Fiber fibers[kMostThreads];
    unsigned threads = 0;
    unsigned running = 0;
    jmp_buf scheduler{};
    std::vector<unsigned char> choices; // of this run
    std::size_t next = 0;
    std::uint64_t changes = 0;
    bool mayFail = true; // a weak exchange may fail for no reason, once
    const char* fault = nullptr;
} world;

void mix(std::uint64_t& hash, std::uint64_t value) {
    hash = (hash ^ value) * 0x9E3779B97F4A7C15;
    hash ^= hash >> 29;
}

Fiber& self() { return world.fibers[world.running]; }

void fail(const char* what) {
    if (!world.fault)
        world.fault = what;
}

/// Lets the scheduler decide who goes on.
void step() {
    mix(self().seen, 1); // it is one step further
    self().hasLooked = true;
    if (_setjmp(self().place) == 0)
        _longjmp(world.scheduler, 1);
}

void begin(std::uint64_t operation) {
    Fiber& fiber = self();
    fiber.operation = fiber.seen = operation;
    fiber.remembered = fiber.shares = fiber.exchanges = 0;
}

/// To try again would come to the same where nothing has changed since it was tried last. All loops look at
/// the word anew; which one it is that waits is told by what the thread has done to the word.
void wait() {
    if (!self().hasLooked) // one pause may wait several times
        return;
    self().seen = 0xB0FF;
    for (const std::uint64_t left : {self().operation, self().remembered, self().shares, self().exchanges})
        mix(self().seen, left);
    self().isWaiting = self().paused == world.changes;
    self().paused = world.changes;
    step();
    self().hasLooked = false;
}

void changed() {
    ++world.changes;
    for (unsigned i = 0; i < world.threads; ++i)
        if (i != world.running)
            world.fibers[i].isWaiting = false;
}

/// Another way that this step may take, besides the usual one.
bool otherWay();

} // namespace

namespace std {

template <class Number>
class ModelAtomic {
public:
    ModelAtomic() = default;
    constexpr ModelAtomic(Number value) : value_(value) {}
    operator Number() const { return load(); }
    Number load(memory_order = memory_order_seq_cst) const {
        step();
        return note(value_);
    }
    void store(Number value, memory_order = memory_order_seq_cst) {
        step();
        set(value);
    }
    ModelAtomic& operator=(Number value) {
        store(value);
        return *this;
    }
    Number exchange(Number value, memory_order = memory_order_seq_cst) {
        step();
        const Number before = value_;
        set(value);
        return note(before);
    }
    Number fetch_add(Number value, memory_order = memory_order_seq_cst) {
        step();
        const Number before = value_;
        set(before + value);
        self().shares += value;
        return note(before);
    }
    Number fetch_sub(Number value, memory_order order = memory_order_seq_cst) {
        return fetch_add(Number{0} - value, order);
    }
    Number fetch_or(Number value, memory_order = memory_order_seq_cst) {
        step();
        const Number before = value_;
        set(value_ | value);
        return note(before);
    }
    Number fetch_and(Number value, memory_order = memory_order_seq_cst) {
        step();
        const Number before = value_;
        set(value_ & value);
        return note(before);
    }
    bool compare_exchange_strong(Number& expected, Number value, memory_order = memory_order_seq_cst,
                                 memory_order = memory_order_seq_cst) {
        step();
        const bool isSame = value_ == expected;
        self().exchanges += isSame;
        if (isSame)
            set(value);
        else
            expected = value_;
        note(value_ * 2 + isSame);
        return isSame;
    }
    bool compare_exchange_weak(Number& expected, Number value, memory_order order = memory_order_seq_cst,
                               memory_order = memory_order_seq_cst) {
        if (otherWay()) {
            step();
            expected = value_;
            note(value_ * 2);
            self().paused = ~0ULL; // the next try may come to something else
            return false;
        }
        return compare_exchange_strong(expected, value, order);
    }
    Number peek() const { return value_; }
    void reset() { value_ = 0; }

private:
    Number note(Number value) const {
        mix(self().seen, value);
        return value;
    }
    void set(Number value) {
        if (value_ != value)
            changed();
        value_ = value;
    }
    Number value_{};
};

inline void modelWait() { wait(); }
namespace this_thread {
inline void modelWait() noexcept { wait(); }
} // namespace this_thread

} // namespace std

// The locks' code is taken with the stand-ins in the places of what it uses.
#define atomic ModelAtomic
#define atomic_signal_fence(order) modelWait()
#define yield modelWait
#include "base/rw_lock.h"
#include "base/spin_lock.cpp"
#undef atomic
#undef atomic_signal_fence
#undef yield

bool Vexel::Detail::isProcessEnding() noexcept { return false; }

namespace {

using namespace Vexel::Detail;

enum Operation { Share, Possess, TryShare, TryPossess, Upgrade, kRwOperations };
constexpr const char* kNames[] = {"share", "possess", "try to share", "try to possess", "share and upgrade"};

struct Model {
    RwLockWord rw{0};
    std::ModelAtomic<std::uint32_t> spin{0};
    unsigned readers = 0, writers = 0;
    std::uint64_t data = 0, written = 0;
    std::vector<Operation> plans[kMostThreads];
    bool isSpin = false;
} model;

void readInside() {
    if (model.writers > 0)
        fail("a reader beside a writer");
    ++model.readers;
    mix(self().seen, model.data);
    step();
    if (model.writers > 0)
        fail("a writer beside a reader");
    --model.readers;
}

void writeInside() {
    if (model.writers > 0 || model.readers > 0)
        fail("a writer beside somebody else");
    ++model.writers;
    ++model.data;
    ++model.written;
    step();
    if (model.writers != 1 || model.readers > 0)
        fail("somebody else beside a writer");
    --model.writers;
}

bool isAlone() {
    for (unsigned i = 0; i < world.threads; ++i)
        if (i != world.running && !world.fibers[i].isDone)
            return false;
    return true;
}

void runUpgrade() {
    RwGuard guard(model.rw, RwGuard::Shared);
    readInside();
    const std::uint64_t before = model.data;
    mix(self().seen, before);
    self().remembered = before + 1;
    const bool isSame = guard.upgrade();
    if (isSame && model.data != before)
        fail("somebody wrote during an upgrade that says that nobody did");
    writeInside();
}

void runOperation(Operation operation) {
    if (model.isSpin) {
        const SpinGuard guard(model.spin);
        if (!guard)
            fail("a lock that is not had although the process goes on");
        writeInside();
        return;
    }
    if (operation == Upgrade)
        return runUpgrade();
    const auto mode = operation == Share || operation == TryShare ? RwGuard::Shared : RwGuard::Exclusive;
    const auto inside = [&](const RwGuard& guard) {
        if (guard)
            mode == RwGuard::Shared ? readInside() : writeInside();
        return static_cast<bool>(guard);
    };
    if (operation == Share || operation == Possess) {
        if (!inside(RwGuard(model.rw, mode)))
            fail("a lock that is not had although the process goes on");
        return;
    }
    const bool wasAlone = isAlone();
    if (!inside(RwTryGuard(model.rw, mode)) && wasAlone)
        fail("a try that fails although nobody else is there");
}

void body() {
    std::uint64_t number = 0;
    for (const Operation operation : model.plans[world.running]) {
        begin(++number);
        runOperation(operation);
    }
    self().isDone = true;
    changed();
    _longjmp(world.scheduler, 1);
}

void resume(unsigned thread) {
    world.running = thread;
    Fiber& fiber = world.fibers[thread];
    if (_setjmp(world.scheduler) != 0)
        return;
    if (fiber.isStarted)
        _longjmp(fiber.place, 1);
    fiber.isStarted = true;
    getcontext(&fiber.start);
    fiber.start.uc_stack.ss_sp = fiber.stack.get();
    fiber.start.uc_stack.ss_size = kStackBytes;
    fiber.start.uc_link = nullptr;
    makecontext(&fiber.start, body, 0);
    setcontext(&fiber.start);
}

std::unordered_set<std::uint64_t> met;
std::vector<unsigned char> ways; // that there were at each choice of the run
std::uint64_t runs = 0, steps = 0;

/// The next choice: what was decided on, or the first.
unsigned choose(unsigned count) {
    if (world.next == world.choices.size())
        world.choices.push_back(0);
    ways.resize(world.choices.size());
    ways[world.next] = static_cast<unsigned char>(count);
    return world.choices[world.next++];
}

std::uint64_t stateNow() {
    std::uint64_t state = model.rw.peek();
    mix(state, model.spin.peek());
    mix(state, model.data * 16 + model.readers * 4 + model.writers);
    mix(state, world.mayFail);
    for (unsigned i = 0; i < world.threads; ++i) {
        mix(state, world.fibers[i].seen);
        mix(state, (world.fibers[i].paused == world.changes) * 8U + world.fibers[i].isWaiting * 4U +
                       world.fibers[i].isDone * 2U + world.fibers[i].isStarted);
    }
    return state;
}

/// One interleaving, as far as it leads to what was not met before.
void run() {
    ++runs;
    model.rw.reset();
    model.spin.reset();
    model.readers = model.writers = 0;
    model.data = model.written = 0;
    world.next = 0;
    world.mayFail = true;
    world.changes = 0;
    for (unsigned i = 0; i < world.threads; ++i) {
        Fiber& fiber = world.fibers[i];
        fiber.isStarted = fiber.isDone = fiber.isWaiting = fiber.hasLooked = false;
        fiber.seen = 0;
        fiber.paused = ~0ULL;
    }
    while (!world.fault) {
        unsigned ready[kMostThreads], count = 0, left = 0;
        for (unsigned i = 0; i < world.threads; ++i) {
            left += !world.fibers[i].isDone;
            if (!world.fibers[i].isDone && !world.fibers[i].isWaiting)
                ready[count++] = i;
        }
        if (count == 0) {
            if (left > 0)
                fail("threads that wait for ever");
            else if (model.rw.peek() != 0 || model.spin.peek() != 0)
                fail("a word that is not free at the end");
            else if (model.data != model.written)
                fail("a change that was lost");
            return;
        }
        // Behind what was decided on before, only new states are gone on from.
        if (world.next >= world.choices.size() && !met.insert(stateNow()).second)
            return;
        ++steps;
        resume(ready[choose(count)]);
    }
}

bool otherWay() {
    if (!world.mayFail || choose(2) == 0)
        return false;
    world.mayFail = false;
    return true;
}

/// All interleavings of the plans. False when there is a fault.
bool explore() {
    met.clear();
    world.choices.clear();
    ways.clear();
    for (;;) {
        run();
        if (world.fault)
            return false;
        // The last choice that has another way takes it.
        ways.resize(world.next);
        world.choices.resize(world.next);
        while (!world.choices.empty() && world.choices.back() + 1 == ways.back()) {
            world.choices.pop_back();
            ways.pop_back();
        }
        if (world.choices.empty())
            return true;
        ++world.choices.back();
    }
}

/// Every combination of operations, the threads being alike.
bool exploreAll(unsigned threads, unsigned operations, unsigned kinds) {
    world.threads = threads;
    unsigned plans = 1;
    for (unsigned i = 0; i < operations; ++i)
        plans *= kinds;
    std::vector<unsigned> chosen(threads, 0);
    std::uint64_t combinations = 0, states = 0;
    runs = steps = 0;
    for (;;) {
        for (unsigned i = 0; i < threads; ++i) {
            model.plans[i].clear();
            for (unsigned k = 0, code = chosen[i]; k < operations; ++k, code /= kinds)
                model.plans[i].push_back(static_cast<Operation>(code % kinds));
        }
        ++combinations;
        if (!explore()) {
            std::printf("%s\n", world.fault);
            for (unsigned i = 0; i < threads; ++i)
                for (const Operation operation : model.plans[i])
                    std::printf("  thread %u: %s\n", i, kNames[operation]);
            return false;
        }
        states += met.size();
        unsigned at = threads;
        while (at > 0 && chosen[at - 1] + 1 == plans)
            --at;
        if (at == 0)
            break;
        const unsigned value = chosen[at - 1] + 1;
        for (unsigned i = at - 1; i < threads; ++i) // not below the threads before
            chosen[i] = value;
    }
    std::printf("%s: %u threads, %u operations each: %llu combinations, %llu states, %llu interleavings, "
                "%llu steps\n",
                model.isSpin ? "spin lock" : "reader/writer lock", threads, operations,
                static_cast<unsigned long long>(combinations), static_cast<unsigned long long>(states),
                static_cast<unsigned long long>(runs), static_cast<unsigned long long>(steps));
    std::fflush(stdout);
    return true;
}

} // namespace

int main() {
    if (!exploreAll(2, 3, kRwOperations) || !exploreAll(3, 1, kRwOperations))
        return 1;
    model.isSpin = true;
    return exploreAll(2, 3, 1) && exploreAll(3, 2, 1) ? 0 : 1;
}
