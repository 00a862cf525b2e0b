// The table of children: finding an item, making it when it is missing, and taking it out again when nothing
// came of it. An item is only destroyed when it is out of use and its table says so, under the root's lock.

#include "storage/tree/compound_name.h"
#include "storage/tree/storage_item.h"

#include <type_traits>

using Vexel::Detail::ItemRef;
using Vexel::Detail::TreeLock;

namespace {

/// Far more levels than documents have. A tree is walked by recursion, and its depth comes from the file.
constexpr int kGreatestDepth = 512;

bool mayHaveChildren(const VxStorage* storage) {
    int depth = 0;
    while (storage && depth <= kGreatestDepth) {
        storage = storage->parent();
        ++depth;
    }
    return depth <= kGreatestDepth;
}

} // namespace

bool VxStorage::hasChild(const SharedPathName& name, StorageType type) {
    const TreeLock lock(*this);
    const auto child = children_.find(name);
    if (child == children_.end() || child->second->type() != type)
        return false;
    return type == StorageType::Storage ? static_cast<VxStorage&>(*child->second).isOpen()
                                        : static_cast<VxStream&>(*child->second).isOpen();
}

/// The child's item, made when there is none in the table. For creating, an item that is open without being
/// used is closed. One with handles below it stays open: what they wrote and nobody committed yet would go.
template <class Child>
HRESULT VxStorage::findOrMake(const SharedPathName& name, Purpose purpose, ItemRef<Child>& child,
                              bool& made) {
    auto found = children_.find(name);
    if (found != children_.end() && found->second->type() != Child::kType) {
        found->second->deleteUnusedObjects(false);
        if (found->second->isUsed())
            return STG_E_INVALIDPARAMETER;
        children_.erase(found);
        found = children_.end();
    }
    made = found == children_.end();
    if (made) {
        if (!mayHaveChildren(this))
            return STG_E_INVALIDFUNCTION;
        std::unique_ptr<VxStorageItem> item;
        if constexpr (std::is_same_v<Child, VxStorage>)
            item = newChildStorage(name);
        else
            item = newChildStream(name);
        found = children_.emplace(name, std::move(item)).first;
    }
    auto& item = static_cast<Child&>(*found->second);
    if (purpose != Purpose::Open && item.isOpen()) {
        if (item.referenced())
            return STG_E_FILEALREADYEXISTS;
        item.deleteUnusedObjects(false);
        if (item.isOpen())
            return purpose == Purpose::Replace ? STG_E_INVALIDPARAMETER : STG_E_FILEALREADYEXISTS;
    }
    child = ItemRef<Child>(&item);
    return S_OK;
}

/// Runs `action` on the child's item, which its reference protects meanwhile. An item that was made for this
/// and is of no use goes again.
template <class Child, class Action>
ItemRef<Child> VxStorage::withChild(const SharedPathName& name, Purpose purpose, HRESULT* status,
                                    Action action) {
    const TreeLock lock(*this);
    ItemRef<Child> child;
    bool made = false;
    HRESULT result = findOrMake(name, purpose, child, made);
    if (SUCCEEDED(result)) {
        result = action(*child.get());
        if (FAILED(result)) {
            const Child* const item = child.get();
            child = {};
            if (made)
                discard(name, item);
        }
    }
    if (status)
        *status = result;
    return child;
}

void VxStorage::discard(const SharedPathName& name, const VxStorageItem* item) {
    const auto found = children_.find(name);
    if (found != children_.end() && found->second.get() == item && !item->isUsed())
        children_.erase(found);
}

HRESULT VxStorage::openStreamElement(const wchar_t* name, bool readOnly, ::IStream** stream) {
    const DWORD stgm = STGM_SHARE_EXCLUSIVE | (readOnly ? STGM_READ : STGM_READWRITE);
    return storage_->OpenStream(name, nullptr, stgm, 0, stream);
}

HRESULT VxStorage::createStreamElement(const wchar_t* name, ::IStream** stream) {
    return storage_->CreateStream(name, STGM_CREATE | STGM_SHARE_EXCLUSIVE | STGM_READWRITE, 0, 0, stream);
}

HRESULT VxStorage::destroyElement(const wchar_t* name) { return storage_->DestroyElement(name); }

ItemRef<VxStorage> VxStorage::openChildStorage(const SharedPathName& name, bool readOnly, bool lazy,
                                               HRESULT* status) {
    return withChild<VxStorage>(name, Purpose::Open, status,
                                [&](VxStorage& child) { return lazy ? S_OK : child.open(readOnly, false); });
}

ItemRef<VxStream> VxStorage::openChildStream(const SharedPathName& name, bool readOnly, bool lazy,
                                             HRESULT* status) {
    return withChild<VxStream>(name, Purpose::Open, status,
                               [&](VxStream& child) { return lazy ? S_OK : child.open(readOnly); });
}

ItemRef<VxStream> VxStorage::resumeChildStream(const SharedPathName& name, HRESULT* status) {
    return withChild<VxStream>(name, Purpose::Open, status,
                               [](VxStream& child) { return child.ensureOpen(); });
}

ItemRef<VxStorage> VxStorage::createChildStorage(const SharedPathName& name, HRESULT* status, bool replace) {
    return withChild<VxStorage>(name, replace ? Purpose::Replace : Purpose::Create, status,
                                [&](VxStorage& child) { return child.create(false, false, replace); });
}

ItemRef<VxStream> VxStorage::createChildStream(const SharedPathName& name, HRESULT* status) {
    return withChild<VxStream>(name, Purpose::Create, status, [](VxStream& child) { return child.create(); });
}

HRESULT VxStorage::forgetChild(const SharedPathName& name) {
    const auto child = children_.find(name);
    if (child == children_.end())
        return S_OK;
    child->second->deleteUnusedObjects(false);
    if (child->second->isUsed())
        return STG_E_INUSE;
    children_.erase(child);
    return S_OK;
}

long VxStorage::destroyChild(const SharedPathName& name) {
    const TreeLock lock(*this);
    if (name.empty())
        return STG_E_INVALIDNAME;
    HRESULT status = forgetChild(name);
    if (SUCCEEDED(status) && !storage_)
        status = open(false, rootFlag_);
    if (FAILED(status))
        return status;
    status = callTwiceIfExhausted([&]() -> HRESULT {
        // Again: another thread may have been let in meanwhile.
        if (const HRESULT forgotten = forgetChild(name); FAILED(forgotten))
            return forgotten;
        // Not left to the platform: some let the elements of a storage that is open for reading be destroyed.
        if (storage_ && readOnly_)
            return STG_E_ACCESSDENIED;
        return storage_ ? destroyElement(name.asString()) : STG_E_INVALIDFUNCTION;
    });
    return Vexel::Detail::elementStatus(status, format(), name);
}
