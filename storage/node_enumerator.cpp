#include "storage/element_name.h"
#include "storage/storage_item.h"

#include <memory>

namespace {

struct FreeTaskMemory {
    void operator()(void* memory) const noexcept { CoTaskMemFree(memory); }
};

StorageType typeOf(DWORD elementType) {
    switch (elementType) {
    case STGTY_STORAGE:
        return StorageType::Storage;
    case STGTY_STREAM:
        return StorageType::Stream;
    default:
        return StorageType{};
    }
}

} // namespace

VxStorageEnumerator::~VxStorageEnumerator() = default;

long VxStorageEnumerator::reset(VxStorage* storage) {
    enumerator_.Reset();
    clearEntry();
    status_ = S_OK;
    const HRESULT status = storage->ensureOpen();
    return FAILED(status) ? status : storage->storage()->EnumElements(0, nullptr, 0, &enumerator_);
}

bool VxStorageEnumerator::moveNext() {
    clearEntry();
    if (!enumerator_)
        return false;
    STATSTG entry{};
    for (; (status_ = enumerator_->Next(1, &entry, nullptr)) == S_OK; entry = {}) {
        const std::unique_ptr<wchar_t, FreeTaskMemory> name(entry.pwcsName);
        const StorageType type = typeOf(entry.type);
        if (type == StorageType{})
            continue;
        name_ = Vexel::Detail::elementName(name.get());
        type_ = type;
        size_ = entry.cbSize;
        createTime_ = entry.ctime;
        writeTime_ = entry.mtime;
        return true;
    }
    return false;
}

void VxStorageEnumerator::clearEntry() {
    type_ = {};
    name_.clear();
    size_ = {};
    createTime_ = writeTime_ = {};
}
