// Handles hold one reference on an item and hand calls on to it. What they add is the answer for a null
// handle, and exhausted memory as a status.

#include "base/status_guard.h"
#include "storage/handles/named_child.h"
#include "storage/handles/root_tables.h"
#include "storage/tree/element_name.h"
#include "storage/tree/item_ref.h"
#include "storage/tree/storage_item.h"

#include <vexel/storage.h>

#include <utility>

using Vexel::Detail::elementName;
using Vexel::Detail::ItemRef;
using Vexel::Detail::rootOptions;
using Vexel::Detail::rootTables;
using Vexel::Detail::withName;
using Vexel::Detail::withStatus;

// Where an item is let go of, name and parent are kept by copy: the name may be that item's, and the handle
// its own parent.

StorageRef::StorageRef(IStorage* storage) : item_(rootTables().wrap(storage).detach()) {}

StorageRef::StorageRef(ItemRef<VxStorage> item) noexcept : item_(item.detach()) {}

StorageRef::StorageRef(const StorageRef& other) noexcept : item_(ItemRef<VxStorage>(other.item_).detach()) {}

StorageRef::StorageRef(StorageRef&& other) noexcept : item_(std::exchange(other.item_, nullptr)) {}

StorageRef& StorageRef::operator=(const StorageRef& other) noexcept {
    if (item_ != other.item_)
        *this = StorageRef(other); // takes its reference before the old one is dropped
    return *this;
}

StorageRef& StorageRef::operator=(StorageRef&& other) noexcept {
    std::swap(item_, other.item_);
    return *this;
}

StorageRef::~StorageRef() { close(); }

StorageRef StorageRef::fromPtr(IStorage* storage) { return storage ? StorageRef(storage) : StorageRef(); }

long StorageRef::open(const SharedPathName& path, RootStorageOpenMode mode, bool rootFlag) {
    return withStatus([&, kept = path] {
        close();
        long status = E_FAIL;
        item_ = rootTables().open(kept, rootOptions(mode, rootFlag), status).detach();
        return status;
    });
}

long StorageRef::open(const SharedPathName& name, const StorageRef& parent, bool readOnly) {
    if (parent.null())
        return STG_E_INVALIDPARAMETER;
    // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): close() may let go of the parent's last
    // handle
    return withStatus([&, kept = name, holder = parent] {
        close();
        HRESULT status = E_FAIL;
        item_ = holder.item_->openChildStorage(kept, readOnly, false, &status).detach();
        return status;
    });
}

long StorageRef::open(const wchar_t* name, const StorageRef& parent, bool readOnly) {
    return withName(*this, parent, name,
                    [&](const SharedPathName& kept) { return open(kept, parent, readOnly); });
}

long StorageRef::open(const CStringW& name, const StorageRef& parent, bool readOnly) {
    return withName(*this, parent, name,
                    [&](const SharedPathName& kept) { return open(kept, parent, readOnly); });
}

long StorageRef::create(const SharedPathName& path) {
    return withStatus([&, kept = path] {
        close();
        long status = E_FAIL;
        item_ = rootTables().create(kept, status).detach();
        return status;
    });
}

long StorageRef::create(const SharedPathName& name, const StorageRef& parent, bool replace) {
    if (parent.null())
        return STG_E_INVALIDPARAMETER;
    // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): close() may let go of the parent's last
    // handle
    return withStatus([&, kept = name, holder = parent] {
        close();
        HRESULT status = E_FAIL;
        item_ = holder.item_->createChildStorage(kept, &status, replace).detach();
        return status;
    });
}

long StorageRef::create(const wchar_t* name, const StorageRef& parent, bool replace) {
    return withName(*this, parent, name,
                    [&](const SharedPathName& kept) { return create(kept, parent, replace); });
}

long StorageRef::create(const CStringW& name, const StorageRef& parent, bool replace) {
    return withName(*this, parent, name,
                    [&](const SharedPathName& kept) { return create(kept, parent, replace); });
}

long StorageRef::createTemporary(bool rootFlag) {
    return withStatus([&] {
        close();
        long status = E_FAIL;
        item_ = rootTables().createTemporary(status, rootFlag).detach();
        return status;
    });
}

void StorageRef::close() noexcept {
    if (item_)
        std::exchange(item_, nullptr)->releaseHandle();
}

StorageRef StorageRef::parent() const noexcept {
    return item_ ? StorageRef(ItemRef<VxStorage>(item_->parent())) : StorageRef();
}

const SharedPathName& StorageRef::name() const noexcept {
    return item_ ? item_->name() : SharedPathName::null;
}

bool StorageRef::readOnly() const noexcept { return !item_ || item_->readOnly(); }

StorageFormat StorageRef::format() const noexcept { return item_ ? item_->format() : StorageFormat::None; }

bool StorageRef::hasChild(const SharedPathName& name, StorageType type) const {
    return item_ && item_->hasChild(name, type);
}

long StorageRef::stat(FILETIME* created, FILETIME* modified) const {
    if (created)
        *created = {};
    if (modified)
        *modified = {};
    return item_ ? item_->stat(created, modified) : STG_E_INVALIDPARAMETER;
}

bool StorageRef::getFileTimes(FILETIME* created, FILETIME* modified, FILETIME* accessed) const {
    return item_ && item_->getFileTimes(created, modified, accessed);
}

IStorage* StorageRef::storage() const { return item_ ? item_->storage() : nullptr; }

long StorageRef::destroy(const SharedPathName& name) {
    if (null())
        return STG_E_INVALIDPARAMETER;
    return withStatus([&] { return item_->destroyChild(name); });
}

long StorageRef::destroy(const wchar_t* name) {
    return withStatus([&] { return destroy(elementName(name)); });
}

long StorageRef::destroy(const CStringW& name) {
    return withStatus([&] { return destroy(elementName(name)); });
}

long StorageRef::clear() {
    return item_ ? withStatus([this] { return item_->clear(); }) : STG_E_INVALIDPARAMETER;
}

long StorageRef::borrowPackedData(const StorageRef& source) {
    if (null() || source.null())
        return STG_E_INVALIDPARAMETER;
    return withStatus([&] { return item_->borrowPackedData(source.item_); });
}

long StorageRef::commit() const { return item_ ? item_->commit() : STG_E_INVALIDPARAMETER; }

void StorageRef::deleteUnusedObjects() {
    if (item_)
        item_->deleteUnusedObjects(false);
}
