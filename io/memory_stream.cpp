// Clones share the buffer by a shared pointer; the position is each stream's own. Arithmetic on positions is
// done on unsigned 64-bit numbers and checked before, since callers may seek anywhere.

#include "base/platform.h"
#include "io/small_copy.h"

#include <vexel/memory_streams.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <limits>
#include <new>
#include <optional>
#include <utility>

using Vexel::Detail::copyBytes;
using Vexel::Detail::platform;

namespace Vexel::Storage {
namespace {

// Right also for the least number, which has no opposite.
unsigned long long magnitude(long long negative) noexcept {
    return 0 - static_cast<unsigned long long>(negative);
}

constexpr unsigned long long kSmallestStep = 1024;
constexpr unsigned long long kLargestStep = 0x2000000;
constexpr unsigned long long kLimit = std::numeric_limits<unsigned long long>::max();

unsigned long long saturatedSum(unsigned long long a, unsigned long long b) noexcept {
    return a <= kLimit - b ? a + b : kLimit;
}

// Doubles the capacity up to steps of 32 MiB, then goes on in such steps. A whole step is added also where
// the end falls on one, so there is always room to spare. What cannot be expressed is larger than any memory.
unsigned long long enlargedCapacity(unsigned long long capacity, unsigned long long end) noexcept {
    const unsigned long long step = std::clamp(capacity, kSmallestStep, kLargestStep);
    const unsigned long long need = end - capacity;
    return saturatedSum(end, step - need % step);
}

} // namespace

DynamicBuffer::DynamicBuffer(DynamicBuffer&& other) noexcept
    : data(std::exchange(other.data, nullptr)), size(data ? other.size : 0),
      capacity(data ? other.capacity : 0), ownsMemory(other.ownsMemory) {}

DynamicBuffer& DynamicBuffer::operator=(DynamicBuffer&& other) noexcept {
    DynamicBuffer taken(std::move(other));
    std::swap(data, taken.data);
    std::swap(size, taken.size);
    std::swap(capacity, taken.capacity);
    std::swap(ownsMemory, taken.ownsMemory);
    return *this;
}

DynamicBuffer::~DynamicBuffer() {
    if (ownsMemory)
        platform().freeMemory(data);
    data = nullptr;
    size = 0;
    capacity = 0;
}

InMemoryIStream::InMemoryIStream(unsigned long long initialSize) : private_(std::make_shared<Private>()) {
    resize(initialSize);
}

InMemoryIStream::InMemoryIStream(DynamicBuffer&& buffer)
    : private_(std::make_shared<Private>(std::move(buffer))) {}

InMemoryIStream::InMemoryIStream(const std::shared_ptr<Private>& contents) : private_(contents) {}

InMemoryIStream::InMemoryIStream(const InMemoryIStream& other) = default;

InMemoryIStream::~InMemoryIStream() = default;

unsigned long long InMemoryIStream::read(void* destination, unsigned long long count) noexcept {
    const Private& buffer = *private_;
    const unsigned long long start = position_;
    if (start >= buffer.size || !destination)
        return 0;
    count = (std::min)(count, buffer.size - start);
    position_ = start + count;
    copyBytes(destination, buffer.data + start, count);
    return count;
}

// Writes `count` bytes for which there is room.
inline void InMemoryIStream::place(const void* source, unsigned long long count) noexcept {
    Private& buffer = *private_;
    const unsigned long long start = position_;
    const unsigned long long end = start + count;
    position_ = end;
    if (buffer.size < end)
        buffer.size = end;
    copyBytes(buffer.data + start, source, count);
}

inline bool InMemoryIStream::hasRoom(unsigned long long count) const noexcept {
    return position_ <= private_->capacity && count <= private_->capacity - position_;
}

// Makes room for `count` more bytes if it can, and tells where `source` lies then: a clone is written to from
// the very block that moves.
const void* InMemoryIStream::grow(const void* source, unsigned long long count) noexcept {
    const Private& buffer = *private_;
    const auto* bytes = static_cast<const unsigned char*>(source);
    const std::less<> before;
    const bool inside =
        buffer.data && !before(bytes, buffer.data) && before(bytes, buffer.data + buffer.capacity);
    const std::ptrdiff_t offset = inside ? bytes - buffer.data : 0;
    const unsigned long long end = saturatedSum(position_, count);
    return enlarge(enlargedCapacity(buffer.capacity, end)) && inside ? buffer.data + offset : source;
}

bool InMemoryIStream::enlarge(unsigned long long newCapacity) noexcept {
    Private& buffer = *private_;
    if (!buffer.ownsMemory)
        return false;
    void* const block = platform().reallocate(buffer.data, newCapacity);
    if (!block)
        return false;
    buffer.data = static_cast<unsigned char*>(block);
    buffer.capacity = newCapacity;
    return true;
}

unsigned long long InMemoryIStream::write(const void* source, unsigned long long count) noexcept {
    if (!source && count > 0)
        return 0;
    if (!hasRoom(count)) {
        source = grow(source, count);
        if (private_->capacity < position_)
            return 0;
        count = (std::min)(count, private_->capacity - position_);
    }
    place(source, count);
    return count;
}

unsigned long long InMemoryIStream::seek(long long offset, SeekOrigin origin) noexcept {
    const unsigned long long end = private_->size;
    const auto forward = static_cast<unsigned long long>(offset);
    if (origin == Begin && offset >= 0)
        position_ = (std::min)(forward, end);
    else if (origin == Current && offset >= 0)
        position_ = forward < end && position_ < end - forward ? position_ + forward : end;
    else if (origin == Current && magnitude(offset) <= position_)
        position_ = (std::min)(position_ - magnitude(offset), end);
    else if (origin == End && offset <= 0 && magnitude(offset) <= end)
        position_ = end - magnitude(offset);
    return position_;
}

bool InMemoryIStream::resize(unsigned long long newSize) noexcept {
    if (!private_->ownsMemory)
        return false;
    if (newSize > private_->capacity && !enlarge(newSize))
        return false;
    private_->size = newSize;
    return true;
}

void InMemoryIStream::freeMemory() noexcept {
    if (private_->ownsMemory)
        platform().freeMemory(private_->data);
    private_->data = nullptr;
    private_->size = 0;
    private_->capacity = 0;
}

HRESULT InMemoryIStream::QueryInterface(const GUID& iid, void** ppv) noexcept {
    if (ppv && (iid == __uuidof(::IStream) || iid == __uuidof(ISequentialStream)))
        return hand(ppv);
    return IUnknownImpl::QueryInterface(iid, ppv);
}

// Read and Write are called for a few bytes at a time: they tell the count before they copy, so that nothing
// needs to be kept over that.

HRESULT InMemoryIStream::Read(void* pv, ULONG cb, ULONG* pcbRead) noexcept {
    const Private& buffer = *private_;
    const unsigned long long start = position_;
    ULONG count = 0;
    if (pv && start < buffer.size)
        count = static_cast<ULONG>((std::min)(buffer.size - start, 0ULL + cb));
    if (pcbRead)
        *pcbRead = count;
    position_ = start + count;
    if (count > 0)
        copyBytes(pv, buffer.data + start, count);
    return pv ? S_OK : STG_E_INVALIDPOINTER;
}

HRESULT InMemoryIStream::Write(const void* pv, ULONG cb, ULONG* pcbWritten) noexcept {
    if (!pv || cb == 0 || !hasRoom(cb))
        return writeAtMost(pv, cb, pcbWritten);
    if (pcbWritten)
        *pcbWritten = cb;
    place(pv, cb);
    return S_OK;
}

HRESULT InMemoryIStream::writeAtMost(const void* pv, ULONG cb, ULONG* pcbWritten) noexcept {
    const auto count = cb > 0 ? static_cast<ULONG>(write(pv, cb)) : 0;
    if (pcbWritten)
        *pcbWritten = count;
    if (!pv)
        return STG_E_INVALIDPOINTER;
    return count > 0 || cb == 0 ? S_OK : STG_E_INSUFFICIENTMEMORY;
}

HRESULT InMemoryIStream::Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* plibNewPosition) noexcept {
    std::optional<unsigned long long> from;
    if (origin == STREAM_SEEK_SET)
        from = 0;
    else if (origin == STREAM_SEEK_CUR)
        from = position_;
    else if (origin == STREAM_SEEK_END)
        from = private_->size;
    if (!from || (move.QuadPart < 0 && magnitude(move.QuadPart) > *from))
        return STG_E_INVALIDFUNCTION;

    position_ = *from + static_cast<unsigned long long>(move.QuadPart);
    if (plibNewPosition)
        plibNewPosition->QuadPart = position_;
    return S_OK;
}

HRESULT InMemoryIStream::SetSize(ULARGE_INTEGER newSize) noexcept {
    return resize(newSize.QuadPart) ? S_OK : STG_E_INSUFFICIENTMEMORY;
}

HRESULT InMemoryIStream::CopyTo(::IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead,
                                ULARGE_INTEGER* pcbWritten) noexcept {
    ULARGE_INTEGER unused;
    ULARGE_INTEGER& read = pcbRead ? *pcbRead : unused;
    ULARGE_INTEGER& written = pcbWritten ? *pcbWritten : unused;
    read.QuadPart = written.QuadPart = 0;
    if (!pstm)
        return STG_E_INVALIDPOINTER;

    // Beyond the end the difference wraps, so that the target is asked to take `cb` bytes from nowhere. At
    // the end nothing is left and the target is not asked at all.
    unsigned long long remaining = (std::min)(private_->size - position_, cb.QuadPart);
    unsigned long long accepted = 0;
    HRESULT status = S_OK;
    while (SUCCEEDED(status) && remaining > 0) {
        // Looked up each time: the target may share the memory, and change it.
        const unsigned char* const source = data();
        unsigned long long chunk = (std::min)(remaining, 0xFFFFFFFFULL);
        if (source)
            chunk = (std::min)(chunk, private_->size - position_);
        ULONG taken = 0;
        status = pstm->Write(source, static_cast<ULONG>(chunk), &taken);
        accepted += taken;
        position_ += taken;
        remaining -=
            (std::min)(remaining, static_cast<unsigned long long>(taken)); // it may claim more than it got
    }
    read.QuadPart = written.QuadPart = accepted;
    return status;
}

HRESULT InMemoryIStream::Commit(DWORD /*flags*/) noexcept { return S_OK; }

HRESULT InMemoryIStream::Revert() noexcept { return E_NOTIMPL; }

HRESULT InMemoryIStream::LockRegion(ULARGE_INTEGER /*offset*/, ULARGE_INTEGER /*cb*/,
                                    DWORD /*type*/) noexcept {
    return E_NOTIMPL;
}

HRESULT InMemoryIStream::UnlockRegion(ULARGE_INTEGER /*offset*/, ULARGE_INTEGER /*cb*/,
                                      DWORD /*type*/) noexcept {
    return E_NOTIMPL;
}

HRESULT InMemoryIStream::Stat(STATSTG* pstatstg, DWORD /*flags*/) noexcept {
    if (!pstatstg)
        return STG_E_INVALIDPOINTER;
    *pstatstg = {};
    pstatstg->type = STGTY_STREAM;
    pstatstg->cbSize.QuadPart = private_->size;
    pstatstg->grfMode = STGM_READWRITE;
    return S_OK;
}

HRESULT InMemoryIStream::Clone(::IStream** ppstm) noexcept {
    if (!ppstm)
        return STG_E_INVALIDPOINTER;
    *ppstm = nullptr;
    try {
        *ppstm = new InMemoryIStream(*this);
        return S_OK;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}

} // namespace Vexel::Storage
