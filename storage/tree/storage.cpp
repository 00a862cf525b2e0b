// Opening, making and closing storages. A call that fails for want of memory or handles is repeated after a
// clean-up, during which the root's lock is released. So every call looks again, before each attempt, at what
// it knew: the parent may be closed then, or this item open.

#include "base/status_guard.h"
#include "storage/tree/compound_name.h"
#include "storage/tree/element_name.h"
#include "storage/tree/storage_item.h"

using Vexel::Detail::TreeLock;
using Vexel::Detail::withStatus;

namespace {

DWORD accessFlags(bool readOnly) { return readOnly ? STGM_READ : STGM_READWRITE; }

/// How a root that is open for reading treats writers: it keeps them out, or does without a copy of what it
/// has read so that they may go on.
DWORD readerFlags(bool keyed) { return keyed ? STGM_SHARE_DENY_WRITE : STGM_NOSNAPSHOT; }

DWORD rootOpenFlags(bool readOnly, bool keyed) {
    const DWORD sharing = readOnly ? readerFlags(keyed) : STGM_NOSCRATCH | STGM_SHARE_DENY_WRITE;
    return STGM_TRANSACTED | accessFlags(readOnly) | sharing;
}

DWORD rootCreateFlags(bool convert, bool readOnly, bool keyed) {
    const DWORD common = STGM_TRANSACTED | accessFlags(readOnly);
    if (convert)
        return common | STGM_CONVERT | STGM_SHARE_EXCLUSIVE;
    if (readOnly)
        return common | readerFlags(keyed);
    return common | STGM_NOSCRATCH | STGM_CREATE | STGM_SHARE_DENY_WRITE;
}

constexpr DWORD kChildFlags = STGM_TRANSACTED | STGM_SHARE_EXCLUSIVE;

/// The children of this storage stay open while their file is: they are opened and dropped all the time.
bool holdsChildrenOpen(const VxStorage* parent) {
    static const SharedPathName kFileLinks = Vexel::Detail::elementName(L"FileLinks");
    return parent && parent->name() == kFileLinks;
}

} // namespace

VxStorage::VxStorage(SharedPathName name, VxStorage* parent, VxStorageItem* root)
    : VxStorageItem(std::move(name), parent, root), holdOpen_(holdsChildrenOpen(parent)) {}

VxStorage::~VxStorage() = default;

bool VxStorage::isUsed() const {
    const TreeLock lock(*this);
    return referenced() || !children_.empty();
}

void VxStorage::close() {
    const TreeLock lock(*this);
    for (auto& [name, child] : children_)
        child->close();
    storage_.Reset();
    keyed_ = false;
    VxStorageItem::close();
}

/// From the leaves up, so that a storage whose last child goes may go in the same pass.
bool VxStorage::freeUnusedChildren(bool keepObjects) {
    bool freed = false;
    for (auto next = children_.begin(); next != children_.end();) {
        const auto child = next++;
        freed |= child->second->deleteUnusedObjects(keepObjects);
        if (keepObjects || child->second->isUsed())
            continue;
        children_.erase(child);
        freed = true;
    }
    return freed;
}

bool VxStorage::deleteUnusedObjects(bool keepObjects) {
    const TreeLock lock(*this);
    const bool freed = freeUnusedChildren(keepObjects);
    if (isUsed() || (keepObjects && holdOpen_))
        return freed;
    close();
    return true;
}

long VxStorage::commit() {
    const TreeLock lock(*this);
    HRESULT status = ensureOpen();
    if (FAILED(status))
        return status;
    status = callTwiceIfExhausted([this] { return storage_ ? commitElement() : STG_E_INVALIDFUNCTION; });
    // A new package is a file from its first commit on, whichever of its storages commits. Memory that is
    // missing to look does not undo that.
    if (SUCCEEDED(status) && (!parent_ || format() == StorageFormat::Package))
        withStatus([this] { return root_->name().updateFileExists(), S_OK; });
    return status;
}

long VxStorage::stat(FILETIME* created, FILETIME* modified) {
    const TreeLock lock(*this);
    HRESULT status = ensureOpen();
    if (FAILED(status))
        return status;
    STATSTG info{}; // some systems leave the times as they find them
    status = callTwiceIfExhausted(
        [&] { return storage_ ? storage_->Stat(&info, STATFLAG_NONAME) : STG_E_INVALIDFUNCTION; });
    if (FAILED(status))
        return status;
    if (created)
        *created = info.ctime;
    if (modified)
        *modified = info.mtime;
    return status;
}

long VxStorage::ensureOpen() { return storage_ ? S_OK : open(readOnly_, rootFlag_); }

IStorage* VxStorage::storage() {
    const TreeLock lock(*this);
    ensureOpen();
    return storage_.Get();
}

// NOLINTNEXTLINE(misc-no-recursion): as deep as the items
void VxStorage::rememberPositions() {
    for (auto& [name, child] : children_) {
        if (child->type() == StorageType::Stream)
            static_cast<VxStream&>(*child).rememberPosition();
        else
            static_cast<VxStorage&>(*child).rememberPositions();
    }
}

// NOLINTNEXTLINE(misc-no-recursion): as deep as the items that hold each other
long VxStorage::open(bool readOnly, bool rootFlag) {
    const TreeLock lock(*this);
    if (storage_ && readOnly_ && !readOnly) {
        if (name_.empty())
            return STG_E_ACCESSDENIED; // a caller's interface: once let go of, it could not be had again
        rememberPositions();
        close();
    }
    if (storage_)
        return S_OK;
    if (name_.empty())
        return STG_E_INVALIDPARAMETER;
    const HRESULT status = openRootOrInParent(readOnly);
    // Opened for whatever another thread wanted it for, which may be reading only: all of it once more.
    if (isOpenedMeanwhile(status))
        return open(readOnly, rootFlag);
    if (FAILED(status))
        close();
    else
        readOnly_ = readOnly;
    rootFlag_ = rootFlag;
    return status;
}

// NOLINTNEXTLINE(misc-no-recursion): see open
long VxStorage::openRootOrInParent(bool readOnly) {
    if (parent_)
        return openInParent(readOnly);
    return withStatus([&] { return openRoot(rootOpenFlags(readOnly, keyed_)); });
}

HRESULT VxStorage::checkAccess(bool readOnly) const noexcept {
    if (!storage_)
        return STG_E_INVALIDFUNCTION;
    // Not left to the platform: some take changes below a storage that is open for reading, and lose them.
    return readOnly_ && !readOnly ? STG_E_ACCESSDENIED : S_OK;
}

// NOLINTNEXTLINE(misc-no-recursion): see open
long VxStorage::openInParent(bool readOnly) {
    const HRESULT status = parent_->open(readOnly, false);
    if (FAILED(status))
        return status;
    if (!parent_->isOpen())
        return STG_E_INVALIDPARAMETER;
    const HRESULT opened = parent_->callTwice([&]() -> HRESULT {
        if (storage_)
            return kOpenedMeanwhile;
        if (const HRESULT allowed = parent_->checkAccess(readOnly); FAILED(allowed))
            return allowed;
        return Vexel::Detail::fetch(storage_, [&](IStorage** made) {
            return parent_->openStorageElement(name_.asString(), readOnly, made);
        });
    });
    return Vexel::Detail::elementStatus(opened, format(), name_);
}

HRESULT VxStorage::openStorageElement(const wchar_t* name, bool readOnly, IStorage** storage) {
    return storage_->OpenStorage(name, nullptr, kChildFlags | accessFlags(readOnly), nullptr, 0, storage);
}

HRESULT VxStorage::createStorageElement(const wchar_t* name, bool replace, IStorage** storage) {
    const DWORD stgm = kChildFlags | STGM_READWRITE | (replace ? STGM_CREATE : 0);
    return storage_->CreateStorage(name, stgm, 0, 0, storage);
}

HRESULT VxStorage::commitElement() { return storage_->Commit(STGC_ONLYIFCURRENT); }

long VxStorage::create(bool convert, bool readOnly, bool replace) {
    const TreeLock lock(*this);
    if (name_.empty())
        return STG_E_INVALIDPARAMETER;
    if (storage_ && referenced())
        return STG_E_FILEALREADYEXISTS;
    const bool keyed = keyed_;
    close();
    keyed_ = keyed;
    if (!convert)
        freeUnusedChildren(false); // their elements go, or went before
    const HRESULT status =
        parent_ ? createInParent(readOnly, replace)
                : withStatus([&] { return createRoot(rootCreateFlags(convert, readOnly, keyed_), 0); });
    if (isOpenedMeanwhile(status))
        return STG_E_FILEALREADYEXISTS;
    if (FAILED(status))
        close();
    else
        readOnly_ = readOnly;
    return status;
}

long VxStorage::createInParent(bool readOnly, bool replace) {
    const HRESULT status = parent_->open(readOnly, false);
    if (FAILED(status))
        return status;
    if (!parent_->isOpen())
        return STG_E_INVALIDPARAMETER;
    if (replace) { // not from under handles on what is below
        freeUnusedChildren(false);
        if (!children_.empty())
            return STG_E_INVALIDPARAMETER;
    }
    if (!Vexel::Detail::isElementName(format(), name_))
        return STG_E_INVALIDNAME;
    return parent_->callTwice([&]() -> HRESULT {
        if (storage_)
            return kOpenedMeanwhile;
        if (const HRESULT allowed = parent_->checkAccess(false); FAILED(allowed))
            return allowed;
        return Vexel::Detail::fetch(storage_, [&](IStorage** made) {
            return parent_->createStorageElement(name_.asString(), replace, made);
        });
    });
}
