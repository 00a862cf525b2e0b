// What all items have in common: counting references, here and on the root, and the second attempt after a
// clean-up.

#include "storage/tree/storage_item.h"

using Vexel::Detail::RootLock;
using Vexel::Detail::TreeLock;

VxStorageItem::VxStorageItem(SharedPathName name, VxStorage* parent, VxStorageItem* root)
    : name_(std::move(name)), parent_(parent), root_(root ? root : this),
      lock_(root ? nullptr : std::make_shared<RootLock>()) {}

bool VxStorageItem::deleteUnusedObjects(bool /*keepObjects*/) { return false; }

void VxStorageItem::close() { readOnly_ = true; }

bool VxStorageItem::isUsed() const { return referenced(); }

std::wstring VxStorageItem::whereabouts() const {
    std::wstring path;
    for (const VxStorageItem* node = this; node->parent(); node = node->parent())
        path.insert(0, node->name().asString()).insert(0, 1, node->parent()->parent() ? L'/' : L'|');
    return path.insert(0, root()->name().asString());
}

int VxStorageItem::addRef() noexcept {
    if (root_ != this)
        root_->references_.fetch_add(1);
    return references_.fetch_add(1) + 1;
}

int VxStorageItem::release() noexcept {
    if (root_ != this)
        root_->references_.fetch_sub(1);
    return references_.fetch_sub(1) - 1;
}

void VxStorageItem::releaseHandle() noexcept {
    const TreeLock lock(*this); // no clean-up frees the item between the release and the rest
    const bool isCompoundFile = format() == StorageFormat::CompoundFile;
    release();
    if (!lock || !isCompoundFile)
        return;
    if (!root_->referenced())
        root_->close();
    else if (type() == StorageType::Storage && !isUsed())
        deleteUnusedObjects(true);
}

bool VxStorageItem::retryAfterFailure(HRESULT status) {
    const bool isConflict =
        status == STG_E_SHAREVIOLATION || status == STG_E_LOCKVIOLATION || status == STG_E_ACCESSDENIED;
    if (!root_->keeper_ || (!Vexel::Detail::isExhausted(status) && !(isConflict && parent_)))
        return false;
    const Vexel::Detail::ItemRef<VxStorageItem> kept(this); // the clean-up must not free it
    const Vexel::Detail::TreesLetGo letGo;
    return root_->keeper_->freeForRetry();
}
