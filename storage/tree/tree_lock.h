#pragma once

#include <windows.h>

#include <atomic>
#include <memory>
#include <mutex>

class VxStorageItem;

/// The locks of the storage layer, in the order in which a thread takes them:
///
///  1. the container's, over its tables (recursive; storage/handles/root_tables.h);
///  2. a root's, over the whole tree below it: the tables of children, the state of the items, and the
///     system's interfaces and the archive behind them. Of two roots the one with the lower lock comes first;
///  3. an archive's, one of its items', and an item's contents' (archive/).
///
/// The locks of names and of temporary files are the innermost: nothing here is called under them.
///
/// Whoever opens a root by its path waits for that root under the container's lock. So a thread that needs
/// the container while it has a root, for the clean-up before a second attempt, lets go of its roots for that
/// time (TreesLetGo) and finds them changed afterwards. A clean-up itself passes over roots that are in use.
///
/// Under the lock of a root its own interfaces are called, a caller's wrapped one included, but no callback.
/// What keeps an item alive outside the lock is a reference.
namespace Vexel::Detail {

/// A root's lock. It outlives the root for those who still have it to give back.
class RootLock {
public:
    RootLock() noexcept = default;
    RootLock(const RootLock&) = delete;
    RootLock& operator=(const RootLock&) = delete;
    ~RootLock() = default;

    bool isMine() const noexcept { return owner_.load(std::memory_order_relaxed) == GetCurrentThreadId(); }
    bool isHeld() const noexcept { return owner_.load(std::memory_order_relaxed) != 0; }
    void lock() noexcept;
    bool tryLock() noexcept;
    void unlock() noexcept;

private:
    SRWLOCK lock_ = SRWLOCK_INIT;
    std::atomic<DWORD> owner_{0};
};

/// Holds the lock of an item's root to the end of its scope; does nothing when the thread has it already, or
/// without an item. At the end of the process, when no thread is left to give a lock back, it takes none.
class [[nodiscard]] TreeLock {
public:
    explicit TreeLock(const VxStorageItem* item) noexcept;
    explicit TreeLock(const VxStorageItem& item) noexcept : TreeLock(&item) {}
    /// Only if it can be had at once.
    TreeLock(const VxStorageItem& item, std::try_to_lock_t) noexcept;
    TreeLock(const TreeLock&) = delete;
    TreeLock& operator=(const TreeLock&) = delete;
    ~TreeLock();

    /// Whether the tree may be touched: not when another thread has it, be it one that is no more.
    explicit operator bool() const noexcept { return usable_; }

private:
    friend class TreesLetGo;

    bool mustLock(const VxStorageItem& item) noexcept;
    void enter(const std::shared_ptr<RootLock>& lock) noexcept;

    std::shared_ptr<RootLock> lock_; // null unless this object has to give it back
    TreeLock* before_ = nullptr;     // the thread's previous one with a lock
    bool usable_ = true;
};

/// Holds the locks of two items' roots, which may be one.
class [[nodiscard]] TreePairLock {
public:
    TreePairLock(const VxStorageItem& a, const VxStorageItem& b) noexcept;

private:
    TreeLock first_;
    TreeLock second_;
};

/// Gives all roots that the thread has locked to others for a while.
class [[nodiscard]] TreesLetGo {
public:
    TreesLetGo() noexcept;
    TreesLetGo(const TreesLetGo&) = delete;
    TreesLetGo& operator=(const TreesLetGo&) = delete;
    ~TreesLetGo();

private:
    TreeLock* held_;
};

} // namespace Vexel::Detail
