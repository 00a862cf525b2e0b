#include "storage/storage_item.h"

#include "storage/tree_lock.h"

using Vexel::Detail::lockTree;

VxStorageItem::VxStorageItem(SharedPathName name, VxStorage* parent, VxStorageItem* root) noexcept
    : name_(std::move(name)), parent_(parent), root_(root ? root : this) {}

bool VxStorageItem::deleteUnusedObjects(bool /*keepObjects*/) { return false; }

void VxStorageItem::close() { readOnly_ = true; }

bool VxStorageItem::isUsed() const { return referenced(); }

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
    const auto lock = lockTree(); // no clean-up frees the item between the release and the rest
    release();
    if (format() != StorageFormat::CompoundFile)
        return;
    if (!root_->referenced())
        root_->close();
    else if (type() == StorageType::Storage && !isUsed())
        deleteUnusedObjects(true);
}

bool VxStorageItem::retryAfterFailure(HRESULT status) {
    constexpr HRESULT outOfMemory = 8; // whatever the facility
    if (FAILED(status) && HRESULT_CODE(status) == outOfMemory)
        status = STG_E_INSUFFICIENTMEMORY;
    switch (status) {
    case STG_E_INSUFFICIENTMEMORY:
    case STG_E_TOOMANYOPENFILES:
        break;
    case STG_E_SHAREVIOLATION:
    case STG_E_LOCKVIOLATION:
    case STG_E_ACCESSDENIED:
        if (parent_)
            break;
        return false;
    default:
        return false;
    }
    const Vexel::Detail::ItemRef<VxStorageItem> kept(this); // the clean-up must not free it
    return StorageContainer::Instance().freeForRetry();
}
