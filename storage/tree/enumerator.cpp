// The whole list is read when the listing begins: a list of the system's that is read bit by bit keeps the
// storage in use, and may deliver anything once the storage has changed.

#include "base/status_guard.h"
#include "base/task_memory.h"
#include "storage/tree/element_name.h"
#include "storage/tree/storage_item.h"

namespace {

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
    const Vexel::Detail::TreeLock lock(*storage);
    entries_.clear();
    names_.clear();
    next_ = 0;
    entry_ = {};
    name_ = {};
    status_ = S_OK;
    Microsoft::WRL::ComPtr<IEnumSTATSTG> list;
    HRESULT status = storage->ensureOpen();
    if (SUCCEEDED(status))
        status = storage->callTwiceIfExhausted([&]() -> HRESULT {
            if (!storage->isOpen())
                return STG_E_INVALIDFUNCTION; // closed by the clean-up before the second attempt
            return Vexel::Detail::fetch(list, [&](IEnumSTATSTG** made) {
                return storage->storage()->EnumElements(0, nullptr, 0, made);
            });
        });
    end_ = SUCCEEDED(status) ? readAll(*storage, *list.Get()) : status;
    return status;
}

HRESULT VxStorageEnumerator::readAll(VxStorage& storage, IEnumSTATSTG& list) {
    STATSTG element{};
    bool isAtEnd = false;
    const auto next = [&]() -> HRESULT {
        element = {};
        const HRESULT status = list.Next(1, &element, nullptr);
        isAtEnd = status == S_FALSE;
        return isAtEnd ? S_OK : status;
    };
    HRESULT status = S_OK;
    while (SUCCEEDED(status = storage.callTwiceIfExhausted(next)) && !isAtEnd) {
        const Vexel::Detail::TaskText name(element.pwcsName);
        const StorageType type = typeOf(element.type);
        if (type == StorageType{})
            continue;
        names_ += name.get() ? name.get() : L"";
        entries_.push_back({type, names_.size(), element.cbSize, element.ctime, element.mtime});
    }
    return isAtEnd ? S_FALSE : status;
}

std::wstring_view VxStorageEnumerator::nameOf(size_t index) const noexcept {
    const size_t begin = index == 0 ? 0 : entries_[index - 1].nameEnd;
    return std::wstring_view(names_).substr(begin, entries_[index].nameEnd - begin);
}

bool VxStorageEnumerator::moveNext() {
    const bool isThere = next_ < entries_.size();
    const HRESULT named = Vexel::Detail::withStatus([&] {
        name_ = isThere ? Vexel::Detail::elementName(nameOf(next_)) : SharedPathName();
        return S_OK;
    });
    if (isThere && SUCCEEDED(named)) {
        entry_ = entries_[next_++];
        return true;
    }
    status_ = isThere ? named : end_;
    end_ = status_;
    next_ = entries_.size();
    entry_ = {};
    name_ = {};
    return false;
}
