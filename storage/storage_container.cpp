#include "storage/compound_storage.h"
#include "storage/error_status.h"
#include "storage/package_storage.h"
#include "storage/platform_storage.h"
#include "storage/root_factory.h"
#include "storage/storage_item.h"
#include "storage/tree_lock.h"

#include <vexel/diagnostics.h>
#include <vexel/storage.h>

using Vexel::Detail::ItemRef;
using Vexel::Detail::lockTree;

namespace {

void logFailure(const wchar_t* what, const SharedPathName& path, long status) {
    VxLog_WriteW(VxLog_Minor, L"Failed to %ls \"%ls\": 0x%08x", what, path.asString(),
                 static_cast<unsigned>(status));
}

bool isKnownMissing(const SharedPathName& path) {
    const auto flags = path.flags();
    return flags.has(SharedPathNameFlag::FileExistsKnown) && !flags.has(SharedPathNameFlag::FileExists);
}

HRESULT probeForWriting(const SharedPathName& path) {
    const DWORD error = Vexel::Detail::StoragePlatform().probeForWriting(path.asString());
    return Vexel::Detail::statusOf({static_cast<int>(error), std::system_category()});
}

/// Frees what is unused in a table's roots and moves the entries of the roots that are out of use to
/// `doomed`, to be destroyed when nobody is on the way through the table any more. Returns whether anything
/// was freed.
template <class Table, class RootOf>
bool sweep(Table& table, Table& doomed, RootOf rootOf) {
    bool freed = false;
    for (auto next = table.begin(); next != table.end();) {
        const auto entry = next++;
        if (VxStorage* const root = rootOf(*entry)) {
            const auto lock = lockTree();
            freed |= root->deleteUnusedObjects(false);
            if (root->isUsed())
                continue;
            freed = true;
        }
        doomed.insert(table.extract(entry)); // needs no memory, which may be what ran out
    }
    return freed;
}

} // namespace

// Its roots are not destroyed at the end of the process either: handles in static storage may still be on
// them.
StorageContainer& StorageContainer::Instance() {
    static auto& instance = *new StorageContainer;
    return instance;
}

StorageContainer::StorageContainer() = default;
StorageContainer::~StorageContainer() = default;

bool StorageContainer::GetCreateOnDisk() const {
    const std::lock_guard lock(lock_);
    return createOnDisk_;
}

bool StorageContainer::SetCreateOnDisk(bool onDisk) {
    const std::lock_guard lock(lock_);
    return std::exchange(createOnDisk_, onDisk);
}

void StorageContainer::setDeleteUnusedObjectsCallback(bool (*callback)()) {
    const std::lock_guard lock(lock_);
    callback_ = callback;
}

bool StorageContainer::freeForRetry() {
    std::unique_lock lock(lock_);
    bool (*const callback)() = callback_;
    if (!callback)
        return deleteUnusedObjects();
    lock.unlock();
    return callback();
}

bool StorageContainer::deleteUnusedObjects() {
    const std::lock_guard lock(lock_);
    decltype(wrapped_) doomedWrapped;
    decltype(roots_) doomedRoots;
    decltype(detached_) doomedDetached;
    bool freed = sweep(wrapped_, doomedWrapped, [](auto& entry) { return entry.second.root.get(); });
    freed |= sweep(roots_, doomedRoots, [](auto& entry) { return entry.second.get(); });
    freed |= sweep(detached_, doomedDetached, [](auto& entry) { return entry.second.get(); });
    return freed;
}

void StorageContainer::clearAll() {
    const std::lock_guard lock(lock_);
    const auto letGo = [this](std::unique_ptr<VxStorage>& root) {
        if (!root)
            return;
        const auto tree = lockTree();
        root->close();
        if (root->referenced())
            detach(root);
    };
    for (auto& [key, root] : roots_)
        letGo(root);
    for (auto& [storage, entry] : wrapped_)
        letGo(entry.root);
    const auto doomedRoots = std::exchange(roots_, {});
    const auto doomedWrapped = std::exchange(wrapped_, {});
    missing_.clear();
}

/// Takes over a root that handles are still on but nobody is to find any more, until a clean-up. Without
/// memory it stays where it is.
void StorageContainer::detach(std::unique_ptr<VxStorage>& root) { detached_[root.get()].swap(root); }

/// The root with this key if it is of use. One that nobody uses and that is closed says nothing about the
/// file any more, which may have been replaced by one of the other format.
VxStorage* StorageContainer::findRoot(const RootKey& key) {
    const auto lock = lockTree();
    const auto found = roots_.find(key);
    if (found == roots_.end())
        return nullptr;
    VxStorage& root = *found->second;
    if (root.referenced() || root.isOpen()) { // in this order: a handle's thread may be opening it
        root.setKeyed(key.second);            // closing forgets it
        return &root;
    }
    roots_.erase(found);
    return nullptr;
}

ItemRef<VxStorage> StorageContainer::openRoot(const SharedPathName& path, bool readOnly, bool keyed,
                                              long& status, bool rootFlag) {
    const std::lock_guard lock(lock_);
    if (keyed) {
        // Unused nodes of the root that other openers share may hold what the file is wanted for.
        if (const auto unkeyed = roots_.find({path, false}); unkeyed != roots_.end())
            unkeyed->second->deleteUnusedObjects(false);
    }
    if (auto found = referencedRoot({path, keyed})) {
        status = found->open(readOnly, rootFlag);
        return SUCCEEDED(status) ? std::move(found) : ItemRef<VxStorage>();
    }
    if (isKnownMissing(path)) {
        status = missingStatus(path);
        return {};
    }
    status = readOnly ? S_OK : probeForWriting(path);
    if (FAILED(status)) {
        logFailure(L"open", path, status);
        rememberMissing(path, status);
        return {};
    }
    auto root = Vexel::Detail::makeRoot(
        path, keyed, [=](VxStorage& made) { return made.open(readOnly, rootFlag); }, status);
    if (!root)
        logFailure(L"open", path, status);
    return enterRoot({path, keyed}, std::move(root), status);
}

ItemRef<VxStorage> StorageContainer::createRoot(const SharedPathName& path, bool convert, bool readOnly,
                                                bool keyed, long& status) {
    const std::lock_guard lock(lock_);
    const auto create = [=](VxStorage& root) { return root.create(convert, readOnly, false); };
    if (VxStorage* const found = findRoot({path, keyed})) {
        status = create(*found);
        return ItemRef<VxStorage>(SUCCEEDED(status) ? found : nullptr);
    }
    if (readOnly && isKnownMissing(path)) {
        status = missingStatus(path);
        return {};
    }
    auto root = Vexel::Detail::makeRoot(path, keyed, create, status);
    if (!root)
        logFailure(L"create", path, status);
    return enterRoot({path, keyed}, std::move(root), status);
}

ItemRef<VxStorage> StorageContainer::createTemporaryRoot(long& status, bool flag) {
    std::unique_ptr<VxStorage> root = std::make_unique<VxNativePackage>(SharedPathName());
    status = root->createTemporary(flag);
    if (FAILED(status))
        return {};
    IStorage* const storage = root->storage();
    if (!storage) {
        status = E_FAIL;
        return {};
    }
    const std::lock_guard lock(lock_);
    WrappedRoot& entry = wrapped_[storage];
    if (entry.root && entry.root->isUsed())
        detach(entry.root);
    entry = {storage, std::move(root)};
    return ItemRef<VxStorage>(entry.root.get());
}

ItemRef<VxStorage> StorageContainer::wrap(IStorage* storage) {
    if (!storage)
        return {};
    const std::lock_guard lock(lock_);
    WrappedRoot& entry = wrapped_[storage];
    const auto tree = lockTree();
    if (!entry.root)
        entry = {storage, std::make_unique<VxCompoundStorage>(SharedPathName())};
    // A compound file is closed with its last handle, and has no name to be opened by.
    if (!entry.root->isOpen() && entry.root->format() == StorageFormat::CompoundFile)
        static_cast<VxCompoundStorage&>(*entry.root).attach(storage);
    return ItemRef<VxStorage>(entry.root.get());
}

/// Enters a root that was opened or created, or keeps in mind that its file is missing.
ItemRef<VxStorage> StorageContainer::enterRoot(const RootKey& key, std::unique_ptr<VxStorage> root,
                                               long status) {
    if (!root) {
        rememberMissing(key.first, status);
        return {};
    }
    key.first.updateFileExists();
    missing_.erase(key.first);
    ItemRef<VxStorage> result(root.get());
    auto& entry = roots_[key];
    // Only a clean-up callback that opened the very file can have been here first.
    if (entry)
        detach(entry);
    entry = std::move(root);
    return result;
}

ItemRef<VxStorage> StorageContainer::referencedRoot(const RootKey& key) {
    const auto lock = lockTree();
    return ItemRef<VxStorage>(findRoot(key));
}

void StorageContainer::rememberMissing(const SharedPathName& path, long status) {
    if (!SharedPathNameFlagsCacheBlock::IsActive()) {
        missing_.clear(); // of an earlier block
        return;
    }
    if (VxHResultToVexelError(status) == VxError_NotFound && !path.fileExists())
        missing_[path] = status;
}

long StorageContainer::missingStatus(const SharedPathName& path) const {
    const auto found = missing_.find(path);
    return found != missing_.end() ? found->second : STG_E_FILENOTFOUND;
}
