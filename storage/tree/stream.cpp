// Opening, making and closing streams, with the same care as for storages (storage.cpp). A stream that was
// closed because its storage was reopened for writing remembers where it stood and goes on there.

#include "base/status.h"
#include "storage/tree/compound_name.h"
#include "storage/tree/storage_item.h"

using Vexel::Detail::TreeLock;

VxStream::VxStream(SharedPathName name, VxStorage* parent, VxStorageItem* root)
    : VxStorageItem(std::move(name), parent, root) {}

VxStream::~VxStream() = default;

StreamCompression VxStream::compression() const noexcept { return StreamCompression::None; }

void VxStream::close() {
    const TreeLock lock(*this);
    stream_.Reset();
    isNew_ = isTouched_ = false;
    VxStorageItem::close();
}

bool VxStream::deleteUnusedObjects(bool keepObjects) {
    const TreeLock lock(*this);
    if (referenced() || !stream_ || (keepObjects && parent_->holdOpen()))
        return false;
    close();
    return true;
}

long VxStream::commit() {
    const TreeLock lock(*this);
    const HRESULT status = ensureOpen();
    if (FAILED(status))
        return status;
    return callTwiceIfExhausted(
        [this] { return stream_ ? stream_->Commit(STGC_ONLYIFCURRENT) : STG_E_INVALIDFUNCTION; });
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
    const TreeLock lock(*this);
    const HRESULT status = ensureOpen();
    if (FAILED(status))
        return status;
    return callTwiceIfExhausted(
        [&] { return stream_ ? stream_->Stat(&info, STATFLAG_NONAME) : STG_E_INVALIDFUNCTION; });
}

long VxStream::setSize(unsigned long long size) {
    const TreeLock lock(*this);
    const HRESULT status = ensureOpen();
    return FAILED(status) ? status : resize(size);
}

long VxStream::resize(unsigned long long size) {
    return callTwice([&] { return changeSize(size); });
}

HRESULT VxStream::changeSize(unsigned long long size) {
    ULARGE_INTEGER wanted{};
    wanted.QuadPart = size;
    // The clean-up before a second attempt may have closed the item, here and elsewhere.
    return stream_ ? stream_->SetSize(wanted) : STG_E_INVALIDFUNCTION;
}

void VxStream::rememberPosition() {
    ULARGE_INTEGER position{};
    if (stream_ && referenced() && SUCCEEDED(stream_->Seek({}, STREAM_SEEK_CUR, &position)))
        resumeAt_ = position.QuadPart;
}

// A closed item counts as open for reading, so that this never empties a stream.
long VxStream::ensureOpen() {
    if (stream_)
        return S_OK;
    const HRESULT status = openClosed(true);
    if (isOpenedMeanwhile(status))
        return S_OK; // and stands where the other thread has it
    if (SUCCEEDED(status))
        return resume();
    close();
    return status;
}

HRESULT VxStream::resume() {
    LARGE_INTEGER position{};
    position.QuadPart = static_cast<LONGLONG>(resumeAt_);
    const HRESULT status =
        resumeAt_ == 0 ? S_OK : Vexel::Detail::outcomeOf(stream_->Seek(position, STREAM_SEEK_SET, nullptr));
    if (FAILED(status))
        close(); // rather than go on elsewhere
    else
        resumeAt_ = 0;
    return status;
}

::IStream* VxStream::stream() {
    const TreeLock lock(*this);
    ensureOpen();
    isTouched_ = true;
    return stream_.Get();
}

long VxStream::open(bool readOnly) {
    const TreeLock lock(*this);
    resumeAt_ = 0;
    HRESULT status = openOrRewind(readOnly);
    if (SUCCEEDED(status) && !readOnly)
        status = resize(0);
    if (FAILED(status))
        close();
    return status;
}

// NOLINTNEXTLINE(misc-no-recursion): once more for each time that another thread comes in between
long VxStream::openOrRewind(bool readOnly) {
    if (stream_ && readOnly_ && !readOnly) {
        close();
        const HRESULT status = parent_->open(false, false);
        if (FAILED(status))
            return status;
    }
    if (stream_)
        return callTwice(
            [this] { return stream_ ? stream_->Seek({}, STREAM_SEEK_SET, nullptr) : STG_E_INVALIDFUNCTION; });
    const HRESULT status = openClosed(readOnly);
    return isOpenedMeanwhile(status) ? openOrRewind(readOnly) : status;
}

long VxStream::openClosed(bool readOnly) {
    if (!parent_ || name_.empty() || !parent_->storage())
        return STG_E_INVALIDPARAMETER;
    if (const HRESULT allowed = parent_->checkAccess(readOnly); FAILED(allowed))
        return allowed;
    const HRESULT status = openInParent(readOnly);
    if (SUCCEEDED(status))
        readOnly_ = readOnly;
    return Vexel::Detail::elementStatus(status, format(), name_);
}

long VxStream::openInParent(bool readOnly) {
    return parent_->callTwice([&]() -> HRESULT {
        if (stream_)
            return kOpenedMeanwhile;
        if (const HRESULT allowed = parent_->checkAccess(readOnly); FAILED(allowed))
            return allowed;
        // Packages succeed without a stream where the packed data go on behind the contents.
        return Vexel::Detail::fetch(stream_, [&](::IStream** made) {
            return parent_->openStreamElement(name_.asString(), readOnly, made);
        });
    });
}

long VxStream::create() {
    const TreeLock lock(*this);
    if (!parent_ || name_.empty())
        return STG_E_INVALIDPARAMETER;
    if (stream_ && referenced())
        return STG_E_FILEALREADYEXISTS;
    close();
    resumeAt_ = 0;
    const HRESULT status = createInParent();
    if (isOpenedMeanwhile(status))
        return STG_E_FILEALREADYEXISTS;
    if (FAILED(status)) {
        close();
        return status;
    }
    isNew_ = true;
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
    return parent_->callTwice([&]() -> HRESULT {
        if (stream_)
            return kOpenedMeanwhile;
        if (const HRESULT allowed = parent_->checkAccess(false); FAILED(allowed))
            return allowed;
        return Vexel::Detail::fetch(
            stream_, [&](::IStream** made) { return parent_->createStreamElement(name_.asString(), made); });
    });
}
