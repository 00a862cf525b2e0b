// A thread knows which roots it has locked by a list of its TreeLock objects, which lie on its stack. So a
// function may take the lock that its caller has already, and a clean-up can give all of them back for its
// time and take them again in their order.

#include "storage/tree/tree_lock.h"

#include "base/process_end.h"
#include "storage/tree/storage_item.h"

#include <functional>
#include <utility>

namespace Vexel::Detail {

namespace {

/// The locks that this thread has, the last one taken first. They are on its stack.
thread_local TreeLock* heldByThread = nullptr;

bool isLower(const RootLock* a, const RootLock* b) noexcept { return std::less<>()(a, b); }

/// The one of two items whose root is locked first.
const VxStorageItem* first(const VxStorageItem* a, const VxStorageItem* b) noexcept {
    return isLower(b->rootLock().get(), a->rootLock().get()) ? b : a;
}

} // namespace

void RootLock::lock() noexcept {
    AcquireSRWLockExclusive(&lock_);
    owner_.store(GetCurrentThreadId(), std::memory_order_relaxed);
}

bool RootLock::tryLock() noexcept {
    if (!TryAcquireSRWLockExclusive(&lock_))
        return false;
    owner_.store(GetCurrentThreadId(), std::memory_order_relaxed);
    return true;
}

void RootLock::unlock() noexcept {
    owner_.store(0, std::memory_order_relaxed);
    ReleaseSRWLockExclusive(&lock_);
}

TreeLock::TreeLock(const VxStorageItem* item) noexcept {
    if (!item || !mustLock(*item))
        return;
    item->rootLock()->lock();
    enter(item->rootLock());
}

TreeLock::TreeLock(const VxStorageItem& item, std::try_to_lock_t) noexcept {
    if (!mustLock(item))
        return;
    usable_ = item.rootLock()->tryLock();
    if (usable_)
        enter(item.rootLock());
}

bool TreeLock::mustLock(const VxStorageItem& item) noexcept {
    if (isProcessEnding()) {
        usable_ = !item.rootLock()->isHeld();
        return false;
    }
    return !item.rootLock()->isMine();
}

void TreeLock::enter(const std::shared_ptr<RootLock>& lock) noexcept {
    lock_ = lock;
    before_ = std::exchange(heldByThread, this);
}

TreeLock::~TreeLock() {
    if (!lock_)
        return;
    heldByThread = before_;
    lock_->unlock();
}

TreePairLock::TreePairLock(const VxStorageItem& a, const VxStorageItem& b) noexcept
    : first_(first(&a, &b)), second_(first(&a, &b) == &a ? &b : &a) {}

TreesLetGo::TreesLetGo() noexcept : held_(std::exchange(heldByThread, nullptr)) {
    for (const TreeLock* held = held_; held; held = held->before_)
        held->lock_->unlock();
}

// In their order, whatever the order was in which they were taken; there are rarely more than two.
TreesLetGo::~TreesLetGo() {
    const RootLock* last = nullptr;
    for (;;) {
        RootLock* next = nullptr;
        for (const TreeLock* held = held_; held; held = held->before_) {
            RootLock* const lock = held->lock_.get();
            if (isLower(last, lock) && (!next || isLower(lock, next)))
                next = lock;
        }
        if (!next)
            break;
        next->lock();
        last = next;
    }
    heldByThread = held_;
}

} // namespace Vexel::Detail
