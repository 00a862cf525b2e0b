// Elements that are taken away, emptied and replaced. Two faults of the system's storage are dealt with here.
//
// Some systems' commit takes a stream of the file that was changed, but is empty then, for unchanged, throws
// its entry away all the same, and leaves a file behind whose neighbouring elements cannot be reached. So a
// stream is never just emptied: a new one is put in its place. The interface that the application is given
// can still empty it; that shows when the storage is committed or the stream's item closes.
//
// And where the system puts an element in the place of another one, or destroys one, it takes the old one
// away first and may fail then. Whoever commits after that would lose the old one for good. So all of that
// goes through `settle`, which knows what is lost; then the storage is not committed, nor copied as a whole.

#include "base/status_guard.h"
#include "base/task_memory.h"
#include "io/com_stream.h"
#include "storage/compound/compound_storage.h"

#include <vexel/diagnostics.h>

#include <objbase.h>

#include <algorithm>
#include <utility>

using Microsoft::WRL::ComPtr;
using Vexel::Detail::fetch;
using Vexel::Detail::isExhausted;
using Vexel::Detail::outcomeOf;
using Vexel::Detail::TaskText;
using Vexel::Detail::TreeLock;

namespace {

/// What an open stream tells of its element.
class Entry {
public:
    explicit Entry(::IStream& stream) : status_(outcomeOf(stream.Stat(&info_, STATFLAG_DEFAULT))) {
        name_.reset(info_.pwcsName);
    }

    HRESULT status() const noexcept { return status_; }
    unsigned long long size() const noexcept { return status_ == S_OK ? info_.cbSize.QuadPart : 0; }
    /// `name` as it is spelled in the file. Streams of others may be called anything.
    const wchar_t* spellingOf(const wchar_t* name) const noexcept {
        return name_ && Vexel::Detail::isSameElement(name_.get(), name) ? name_.get() : name;
    }

private:
    STATSTG info_{};
    HRESULT status_;
    TaskText name_;
};

} // namespace

VxCompoundStorage::Found VxCompoundStorage::look(const wchar_t* name) {
    ComPtr<::IStream> stream;
    const HRESULT opened =
        fetch(stream, [&](::IStream** made) { return VxStorage::openStreamElement(name, true, made); });
    if (opened == S_OK) {
        const Entry entry(*stream.Get());
        return {entry.status(), entry.size(), false};
    }
    if (opened != STG_E_FILENOTFOUND)
        return {opened};
    ComPtr<IStorage> storage;
    const HRESULT status = fetch(storage, [&](IStorage** made) {
        constexpr DWORD kStgm = STGM_TRANSACTED | STGM_SHARE_EXCLUSIVE | STGM_READ;
        return storage_->OpenStorage(name, nullptr, kStgm, nullptr, 0, made);
    });
    return {status, 0, status == S_OK};
}

/// Of a storage a part may be gone already.
bool VxCompoundStorage::isStillThere(const wchar_t* name, const Found& old) {
    if (!old.isThere())
        return true;
    if (old.isStorage)
        return false;
    const Found now = look(name);
    return (now == old && now.status == S_OK) || now.status == STG_E_ACCESSDENIED ||
           now.status == STG_E_SHAREVIOLATION;
}

HRESULT VxCompoundStorage::settle(const wchar_t* name, const Found& old, HRESULT status) {
    if (status == S_OK)
        lost_.remove(name);
    else if (!isStillThere(name, old))
        lost_.add(name);
    return status;
}

template <class Interface, class Make>
HRESULT VxCompoundStorage::replaceElement(const wchar_t* name, const Found& old, Interface** made,
                                          Make make) {
    ComPtr<Interface> fresh;
    const HRESULT status = settle(name, old, fetch(fresh, make));
    if (status == S_OK)
        *made = fresh.Detach();
    return status;
}

HRESULT VxCompoundStorage::replaceStream(const wchar_t* name, const Found& old, ::IStream** stream) {
    return replaceElement(name, old, stream,
                          [&](::IStream** made) { return VxStorage::createStreamElement(name, made); });
}

/// For reading a lost stream is not missing, nor is a part of it that may be there its contents. For writing
/// it is made again, and stays lost until it has been emptied, as each stream is that is opened for writing.
HRESULT VxCompoundStorage::openStreamElement(const wchar_t* name, bool readOnly, ::IStream** stream) {
    if (!lost_.contains(name))
        return VxStorage::openStreamElement(name, readOnly, stream);
    return readOnly ? STG_E_REVERTED : VxStorage::createStreamElement(name, stream);
}

/// A part of a lost one may be there. What is written into that goes with the whole.
HRESULT VxCompoundStorage::openStorageElement(const wchar_t* name, bool readOnly, IStorage** storage) {
    return lost_.contains(name) ? STG_E_REVERTED : VxStorage::openStorageElement(name, readOnly, storage);
}

HRESULT VxCompoundStorage::createStreamElement(const wchar_t* name, ::IStream** stream) {
    const Found old = look(name);
    return isExhausted(old.status) ? old.status : replaceStream(name, old, stream);
}

HRESULT VxCompoundStorage::createStorageElement(const wchar_t* name, bool replace, IStorage** storage) {
    const Found old = replace ? look(name) : Found{};
    if (isExhausted(old.status))
        return old.status;
    return replaceElement(name, old, storage, [&](IStorage** made) {
        return VxStorage::createStorageElement(name, replace, made);
    });
}

/// A lost element that was to go is not missed any more.
HRESULT VxCompoundStorage::destroyElement(const wchar_t* name) {
    const Found old = look(name);
    if (isExhausted(old.status))
        return old.status;
    const HRESULT status = outcomeOf(VxStorage::destroyElement(name));
    const bool isGone = status == STG_E_FILENOTFOUND && lost_.contains(name);
    return settle(name, old, isGone ? S_OK : status);
}

HRESULT VxCompoundStorage::commitElement() {
    if (!lost_.empty()) {
        Vexel::Detail::withStatus([this] {
            VxLog_WriteW(VxLog_Error, L"Not committed, for an element was lost: \"%ls\"",
                         whereabouts().c_str());
            return S_OK;
        });
        return STG_E_REVERTED;
    }
    for (const auto& [name, child] : children_) {
        if (child->type() != StorageType::Stream)
            continue;
        if (const HRESULT status = static_cast<VxCompoundStream&>(*child).prepareCommit(); FAILED(status))
            return status;
    }
    return VxStorage::commitElement();
}

// NOLINTNEXTLINE(misc-no-recursion): as deep as the items
bool VxCompoundStorage::hasLostElements() const {
    // NOLINTNEXTLINE(misc-no-recursion): the same
    return !lost_.empty() || std::ranges::any_of(children_, [](const auto& child) {
        return child.second->type() == StorageType::Storage &&
               static_cast<const VxStorage&>(*child.second).hasLostElements();
    });
}

VxCompoundStorage& VxCompoundStream::storage() const noexcept {
    return static_cast<VxCompoundStorage&>(*parent_);
}

/// Once it is closed, nobody knows any more that it must not be committed as it is.
void VxCompoundStream::close() {
    const TreeLock lock(*this);
    if (!isNew_ && FAILED(prepareCommit()))
        storage().lost_.add(name_.asStringView());
    VxStream::close();
}

HRESULT VxCompoundStream::prepareCommit() {
    if (!stream_ || readOnly_)
        return S_OK;
    const bool isNew = std::exchange(isNew_, false);
    if (!isTouched_)
        return S_OK;
    const Entry entry(*stream_.Get());
    // Replaced or destroyed under another spelling of its name; or not the system's.
    if (entry.status() == STG_E_REVERTED || entry.status() == E_NOTIMPL)
        return S_OK;
    if (entry.status() != S_OK || entry.size() != 0 || isNew)
        return entry.status();
    const HRESULT status = makeAnew(entry.spellingOf(name_.asString()), {S_OK});
    if (status == S_OK)
        isNew_ = isTouched_ = false; // nobody has the new interface yet, and the old one works no more
    return status;
}

HRESULT VxCompoundStream::changeSize(unsigned long long size) {
    if (size != 0 || (stream_ && readOnly_))
        return VxStream::changeSize(size);
    if (!stream_) // in a second attempt, when the first one has lost it
        return storage().lost_.contains(name_) ? makeAnew(name_.asString(), {}) : STG_E_INVALIDFUNCTION;
    const Entry entry(*stream_.Get());
    if (entry.status() != S_OK)
        return entry.status();
    if (entry.size() == 0)
        return storage().settle(name_.asString(), {}, outcomeOf(VxStream::changeSize(0)));
    return makeAnew(entry.spellingOf(name_.asString()), {S_OK, entry.size()});
}

/// The stream stays where it stands, which may be behind its end. After a failure it goes on with its old
/// contents, if they are still there. Where it cannot go on, nobody would know at the next commit that it was
/// emptied: then it counts as lost.
HRESULT VxCompoundStream::makeAnew(const wchar_t* name, const VxCompoundStorage::Found& old) {
    if (stream_)
        resumeAt_ = Vexel::Detail::position(stream_.Get());
    stream_.Reset();
    isNew_ = isTouched_ = false;
    HRESULT status = storage().replaceStream(name, old, &stream_);
    const bool isNew = status == S_OK;
    if (!isNew && !storage().lost_.contains(name))
        fetch(stream_,
              [&](::IStream** made) { return storage().VxStorage::openStreamElement(name, false, made); });
    const HRESULT resumed = stream_ ? resume() : status;
    if (isNew)
        status = resumed;
    if (!stream_) {
        if (isNew || old.size == 0)
            storage().lost_.add(name);
        VxStream::close();
        return status;
    }
    readOnly_ = false;
    isNew_ = isNew;
    isTouched_ = true;
    return status;
}
