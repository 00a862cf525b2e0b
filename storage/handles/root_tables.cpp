// Roots are found by path and by the kind of opener, so that one file is read once. Everything that opens or
// makes a root by its path happens under the one lock: two threads that open one path must get one root, and
// the system must not be asked for one file twice at the same time. What is out of use is moved out of the
// table first and destroyed last, when nobody is on the way through the table any more.

#include "storage/handles/root_tables.h"

#include "base/platform.h"
#include "base/process_end.h"
#include "base/status.h"
#include "paths/path_name_flags.h"
#include "storage/compound/compound_storage.h"
#include "storage/handles/root_factory.h"
#include "storage/package/package_storage.h"
#include "storage/tree/error_status.h"

#include <vexel/diagnostics.h>
namespace Vexel::Detail {

namespace {

/// The container's lock. At the end of the process it is only tried: whoever has it may be no more.
std::unique_lock<std::recursive_mutex> lockTables(std::recursive_mutex& lock) {
    if (isProcessEnding())
        return {lock, std::try_to_lock};
    return std::unique_lock(lock);
}

void logFailure(const wchar_t* what, const SharedPathName& path, long status) {
    VxLog_WriteW(VxLog_Minor, L"Failed to %ls \"%ls\": 0x%08x", what, path.asString(),
                 static_cast<unsigned>(status));
}

bool isKnownMissing(const SharedPathName& path) {
    const auto flags = path.flags();
    return flags.has(SharedPathNameFlag::FileExistsKnown) && !flags.has(SharedPathNameFlag::FileExists);
}

VxStorage& rootOf(const std::unique_ptr<VxStorage>& entry) { return *entry; }
template <class Wrapped>
VxStorage& rootOf(const Wrapped& entry) {
    return *entry.root;
}

/// Frees what is unused in a root, unless another thread is using it. Returns whether the root itself is out
/// of use.
bool isUnused(VxStorage& root, bool& freed) {
    const TreeLock lock(root, std::try_to_lock);
    if (!lock)
        return false;
    freed |= root.deleteUnusedObjects(false);
    return !root.isUsed();
}

/// Frees what is unused in a table's roots and moves the entries of the roots that are out of use to
/// `doomed`, to be destroyed when nobody is on the way through the table any more. Returns whether anything
/// was freed.
template <class Table, class Doomed>
bool sweepTable(Table& table, Doomed& doomed) {
    bool freed = false;
    for (auto next = table.begin(); next != table.end();) {
        const auto entry = next++;
        if (!isUnused(rootOf(entry->second), freed))
            continue;
        freed = true;
        doomed.insert(table.extract(entry)); // needs no memory, which may be what ran out
    }
    return freed;
}

template <class Table>
void closeAll(const Table& table) {
    for (const auto& [key, entry] : table)
        rootOf(entry).close();
}

/// At the end of the process, when all other threads are gone; what one of them was using is left alone.
template <class Table>
void closeTemporary(const Table& table) {
    for (const auto& [key, entry] : table) {
        VxStorage& root = rootOf(entry);
        const TreeLock lock(root, std::try_to_lock);
        if (lock && root.temporary())
            root.close();
    }
}

} // namespace

void RootTables::closeTemporaryRoots() noexcept {
    const auto lock = lockTables(lock_);
    if (!lock)
        return;
    closeTemporary(roots_);
    closeTemporary(wrapped_);
    closeTemporary(detachedRoots_);
    closeTemporary(detachedWrapped_);
}

bool RootTables::freeForRetry() {
    bool (*const callback)() = callback_;
    return callback ? callback() : deleteUnusedObjects();
}

bool RootTables::sweep(Roots& doomedRoots, Wrapped& doomedWrapped) {
    bool freed = sweepTable(wrapped_, doomedWrapped);
    freed |= sweepTable(roots_, doomedRoots);
    freed |= sweepTable(detachedRoots_, doomedRoots);
    freed |= sweepTable(detachedWrapped_, doomedWrapped);
    return freed;
}

bool RootTables::deleteUnusedObjects() {
    Wrapped doomedWrapped; // callers' interfaces are let go of outside the lock
    const auto lock = lockTables(lock_);
    if (!lock)
        return false;
    Roots doomedRoots; // whose files are free before anybody else gets here
    return sweep(doomedRoots, doomedWrapped);
}

// A root that handles are still on leaves the tables but lives on for them; its path opened again afterwards
// gets a root of its own.
void RootTables::clearAll() {
    Wrapped doomedWrapped;
    const auto lock = lockTables(lock_);
    if (!lock)
        return;
    Roots doomedRoots;
    detachedRoots_.merge(roots_);
    detachedWrapped_.merge(wrapped_);
    missing_.clear();
    closeAll(detachedRoots_);
    closeAll(detachedWrapped_);
    sweep(doomedRoots, doomedWrapped);
}

/// The root with this key if it is of use. One that nobody uses and that is closed says nothing about the
/// file any more, which may have been replaced by one of the other format.
ItemRef<VxStorage> RootTables::findRoot(const RootKey& key) {
    const auto found = roots_.find(key);
    if (found == roots_.end())
        return {};
    {
        VxStorage& root = *found->second;
        const TreeLock lock(root);
        if (root.referenced() || root.isOpen()) {
            root.setKeyed(key.second);        // closing forgets it
            return ItemRef<VxStorage>(&root); // from here on no handle is the last one, which would close it
        }
    }
    roots_.erase(found);
    return {};
}

/// Opens an existing file for writing for a moment. The system tells best why that cannot be done; reading it
/// as a package or compound file first would give a status about its contents.
long RootTables::probe(const SharedPathName& path) {
    const auto call = [&] { return platform().probeForWriting(path.asString()); };
    DWORD error = call();
    if (isExhausted(storageStatus(error)) && freeForRetry())
        error = call();
    return statusOf({static_cast<int>(error), std::system_category()});
}

ItemRef<VxStorage> RootTables::open(const SharedPathName& path, const RootOptions& options, long& status) {
    const auto lock = lockTables(lock_);
    if (!lock) {
        status = E_FAIL;
        return {};
    }
    const auto open = [&](VxStorage& root) { return root.open(options.readOnly, options.rootFlag); };
    if (options.keyed) {
        // Unused items of the root that other openers share may hold what the file is wanted for.
        if (const auto unkeyed = roots_.find({path, false}); unkeyed != roots_.end())
            unkeyed->second->deleteUnusedObjects(false);
    }
    if (ItemRef<VxStorage> found = findRoot({path, options.keyed})) {
        status = open(*found.get());
        if (SUCCEEDED(status))
            return found;
        logFailure(L"open", path, status);
        return {};
    }
    if (isKnownMissing(path)) {
        status = missingStatus(path);
        return {};
    }
    status = options.readOnly ? S_OK : probe(path);
    if (FAILED(status)) {
        logFailure(L"open", path, status);
        rememberMissing(path, status);
        return {};
    }
    auto root = makeRoot({path, options.keyed, *this}, open, status);
    if (!root)
        logFailure(L"open", path, status);
    return enterRoot({path, options.keyed}, std::move(root), status);
}

ItemRef<VxStorage> RootTables::create(const SharedPathName& path, long& status) {
    return make(path, Making::Anew, {}, status);
}

ItemRef<VxStorage> RootTables::convert(const SharedPathName& path, const RootOptions& options, long& status) {
    return make(path, Making::Converted, options, status);
}

ItemRef<VxStorage> RootTables::make(const SharedPathName& path, Making making, const RootOptions& options,
                                    long& status) {
    const auto lock = lockTables(lock_);
    if (!lock) {
        status = E_FAIL;
        return {};
    }
    const auto create = [&](VxStorage& root) {
        return root.create(making == Making::Converted, options.readOnly, false);
    };
    // Without the reference, with which it would be in use; under this lock nobody frees it.
    if (VxStorage* const found = findRoot({path, options.keyed}).get()) {
        status = create(*found);
        return ItemRef<VxStorage>(SUCCEEDED(status) ? found : nullptr);
    }
    if (options.readOnly && isKnownMissing(path)) {
        status = missingStatus(path);
        return {};
    }
    auto root = makeRoot({path, options.keyed, *this}, create, status);
    if (!root)
        logFailure(L"create", path, status);
    return enterRoot({path, options.keyed}, std::move(root), status);
}

ItemRef<VxStorage> RootTables::createTemporary(long& status, bool rootFlag) {
    std::unique_ptr<VxStorage> root = std::make_unique<VxNativePackage>(SharedPathName());
    root->setKeeper(*this);
    status = root->createTemporary(rootFlag);
    if (FAILED(status))
        return {};
    IStorage* const storage = root->storage();
    if (!storage) {
        status = E_FAIL;
        return {};
    }
    const auto lock = lockTables(lock_);
    if (!lock) {
        status = E_FAIL;
        return {};
    }
    if (const auto earlier = wrapped_.find(storage); earlier != wrapped_.end())
        detachedWrapped_.insert(wrapped_.extract(earlier));
    WrappedRoot& entry = wrapped_[storage];
    entry = {storage, std::move(root)};
    return ItemRef<VxStorage>(entry.root.get());
}

/// The root of a caller's interface, if it need not be given that interface once more: a compound file is
/// closed with its last handle, and has no name to be opened by.
ItemRef<VxStorage> RootTables::findWrapped(IStorage* storage) {
    const auto lock = lockTables(lock_);
    const auto found = lock ? wrapped_.find(storage) : wrapped_.end();
    if (found == wrapped_.end())
        return {};
    VxStorage& root = *found->second.root;
    const TreeLock tree(root);
    return ItemRef<VxStorage>(root.isOpen() || root.format() != StorageFormat::CompoundFile ? &root
                                                                                            : nullptr);
}

ItemRef<VxStorage> RootTables::wrap(IStorage* storage) {
    if (!storage)
        return {};
    if (auto found = findWrapped(storage))
        return found;
    // The caller's code, which may wait for whatever it likes, is asked under no lock.
    const bool readOnly = VxCompoundStorage::isOnlyForReading(storage);
    WrappedRoot made{storage, std::make_unique<VxCompoundStorage>(SharedPathName())};
    made.root->setKeeper(*this);
    const auto lock = lockTables(lock_);
    if (!lock)
        return {};
    VxStorage& root = *wrapped_.try_emplace(storage, std::move(made)).first->second.root;
    const TreeLock tree(root);
    if (!root.isOpen() && root.format() == StorageFormat::CompoundFile)
        static_cast<VxCompoundStorage&>(root).attach(storage, readOnly);
    return ItemRef<VxStorage>(&root);
}

/// Enters a root that was opened or created, or keeps in mind that its file is missing.
ItemRef<VxStorage> RootTables::enterRoot(const RootKey& key, std::unique_ptr<VxStorage> root, long status) {
    if (!root) {
        rememberMissing(key.first, status);
        return {};
    }
    key.first.updateFileExists();
    missing_.erase(key.first);
    // Only a clean-up callback that opened the very file can have been here first.
    if (const auto earlier = roots_.find(key); earlier != roots_.end())
        detachedRoots_.insert(roots_.extract(earlier));
    return ItemRef<VxStorage>((roots_[key] = std::move(root)).get());
}

void RootTables::forgetOldMissing() {
    const unsigned long long period = flagsCachePeriod();
    if (std::exchange(missingPeriod_, period) != period)
        missing_.clear();
}

void RootTables::rememberMissing(const SharedPathName& path, long status) {
    forgetOldMissing();
    if (missingPeriod_ != 0 && VxHResultToVexelError(status) == VxError_NotFound && !path.fileExists())
        missing_[path] = status;
}

long RootTables::missingStatus(const SharedPathName& path) {
    forgetOldMissing();
    const auto found = missing_.find(path);
    return found != missing_.end() ? found->second : STG_E_FILENOTFOUND;
}

} // namespace Vexel::Detail
