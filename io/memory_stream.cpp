#include "io/memory_blocks.h"

#include <vexel/memory_streams.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <new>
#include <optional>
#include <utility>

using Vexel::Detail::memorySource;

namespace Vexel::Storage {
namespace {

constexpr unsigned long long smallestStep = 1024;
constexpr unsigned long long largestStep = 0x2000000;
constexpr unsigned long long limit = std::numeric_limits<unsigned long long>::max();

unsigned long long magnitude(long long negative) noexcept {
    return 0 - static_cast<unsigned long long>(
                   negative); // also right for the least number, which has no opposite
}

unsigned long long saturatedSum(unsigned long long a, unsigned long long b) noexcept {
    return a <= limit - b ? a + b : limit;
}

// Doubles the capacity up to steps of 32 MiB, then goes on in such steps. A whole step is added also where
// the end falls on one, so there is always room to spare. What cannot be expressed is larger than any memory.
unsigned long long enlargedCapacity(unsigned long long capacity, unsigned long long end) noexcept {
    const unsigned long long step = std::clamp(capacity, smallestStep, largestStep);
    const unsigned long long need = end - capacity;
    return saturatedSum(end, step - need % step);
}

// The first and the last `Bytes` of `count`, which together are all of it. Both are read before either is
// written, so that the places may overlap.
template <std::size_t Bytes>
void copyEnds(unsigned char* to, const unsigned char* from, std::size_t count) noexcept {
    struct {
        unsigned char bytes[Bytes];
    } first, last;
    std::memcpy(&first, from, Bytes);
    std::memcpy(&last, from + count - Bytes, Bytes);
    std::memcpy(to, &first, Bytes);
    std::memcpy(to + count - Bytes, &last, Bytes);
}

// Most reads and writes are of a few bytes, for which a call of memmove costs more than the copying.
inline void copy(void* destination, const void* source, std::size_t count) noexcept {
    auto* const to = static_cast<unsigned char*>(destination);
    const auto* const from = static_cast<const unsigned char*>(source);
    if (count > 128)
        std::memmove(to, from, count);
    else if (count > 64)
        copyEnds<64>(to, from, count);
    else if (count > 32)
        copyEnds<32>(to, from, count);
    else if (count >= 16)
        copyEnds<16>(to, from, count);
    else if (count >= 8)
        copyEnds<8>(to, from, count);
    else if (count >= 4)
        copyEnds<4>(to, from, count);
    else if (count >= 2)
        copyEnds<2>(to, from, count);
    else if (count == 1)
        *to = *from;
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
        memorySource.free(data);
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
    copy(destination, buffer.data + start, count);
    return count;
}

// What both ways of writing have in common, in the place of a call.
inline unsigned long long InMemoryIStream::place(const void* source, unsigned long long count) noexcept {
    Private& buffer = *private_;
    const unsigned long long start = position_;
    if (start > buffer.capacity || count > buffer.capacity - start) {
        source = grow(source, count);
        if (buffer.capacity < start)
            return 0;
        count = (std::min)(count, buffer.capacity - start);
    }
    position_ = start + count;
    if (buffer.size < start + count)
        buffer.size = start + count;
    copy(buffer.data + start, source, count);
    return count;
}

unsigned long long InMemoryIStream::write(const void* source, unsigned long long count) noexcept {
    return source || count == 0 ? place(source, count) : 0;
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
    void* const block = memorySource.reallocate(buffer.data, newCapacity);
    if (!block)
        return false;
    buffer.data = static_cast<unsigned char*>(block);
    buffer.capacity = newCapacity;
    return true;
}

unsigned long long InMemoryIStream::seek(long long offset, SeekOrigin origin) noexcept {
    const unsigned long long end = private_->size;
    const auto forward = static_cast<unsigned long long>(offset);
    if (origin == Begin && offset >= 0)
        position_ = (std::min)(forward, end);
    else if (origin == Current && offset >= 0)
        position_ = (std::min)(saturatedSum(position_, forward), end);
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
        memorySource.free(private_->data);
    private_->data = nullptr;
    private_->size = 0;
    private_->capacity = 0;
}

HRESULT InMemoryIStream::QueryInterface(const GUID& iid, void** ppv) noexcept {
    if (ppv && (iid == __uuidof(::IStream) || iid == __uuidof(ISequentialStream)))
        return hand(ppv);
    return IUnknownImpl::QueryInterface(iid, ppv);
}

HRESULT InMemoryIStream::Read(void* pv, ULONG cb, ULONG* pcbRead) noexcept {
    const auto count = static_cast<ULONG>(read(pv, cb));
    if (pcbRead)
        *pcbRead = count;
    return pv ? S_OK : STG_E_INVALIDPOINTER;
}

HRESULT InMemoryIStream::Write(const void* pv, ULONG cb, ULONG* pcbWritten) noexcept {
    if (pcbWritten)
        *pcbWritten = 0;
    if (!pv)
        return STG_E_INVALIDPOINTER;
    if (cb == 0)
        return S_OK;
    const auto count = static_cast<ULONG>(place(pv, cb));
    if (pcbWritten)
        *pcbWritten = count;
    return count > 0 ? S_OK : STG_E_INSUFFICIENTMEMORY;
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
