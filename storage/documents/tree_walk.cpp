#include "storage/documents/tree_walk.h"

#include "base/status_guard.h"
#include "io/com_stream.h"
#include "storage/tree/error_status.h"
#include "storage/tree/tree_lock.h"

#include <wrl/client.h>

#include <algorithm>
#include <span>
#include <utility>

using Microsoft::WRL::ComPtr;

namespace Vexel::Detail {

namespace {

constexpr unsigned long long kLargestInMemory = 64ULL << 20;
constexpr std::size_t kChunkSize = 0x10000;

HRESULT sizeOf(::IStream* stream, unsigned long long& size) {
    STATSTG info{};
    const HRESULT status = outcomeOf(stream->Stat(&info, STATFLAG_NONAME));
    size = info.cbSize.QuadPart;
    return status;
}

/// Fills `bytes` from `offset` on. The stream stays where it is, which the application may know.
HRESULT readAt(::IStream* stream, unsigned long long offset, std::span<std::byte> bytes) {
    const unsigned long long before = position(stream);
    HRESULT status =
        outcomeOf(stream->Seek({.QuadPart = static_cast<LONGLONG>(offset)}, STREAM_SEEK_SET, nullptr));
    ULONG done = 0;
    if (status == S_OK)
        status = outcomeOf(stream->Read(bytes.data(), static_cast<ULONG>(bytes.size()), &done));
    unsigned long long reached = 0;
    seek(stream, STREAM_SEEK_SET, static_cast<long long>(before), reached);
    // Some systems' streams just end where their sectors do, others say that the file is damaged.
    if (status == STG_E_DOCFILECORRUPT || (status == S_OK && done != bytes.size()))
        return STG_E_READFAULT;
    return status;
}

HRESULT write(VxStream& target, std::span<const std::byte> bytes) {
    ::IStream* const stream = target.stream();
    ULONG done = 0;
    const HRESULT status =
        stream ? outcomeOf(stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &done))
               : STG_E_INVALIDPARAMETER;
    return status == S_OK && done != bytes.size() ? STG_E_MEDIUMFULL : status;
}

/// Whether the system's copy, which goes round its own interfaces, may have had an element all the same that
/// cannot be opened.
bool isOpenToSystem(HRESULT status) {
    return status == STG_E_ACCESSDENIED || status == STG_E_SHAREVIOLATION || status == STG_E_LOCKVIOLATION ||
           status == STG_E_FILENOTFOUND || status == STG_E_INVALIDNAME;
}

HRESULT copyClass(const StorageRef& from, const StorageRef& to) {
    const ComPtr<IStorage> source = from.storage(), target = to.storage(); // held, as streams are
    if (!source || !target)
        return STG_E_INVALIDPARAMETER;
    STATSTG info{};
    const HRESULT status = outcomeOf(source->Stat(&info, STATFLAG_NONAME));
    if (status == S_OK && info.grfStateBits != 0)
        target->SetStateBits(info.grfStateBits, ~DWORD{0}); // which not everybody keeps
    return FAILED(status) || info.clsid == CLSID_NULL ? status : target->SetClass(info.clsid);
}

} // namespace

HRESULT TreeWalk::run() {
    note(withStatus([this] { return enter({source_, target_, nullptr}), S_OK; }), StorageType::Storage);
    while (!levels_.empty() && SUCCEEDED(end_)) {
        const auto& children = levels_.back().children;
        if (!children || !children->moveNext()) {
            note(withStatus([this] { return leave(), S_OK; }), StorageType::Storage);
            path_.resize(levels_.empty() ? 0 : levels_.size() - 1);
            continue;
        }
        const StorageType type = children->type();
        note(withStatus([this] { return path_.push_back(levels_.back().children->name()), meet(), S_OK; }),
             type);
        path_.resize(levels_.size() - 1);
    }
    while (!levels_.empty())
        levels_.pop_back();                          // each before the one that it is in
    if (mayHavePart_ || (isRedone_ && FAILED(end_))) // which may be behind the end, too
        return STG_E_WRITEFAULT;
    return end_ == E_ABORT ? end_ : first_.status();
}

/// Begins with a storage, to which the path leads.
void TreeWalk::enter(Level level) {
    levels_.push_back(std::move(level));
    Level& current = levels_.back();
    if (current.to)
        note(copyClass(current.from, current.to), StorageType::Storage);
    if (observer_ && SUCCEEDED(end_)) {
        const TreesLetGo letGo;
        observer_->onStorage(path_, current.from);
    }
    auto children = itemOf(current.from)->createEnumerator();
    if (note(children ? children->reset(itemOf(current.from)) : E_FAIL, StorageType::Storage) == S_OK)
        current.children = std::move(children);
    else
        passOverRest();
}

void TreeWalk::leave() {
    Level done = std::move(levels_.back());
    levels_.pop_back(); // whatever fails from here on
    const HRESULT listed = done.children ? done.children->status() : S_FALSE;
    if (listed != S_FALSE) { // there may be more
        note(FAILED(listed) ? listed : STG_E_READFAULT, StorageType::Storage);
        passOverRest();
    }
    done.children.reset();
    if (!levels_.empty()) {
        // Gives back what they take in memory, unless the application uses it.
        done.from.deleteUnusedObjects();
        HRESULT committed = S_OK;
        if (done.to.format() == StorageFormat::CompoundFile && SUCCEEDED(end_))
            committed = note(done.to.commit(), StorageType::Storage, true);
        if (committed != S_OK) // no part was taken away
            passOverRest();
        done.to.deleteUnusedObjects();
    }
}

void TreeWalk::meet() {
    const Level& level = levels_.back();
    const VxStorageEnumerator& child = *level.children;
    const bool isStorage = child.type() == StorageType::Storage;
    const unsigned long long size = isStorage ? 0 : child.size().QuadPart;
    if (!tell(0))
        return;
    bool isWanted = true;
    if (observer_) {
        const TreesLetGo letGo;
        isWanted = observer_->onNode(
            {path_, child.type(), size, child.createTime(), child.writeTime(), child.isLast(), level.from});
    }
    if (isWanted && isStorage)
        meetStorage(child.name());
    else if (isWanted)
        meetStream(child.name(), size);
    else if (!isCopying())
        take(size); // the observer may have read it all the same
}

void TreeWalk::meetStorage(const SharedPathName& name) {
    const Level& parent = levels_.back();
    Level child;
    HRESULT status = child.from.open(name, parent.from, true);
    if (status != S_OK) {
        // Deeper than items go: storages that hold each other would keep us for ever.
        const bool isTooDeep = status == STG_E_INVALIDFUNCTION;
        if (isCopying() || observer_ || !isOpenToSystem(status))
            note(status, StorageType::Storage);
        if (isTooDeep)
            end_ = status;
        passOver(name, StorageType::Storage);
        return;
    }
    if (isCopying())
        status = note(openTarget(name, child.to), StorageType::Storage, true);
    if (status == S_OK)
        enter(std::move(child));
    else
        passOver(name, StorageType::Storage);
}

HRESULT TreeWalk::openTarget(const SharedPathName& name, StorageRef& target) const {
    const StorageRef& parent = levels_.back().to;
    return parent.hasChild(name, StorageType::Storage) ? target.open(name, parent, false)
                                                       : target.create(name, parent, false);
}

void TreeWalk::meetStream(const SharedPathName& name, unsigned long long listedSize) {
    const Level& parent = levels_.back();
    const bool isFromPackage = parent.from.format() == StorageFormat::Package;
    if (isCopying() && isFromPackage && parent.to.format() == StorageFormat::Package)
        copyInPackages(name, listedSize);
    else if (isCopying() && isFromPackage && name.asStringView() == L".clsid" && listedSize == sizeof(CLSID))
        checkClass(name);
    else if (!isCopying() && observer_)
        take(listedSize);
    else if (!isCopying() || makeRoom(listedSize)) // before opening unpacks it
        copyStream(name);
}

/// Elsewhere a storage's class is no stream, but what copyClass sets: that takes one that cannot be read for
/// none.
void TreeWalk::checkClass(const SharedPathName& name) {
    HRESULT status = S_OK;
    if (!itemOf(levels_.back().from)->resumeChildStream(name, &status))
        note(FAILED(status) ? status : STG_E_READFAULT, StorageType::Stream);
}

/// Contents go without being in both, and packed where one lends the other what it has.
void TreeWalk::copyInPackages(const SharedPathName& name, unsigned long long size) {
    if (!makeRoom(size))
        return;
    const Level& parent = levels_.back();
    const ComPtr<IStorage> from = parent.from.storage(), to = parent.to.storage();
    const wchar_t* const text = name.asString();
    const HRESULT status =
        from && to ? from->MoveElementTo(text, to.Get(), text, STGMOVE_COPY) : STG_E_INVALIDPARAMETER;
    if (note(status, StorageType::Stream) == S_OK && tell(size))
        take(size);
    else if (status == STG_E_WRITEFAULT)
        endWithPart();
}

/// What may have a part of a stream is not to be committed any more.
void TreeWalk::endWithPart() {
    mayHavePart_ = true;
    if (SUCCEEDED(end_))
        end_ = STG_E_WRITEFAULT;
}

/// What another copy has left of a node stays, unless there certainly is nothing.
void TreeWalk::passOver(const SharedPathName& name, StorageType type) {
    if (!isRedone_ || mayHavePart_)
        return;
    const StorageRef& to = levels_.back().to;
    const auto open = [&](auto element) { return element.open(name, to, true); };
    const HRESULT status = type == StorageType::Stream ? open(StreamRef()) : open(StorageRef());
    mayHavePart_ = status != STG_E_FILENOTFOUND;
}

/// A part is not taken for the whole.
void TreeWalk::discardPart(VxStorage& to, const SharedPathName& name) {
    if (withStatus([&] { return to.destroyChild(name); }) != S_OK)
        endWithPart();
}

/// Copies a stream, or only reads it where there is no target.
void TreeWalk::copyStream(const SharedPathName& name) {
    const Level& parent = levels_.back();
    HRESULT status = E_FAIL;
    ItemRef<VxStream> source = itemOf(parent.from)->resumeChildStream(name, &status);
    // Held: others may close the node while a clean-up runs that the target needs, or the observer.
    ComPtr<::IStream> stream = source ? source->stream() : nullptr;
    if (!stream) {
        if (isCopying() || !isOpenToSystem(status))
            note(FAILED(status) ? status : STG_E_READFAULT, StorageType::Stream);
        passOver(name, StorageType::Stream);
        return;
    }
    buffer_.resize(kChunkSize);
    unsigned long long size = 0;
    if (note(sizeOf(stream.Get(), size), StorageType::Stream) != S_OK) {
        passOver(name, StorageType::Stream);
        return;
    }
    if (!isCopying()) {
        moveBytes(stream.Get(), size, nullptr);
        return;
    }
    if (!makeRoom(size))
        return;
    VxStorage& to = *itemOf(parent.to);
    ItemRef<VxStream> target = to.createChildStream(name, &status);
    if (!target) {
        note(status, StorageType::Stream, true);
        passOver(name, StorageType::Stream);
        return;
    }
    // A package's contents get their memory in one piece; where there is none, writing says so.
    if (::IStream* const made = target->stream(); made && target->format() == StorageFormat::Package)
        made->SetSize({.QuadPart = size});
    const bool mayHaveOthers = mayHavePart_;
    status = withStatus([&] { return moveBytes(stream.Get(), size, target.get()); });
    mayHavePart_ = mayHaveOthers; // this one is seen to
    target = {};
    stream.Reset(); // or its contents could not be given back
    source = {};
    if (status == S_OK)
        take(size);
    else
        discardPart(to, name);
}

HRESULT TreeWalk::moveBytes(::IStream* from, unsigned long long size, VxStream* to) {
    for (unsigned long long done = 0; done < size;) {
        const auto count = static_cast<std::size_t>((std::min)(size - done, 0ULL + kChunkSize));
        const std::span<std::byte> chunk(buffer_.data(), count);
        HRESULT status = note(readAt(from, done, chunk), StorageType::Stream);
        if (status == S_OK && to)
            status = note(write(*to, chunk), StorageType::Stream, true);
        if (status != S_OK)
            return status;
        done += count;
        if (!tell(count))
            return end_;
    }
    return S_OK;
}

bool TreeWalk::tell(unsigned long long bytes) {
    if (!observer_ || FAILED(end_))
        return SUCCEEDED(end_);
    const TreesLetGo letGo;
    if (!observer_->onProgress(bytes))
        end_ = E_ABORT;
    return SUCCEEDED(end_);
}

/// Takes down how it went with the node that the path leads to.
HRESULT TreeWalk::note(HRESULT status, StorageType type, bool isInTarget) {
    const HRESULT failure = first_.note(outcomeOf(status));
    if (isExhausted(failure) || failure == E_OUTOFMEMORY)
        passOverRest();
    if (failure == S_OK || !observer_ || FAILED(end_))
        return failure;
    const TreesLetGo letGo;
    if (!observer_->onFault({path_, type, failure, isInTarget}))
        end_ = failure;
    return failure;
}

/// So that a large stream is alone in memory.
bool TreeWalk::makeRoom(unsigned long long size) {
    if (inMemory_ > 0 && inMemory_ + size > kLargestInMemory)
        giveBack();
    return SUCCEEDED(end_);
}

void TreeWalk::take(unsigned long long size) {
    inMemory_ += size;
    if (inMemory_ >= kLargestInMemory)
        giveBack();
}

/// What cannot be committed now would not find memory for what is still to come.
void TreeWalk::giveBack() {
    inMemory_ = 0;
    StorageRef(source_).deleteUnusedObjects();
    // Behind another copy there may be parts further on.
    if (!isCopying() || isRedone_ || target_.format() != StorageFormat::Package)
        return;
    const HRESULT status = outcomeOf(target_.commit());
    StorageRef(target_).deleteUnusedObjects(); // gives back what the file holds now
    if (status == S_OK)
        return;
    std::vector<SharedPathName> node = std::exchange(path_, {}); // it is not this node that failed
    note(status, StorageType::Storage, true);
    path_ = std::move(node);
    end_ = status;
}

} // namespace Vexel::Detail
