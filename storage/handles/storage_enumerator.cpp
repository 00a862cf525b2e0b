// The handle on a listing. Unlike the other handles it owns its object alone; what a listing has read is in
// VxStorageEnumerator (storage/tree/enumerator.cpp).

#include "base/status_guard.h"
#include "storage/tree/storage_item.h"

#include <vexel/storage.h>

#include <memory>
#include <utility>

StorageEnumerator::StorageEnumerator(StorageEnumerator&& other) noexcept
    : enumerator_(std::exchange(other.enumerator_, nullptr)) {}

StorageEnumerator::~StorageEnumerator() { release(); }

long StorageEnumerator::reset(const StorageRef& storage) {
    release();
    if (storage.null())
        return STG_E_INVALIDPARAMETER;
    return Vexel::Detail::withStatus([&] {
        std::unique_ptr<VxStorageEnumerator> made = storage.item_->createEnumerator();
        if (!made)
            return E_FAIL;
        const HRESULT status = made->reset(storage.item_);
        if (SUCCEEDED(status))
            enumerator_ = made.release();
        return status;
    });
}

bool StorageEnumerator::moveNext() { return enumerator_ && enumerator_->moveNext(); }

long StorageEnumerator::status() const noexcept {
    return enumerator_ ? enumerator_->status() : STG_E_INVALIDPARAMETER;
}

const SharedPathName& StorageEnumerator::name() const noexcept {
    return enumerator_ ? enumerator_->name() : SharedPathName::null;
}

StorageType StorageEnumerator::type() const noexcept {
    return enumerator_ ? enumerator_->type() : StorageType{};
}

ULARGE_INTEGER StorageEnumerator::size() const noexcept {
    return enumerator_ ? enumerator_->size() : ULARGE_INTEGER{};
}

FILETIME StorageEnumerator::createTime() const noexcept {
    return enumerator_ ? enumerator_->createTime() : FILETIME{};
}

FILETIME StorageEnumerator::writeTime() const noexcept {
    return enumerator_ ? enumerator_->writeTime() : FILETIME{};
}

StorageFormat StorageEnumerator::format() const noexcept {
    return enumerator_ ? enumerator_->format() : StorageFormat::None;
}

void StorageEnumerator::release() noexcept {
    const std::unique_ptr<VxStorageEnumerator> destroyed(std::exchange(enumerator_, nullptr));
}
