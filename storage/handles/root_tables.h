#pragma once

#include "storage/tree/item_ref.h"
#include "storage/tree/root_keeper.h"
#include "storage/tree/storage_item.h"

#include <vexel/path_name.h>
#include <vexel/storage.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace Vexel::Detail {

/// How a root is opened or made.
struct RootOptions {
    bool readOnly = false;
    bool keyed = false;    ///< keeps writers out while it is open for reading, and is a root of its own
    bool rootFlag = false; ///< kept with the root for the application
};

inline RootOptions rootOptions(RootStorageOpenMode mode, bool rootFlag) noexcept {
    return {.readOnly = mode != RootStorageOpenMode::ReadWrite,
            .keyed = mode != RootStorageOpenMode::ReadOnly,
            .rootFlag = rootFlag};
}

/// What the container knows: the open roots by path and by interface, so that one file is one root, and the
/// paths where there was none. Its functions may be called on any thread; its lock is the first that a thread
/// takes (storage/tree/tree_lock.h). The roots that they return carry a reference for the caller already, and
/// are null when `status` is a failure.
class RootTables final : public RootKeeper {
public:
    RootTables() = default;
    RootTables(const RootTables&) = delete;
    RootTables& operator=(const RootTables&) = delete;
    ~RootTables() = default;

    ItemRef<VxStorage> open(const SharedPathName& path, const RootOptions& options, long& status);
    /// Makes the file anew.
    ItemRef<VxStorage> create(const SharedPathName& path, long& status);
    /// Makes the file anew with the contents of what stands there.
    ItemRef<VxStorage> convert(const SharedPathName& path, const RootOptions& options, long& status);
    ItemRef<VxStorage> createTemporary(long& status, bool rootFlag);
    /// The root of a caller's interface; null for null.
    ItemRef<VxStorage> wrap(IStorage* storage);

    bool deleteUnusedObjects();
    void clearAll();
    /// At the end of the process: files that are to be deleted must not be open then.
    void closeTemporaryRoots() noexcept;

    void setCallback(bool (*callback)()) { callback_ = callback; }
    bool setMakingFiles(bool files) { return makesFiles_.exchange(files); }
    bool isMakingFiles() const override { return makesFiles_; }
    /// Calls the callback, or deleteUnusedObjects where there is none.
    bool freeForRetry() override;

private:
    enum class Making { Anew, Converted };

    using RootKey = std::pair<SharedPathName, bool>; // path, keyed
    // The reference of its own keeps the interface's address from being met again for another object.
    struct WrappedRoot {
        Microsoft::WRL::ComPtr<IStorage> storage;
        std::unique_ptr<VxStorage> root;
    };
    using Roots = std::multimap<RootKey, std::unique_ptr<VxStorage>>;
    using Wrapped = std::multimap<IStorage*, WrappedRoot>;

    ItemRef<VxStorage> make(const SharedPathName& path, Making making, const RootOptions& options,
                            long& status);
    ItemRef<VxStorage> findRoot(const RootKey& key);
    ItemRef<VxStorage> enterRoot(const RootKey& key, std::unique_ptr<VxStorage> root, long status);
    ItemRef<VxStorage> findWrapped(IStorage* storage);
    long probe(const SharedPathName& path);
    bool sweep(Roots& doomedRoots, Wrapped& doomedWrapped);
    void forgetOldMissing();
    void rememberMissing(const SharedPathName& path, long status);
    long missingStatus(const SharedPathName& path);

    // Recursive: a retry inside the opening of a root cleans up under the lock its own thread holds.
    std::recursive_mutex lock_;
    std::map<RootKey, std::unique_ptr<VxStorage>> roots_;
    std::map<IStorage*, WrappedRoot> wrapped_;
    std::map<SharedPathName, long> missing_; // of one period of caching path flags
    std::atomic<bool (*)()> callback_{nullptr};
    std::atomic<bool> makesFiles_{false};
    // Roots out of the tables that handles are still on. The nodes of the tables move here, which needs no
    // memory.
    Roots detachedRoots_;
    Wrapped detachedWrapped_;
    unsigned long long missingPeriod_ = 0;
};

/// The container's tables.
RootTables& rootTables();

} // namespace Vexel::Detail
