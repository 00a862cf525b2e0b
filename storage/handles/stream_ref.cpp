// A stream's handle is two things: a handle like the other, and a byte stream over the item's COM stream. The
// second half looks up the interface anew in every call, under the lock of the root, because the item may
// have been closed and opened again meanwhile.

#include "base/status.h"
#include "base/status_guard.h"
#include "io/com_stream.h"
#include "storage/handles/named_child.h"
#include "storage/tree/error_status.h"
#include "storage/tree/item_ref.h"
#include "storage/tree/storage_item.h"

#include <vexel/storage.h>

#include <wrl/client.h>

#include <utility>

using Microsoft::WRL::ComPtr;
using Vexel::Detail::ItemRef;
using Vexel::Detail::outcomeOf;
using Vexel::Detail::TreeLock;
using Vexel::Detail::withName;
using Vexel::Detail::withStatus;

namespace {

HRESULT moveToStart(::IStream& stream) { return outcomeOf(stream.Seek({}, STREAM_SEEK_SET, nullptr)); }

/// The size that a stream tells; 0 when it cannot.
unsigned long long sizeOf(::IStream& stream) {
    STATSTG info{};
    return stream.Stat(&info, STATFLAG_NONAME) == S_OK ? info.cbSize.QuadPart : 0;
}

} // namespace

// A name is kept by copy where an item is let go of: it may be the name of that item.
//
// What moves bytes or positions holds the root's lock from the look at the interface on: another thread may
// reopen the item.

StreamRef::StreamRef(const StreamRef& other) noexcept : item_(ItemRef<VxStream>(other.item_).detach()) {}

StreamRef::StreamRef(StreamRef&& other) noexcept : item_(std::exchange(other.item_, nullptr)) {}

StreamRef& StreamRef::operator=(const StreamRef& other) noexcept {
    if (item_ != other.item_)
        *this = StreamRef(other); // takes its reference before the old one is dropped
    return *this;
}

StreamRef& StreamRef::operator=(StreamRef&& other) noexcept {
    std::swap(item_, other.item_);
    return *this;
}

StreamRef::~StreamRef() { close(); }

long StreamRef::open(const SharedPathName& name, const StorageRef& parent, bool readOnly) {
    if (parent.null())
        return STG_E_INVALIDPARAMETER;
    return withStatus([&, kept = name] {
        close();
        HRESULT status = E_FAIL;
        item_ = parent.item_->openChildStream(kept, readOnly, false, &status).detach();
        return status;
    });
}

long StreamRef::open(const wchar_t* name, const StorageRef& parent, bool readOnly) {
    return withName(*this, parent, name,
                    [&](const SharedPathName& kept) { return open(kept, parent, readOnly); });
}

long StreamRef::open(const CStringW& name, const StorageRef& parent, bool readOnly) {
    return withName(*this, parent, name,
                    [&](const SharedPathName& kept) { return open(kept, parent, readOnly); });
}

long StreamRef::create(const SharedPathName& name, const StorageRef& parent) {
    if (parent.null())
        return STG_E_INVALIDPARAMETER;
    return withStatus([&, kept = name] {
        close();
        HRESULT status = E_FAIL;
        item_ = parent.item_->createChildStream(kept, &status).detach();
        return status;
    });
}

long StreamRef::create(const wchar_t* name, const StorageRef& parent) {
    return withName(*this, parent, name, [&](const SharedPathName& kept) { return create(kept, parent); });
}

long StreamRef::create(const CStringW& name, const StorageRef& parent) {
    return withName(*this, parent, name, [&](const SharedPathName& kept) { return create(kept, parent); });
}

void StreamRef::close() noexcept {
    if (item_)
        std::exchange(item_, nullptr)->releaseHandle();
}

const SharedPathName& StreamRef::name() const noexcept {
    return item_ ? item_->name() : SharedPathName::null;
}

bool StreamRef::readOnly() const noexcept { return !item_ || item_->readOnly(); }

StorageFormat StreamRef::format() const noexcept { return item_ ? item_->format() : StorageFormat::None; }

StreamCompression StreamRef::compression() const noexcept {
    return item_ ? item_->compression() : StreamCompression::None;
}

unsigned long long StreamRef::size() const { return item_ ? item_->size() : 0; }

long StreamRef::stat(FILETIME* created, FILETIME* modified) const {
    if (created)
        *created = {};
    if (modified)
        *modified = {};
    return item_ ? item_->stat(created, modified) : STG_E_INVALIDPARAMETER;
}

::IStream* StreamRef::stream() const { return item_ ? item_->stream() : nullptr; }

long StreamRef::read(void* buffer, unsigned long count, unsigned long* done) {
    if (done)
        *done = 0;
    const TreeLock lock(item_);
    ::IStream* com = stream();
    return com ? com->Read(buffer, count, done) : STG_E_INVALIDPARAMETER;
}

long StreamRef::write(const void* buffer, unsigned long count, unsigned long* done) {
    if (done)
        *done = 0;
    const TreeLock lock(item_);
    ::IStream* com = stream();
    return com ? com->Write(buffer, count, done) : STG_E_INVALIDPARAMETER;
}

long StreamRef::setSize(unsigned long long size) { return item_ ? item_->setSize(size) : E_FAIL; }

long StreamRef::copyTo(StreamRef& target) {
    if (null() || target.null())
        return STG_E_INVALIDPARAMETER;
    const Vexel::Detail::TreePairLock locks(*item_, *target.item_);
    // Held: the lock is let go of where a clean-up runs before the other one can be opened.
    const ComPtr<::IStream> from = stream();
    const ComPtr<::IStream> to = target.stream();
    if (!from || !to || from.Get() == to.Get())
        return STG_E_INVALIDPARAMETER;
    const auto before = static_cast<long long>(Vexel::Detail::position(from.Get()));
    const unsigned long long size = sizeOf(*from.Get());
    if (const HRESULT status = moveToStart(*from.Get()); FAILED(status))
        return status;
    const HRESULT ready = moveToStart(*to.Get());
    constexpr ULARGE_INTEGER kEverything{.QuadPart = ~0ULL};
    ULARGE_INTEGER written{};
    const HRESULT copied =
        FAILED(ready) ? ready : outcomeOf(from->CopyTo(to.Get(), kEverything, nullptr, &written));
    unsigned long long reached = 0;
    Vexel::Detail::seek(from.Get(), STREAM_SEEK_SET, before, reached);
    if (FAILED(ready))
        return ready;
    // What remains of longer contents goes. Streams are emptied by their items, see VxCompoundStream.
    const HRESULT cutOff = written.QuadPart == 0 ? target.item_->setSize(0) : outcomeOf(to->SetSize(written));
    if (FAILED(copied))
        return copied;
    return written.QuadPart < size ? STG_E_READFAULT : cutOff; // some systems take a part for the whole
}

long StreamRef::commit() const { return item_ ? item_->commit() : STG_E_INVALIDPARAMETER; }

unsigned long long StreamRef::SeekToEnd() {
    const TreeLock lock(item_);
    ::IStream* com = stream();
    unsigned long long reached = 0;
    return Vexel::Detail::seek(com, STREAM_SEEK_END, 0, reached) ? reached : Vexel::Detail::position(com);
}

void StreamRef::SeekToBegin() {
    const TreeLock lock(item_);
    ::IStream* com = stream();
    unsigned long long reached = 0;
    // Kept as it always was: a move that fails asks for the position, though nobody takes this one.
    if (!Vexel::Detail::seek(com, STREAM_SEEK_SET, 0, reached))
        Vexel::Detail::position(com);
}

unsigned long long StreamRef::GetLength() { return size(); }

unsigned long long StreamRef::Seek(SeekPosition origin, long long offset) {
    const TreeLock lock(item_);
    ::IStream* com = stream();
    const unsigned long long before = Vexel::Detail::position(com);
    if (origin != SeekPosition::Begin && origin != SeekPosition::Current && origin != SeekPosition::End)
        return before;
    unsigned long long reached = 0;
    if (!Vexel::Detail::seek(com, static_cast<DWORD>(origin), offset, reached))
        return Vexel::Detail::position(com);
    // Some versions of the system's storage accept positions before the start, as huge numbers, and beyond
    // 4 GiB, and end the process in the read that follows.
    constexpr unsigned long long kHighestSafe = 0xFFFFFFFF;
    if (format() != StorageFormat::CompoundFile || reached <= kHighestSafe || reached <= size())
        return reached;
    // Asked for anew: the clean-up behind a size that cannot be asked lets others reopen the item.
    Vexel::Detail::seek(stream(), STREAM_SEEK_SET, static_cast<long long>(before), reached);
    return before;
}

unsigned long long StreamRef::GetPosition() const {
    const TreeLock lock(item_);
    return Vexel::Detail::position(stream());
}

unsigned long long StreamRef::ReadBytes(void* buffer, unsigned long long count) {
    const TreeLock lock(item_);
    return count ? Vexel::Detail::readBytes(stream(), buffer, count) : 0;
}

unsigned long long StreamRef::WriteBytes(const void* buffer, unsigned long long count) {
    const TreeLock lock(item_);
    return count ? Vexel::Detail::writeBytes(stream(), buffer, count) : 0;
}
