#include "storage/compound_name.h"
#include "storage/storage_item.h"
#include "storage/tree_lock.h"

using Vexel::Detail::lockTree;

VxStream::VxStream(SharedPathName name, VxStorage* parent, VxStorageItem* root) noexcept
    : VxStorageItem(std::move(name), parent, root) {}

VxStream::~VxStream() = default;

StreamCompression VxStream::compression() const noexcept { return StreamCompression::None; }

void VxStream::close() {
    const auto lock = lockTree();
    stream_.Reset();
    VxStorageItem::close();
}

bool VxStream::deleteUnusedObjects(bool keepObjects) {
    const auto lock = lockTree();
    if (referenced() || !stream_ || (keepObjects && parent_->holdOpen()))
        return false;
    close();
    return true;
}

long VxStream::commit() {
    const HRESULT status = ensureOpen();
    return FAILED(status) ? status : stream_->Commit(STGC_ONLYIFCURRENT);
}

long VxStream::stat(FILETIME* created, FILETIME* modified) {
    STATSTG info{};
    const HRESULT status = statNode(info);
    if (FAILED(status))
        return status;
    if (created)
        *created = info.ctime;
    if (modified)
        *modified = info.mtime;
    return status;
}

unsigned long long VxStream::size() {
    STATSTG info{};
    return SUCCEEDED(statNode(info)) ? info.cbSize.QuadPart : 0;
}

/// `info` is zeroed by the caller: some systems leave the times as they find them.
long VxStream::statNode(STATSTG& info) {
    const HRESULT status = ensureOpen();
    return FAILED(status) ? status : stream_->Stat(&info, STATFLAG_NONAME);
}

long VxStream::setSize(unsigned long long size) {
    const HRESULT status = ensureOpen();
    return FAILED(status) ? status : resize(size);
}

long VxStream::resize(unsigned long long size) {
    ULARGE_INTEGER wanted{};
    wanted.QuadPart = size;
    // The clean-up before a second attempt may have closed the node, here and below.
    return callTwice(*this, [&] { return stream_ ? stream_->SetSize(wanted) : STG_E_INVALIDFUNCTION; });
}

// A closed node counts as open for reading, so that this never empties a stream.
long VxStream::ensureOpen() { return stream_ ? S_OK : open(readOnly_); }

::IStream* VxStream::stream() {
    ensureOpen();
    return stream_.Get();
}

long VxStream::open(bool readOnly) {
    if (!parent_ || name_.empty())
        return STG_E_INVALIDPARAMETER;
    HRESULT status = openOrRewind(readOnly);
    if (SUCCEEDED(status) && !readOnly)
        status = resize(0);
    if (FAILED(status))
        close();
    return status;
}

long VxStream::openOrRewind(bool readOnly) {
    if (stream_ && readOnly_ && !readOnly) {
        close();
        const HRESULT status = parent_->open(false, false);
        if (FAILED(status))
            return status;
    }
    if (!parent_->storage())
        return STG_E_INVALIDPARAMETER;
    if (stream_)
        return callTwice(*this, [this] {
            return stream_ ? stream_->Seek({}, STREAM_SEEK_SET, nullptr) : STG_E_INVALIDFUNCTION;
        });
    // Not left to the platform: some take writes in a storage that is open for reading, and lose them.
    if (!readOnly && parent_->readOnly())
        return STG_E_ACCESSDENIED;

    const DWORD stgm = STGM_SHARE_EXCLUSIVE | (readOnly ? STGM_READ : STGM_READWRITE);
    const HRESULT status = callTwice(*parent_, [&]() -> HRESULT {
        if (!parent_->isOpen())
            return STG_E_INVALIDFUNCTION;
        const HRESULT opened = parent_->storage_->OpenStream(name_.asString(), nullptr, stgm, 0,
                                                             stream_.ReleaseAndGetAddressOf());
        // Packages succeed without a stream where the packed data go on behind the contents.
        return SUCCEEDED(opened) && !stream_ ? STG_E_READFAULT : opened;
    });
    if (SUCCEEDED(status))
        readOnly_ = readOnly;
    return Vexel::Detail::elementStatus(status, format(), name_);
}

long VxStream::create() {
    if (!parent_ || name_.empty())
        return STG_E_INVALIDPARAMETER;
    if (stream_ && referenced())
        return STG_E_FILEALREADYEXISTS;
    close();
    const HRESULT status = createInParent();
    if (FAILED(status))
        close();
    else
        readOnly_ = false;
    return status;
}

long VxStream::createInParent() {
    const HRESULT status = parent_->open(false, false);
    if (FAILED(status))
        return status;
    if (!parent_->isOpen())
        return STG_E_INVALIDPARAMETER;
    if (!Vexel::Detail::isElementName(format(), name_))
        return STG_E_INVALIDNAME;
    return callTwice(*parent_, [&]() -> HRESULT {
        if (!parent_->isOpen())
            return STG_E_INVALIDFUNCTION;
        return parent_->storage_->CreateStream(name_.asString(),
                                               STGM_CREATE | STGM_SHARE_EXCLUSIVE | STGM_READWRITE, 0, 0,
                                               stream_.ReleaseAndGetAddressOf());
    });
}
