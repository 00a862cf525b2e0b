// A sub-stream keeps the distance from its position to the end of the range instead of the position: that is
// what every read and write is cut to. The position is worked out from it where somebody asks. The seek
// pointer is the base's.

#include <vexel/sub_stream.h>

#include <algorithm>
#include <limits>
#include <new>
#include <utility>

using Microsoft::WRL::ComPtr;

namespace Vexel::Storage {
namespace {

constexpr unsigned long long kLimit = std::numeric_limits<unsigned long long>::max();

ULONG atMost(ULONG count, unsigned long long remaining) noexcept {
    return static_cast<ULONG>((std::min)(static_cast<unsigned long long>(count), remaining));
}

} // namespace

SubStream::SubStream(::IStream* base, unsigned long long offset, unsigned long long size) noexcept {
    show(base, offset, size);
}

void SubStream::show(ComPtr<::IStream> base, unsigned long long offset, unsigned long long size) noexcept {
    base_ = std::move(base);
    remaining_ = size;
    offset_ = offset;
    size_ = size;
}

bool SubStream::set(::IStream* base, unsigned long long offset, unsigned long long size,
                    bool clone) noexcept {
    if (!base || numRefs() != 1)
        return false;
    const ComPtr<::IStream> held(base); // the old base, which goes first, may be the same
    show(nullptr, 0, 0);
    ComPtr<::IStream> cloned;
    if (clone && (FAILED(base->Clone(&cloned)) || !cloned))
        return false;
    show(clone ? cloned : held, offset, size);
    return true;
}

bool SubStream::detach() noexcept {
    if (numRefs() != 1)
        return false;
    show(nullptr, 0, 0);
    return true;
}

// A base that claims more than it was asked for leaves nothing.
void SubStream::consume(unsigned long long count) noexcept { remaining_ -= (std::min)(count, remaining_); }

HRESULT SubStream::QueryInterface(const GUID& iid, void** ppv) noexcept {
    if (!ppv)
        return E_POINTER;
    *ppv = nullptr;
    if (!base_)
        return E_FAIL;
    if (iid == __uuidof(IUnknown) || iid == __uuidof(ISequentialStream) || iid == __uuidof(::IStream))
        return hand(ppv);
    return base_->QueryInterface(iid, ppv);
}

HRESULT SubStream::Read(void* pv, ULONG cb, ULONG* pcbRead) noexcept {
    ULONG read = 0;
    const HRESULT status = base_ ? base_->Read(pv, atMost(cb, remaining_), &read) : STG_E_INVALIDFUNCTION;
    consume(read);
    if (pcbRead)
        *pcbRead = read;
    return status;
}

HRESULT SubStream::Write(const void* pv, ULONG cb, ULONG* pcbWritten) noexcept {
    ULONG written = 0;
    const HRESULT status = base_ ? base_->Write(pv, atMost(cb, remaining_), &written) : STG_E_INVALIDFUNCTION;
    consume(written);
    if (pcbWritten)
        *pcbWritten = written;
    return status;
}

// Where in the range a move leads.
HRESULT SubStream::target(long long move, DWORD origin, unsigned long long& position) const noexcept {
    unsigned long long from = 0;
    unsigned long long ahead = size_; // how far one can go from there
    if (origin == STREAM_SEEK_CUR) {
        from = size_ - remaining_;
        ahead = remaining_;
    } else if (origin == STREAM_SEEK_END) {
        from = size_;
        ahead = 0;
    } else if (origin != STREAM_SEEK_SET) {
        return STG_E_INVALIDFUNCTION;
    }
    const auto distance = static_cast<unsigned long long>(move);
    if (move < 0 ? 0 - distance > from : distance > ahead)
        return STG_E_INVALIDFUNCTION;
    position = from + distance;
    return S_OK;
}

HRESULT SubStream::Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* plibNewPosition) noexcept {
    if (!base_)
        return STG_E_INVALIDFUNCTION;
    if (origin == STREAM_SEEK_CUR && move.QuadPart == 0) {
        if (plibNewPosition)
            plibNewPosition->QuadPart = size_ - remaining_;
        return S_OK;
    }

    unsigned long long position = 0;
    const HRESULT found = target(move.QuadPart, origin, position);
    if (FAILED(found))
        return found;
    if (position > kLimit - offset_)
        return STG_E_INVALIDFUNCTION; // the base would be moved to before the range
    LARGE_INTEGER inBase;
    inBase.QuadPart = static_cast<long long>(offset_ + position);
    ULARGE_INTEGER reached{};
    const HRESULT status = base_->Seek(inBase, STREAM_SEEK_SET, &reached);
    if (FAILED(status))
        return status;
    remaining_ = size_ - position;
    if (plibNewPosition)
        plibNewPosition->QuadPart = reached.QuadPart - offset_;
    return status;
}

HRESULT SubStream::SetSize(ULARGE_INTEGER newSize) noexcept {
    if (!base_)
        return STG_E_INVALIDFUNCTION;
    if (newSize.QuadPart > kLimit - offset_)
        return E_INVALIDARG;
    // The position stays. Where it is beyond the new end, what remains wraps to a huge number and the range
    // limits nothing: callers that shrink a range and go on expect their reads and writes to go through.
    const unsigned long long position = size_ - remaining_;
    size_ = newSize.QuadPart;
    remaining_ = size_ - position;
    return S_OK;
}

HRESULT SubStream::CopyTo(::IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead,
                          ULARGE_INTEGER* pcbWritten) noexcept {
    if (pcbWritten)
        pcbWritten->QuadPart = 0;
    cb.QuadPart = (std::min)(cb.QuadPart, remaining_);
    ULARGE_INTEGER read{};
    const HRESULT status = base_ ? base_->CopyTo(pstm, cb, &read, pcbWritten) : STG_E_INVALIDFUNCTION;
    consume(read.QuadPart);
    if (pcbRead)
        *pcbRead = read;
    return status;
}

HRESULT SubStream::Commit(DWORD flags) noexcept {
    return base_ ? base_->Commit(flags) : STG_E_INVALIDFUNCTION;
}

HRESULT SubStream::Revert() noexcept { return base_ ? base_->Revert() : STG_E_INVALIDFUNCTION; }

HRESULT SubStream::lock(ULARGE_INTEGER libOffset, ULARGE_INTEGER cb, DWORD type) noexcept {
    if (!base_ || libOffset.QuadPart > kLimit - offset_)
        return STG_E_INVALIDFUNCTION;
    libOffset.QuadPart += offset_;
    return base_->LockRegion(libOffset, cb, type);
}

HRESULT SubStream::LockRegion(ULARGE_INTEGER libOffset, ULARGE_INTEGER cb, DWORD type) noexcept {
    return lock(libOffset, cb, type);
}

// Locks, too: callers have come to rely on the region staying locked until the base is released.
HRESULT SubStream::UnlockRegion(ULARGE_INTEGER libOffset, ULARGE_INTEGER cb, DWORD type) noexcept {
    return lock(libOffset, cb, type);
}

HRESULT SubStream::Stat(STATSTG* pstatstg, DWORD flag) noexcept {
    if (!base_)
        return STG_E_INVALIDFUNCTION;
    if (pstatstg)
        *pstatstg = {}; // a base that fails may leave it as it was
    const HRESULT status = base_->Stat(pstatstg, flag);
    if (pstatstg)
        pstatstg->cbSize.QuadPart = size_;
    return status;
}

HRESULT SubStream::Clone(::IStream** ppstm) noexcept {
    if (!ppstm)
        return STG_E_INVALIDPOINTER;
    *ppstm = nullptr;
    if (!base_)
        return STG_E_INVALIDFUNCTION;
    ComPtr<::IStream> base;
    const HRESULT status = base_->Clone(&base);
    if (FAILED(status))
        return status;
    try {
        auto* const clone = new SubStream(base.Get(), offset_, size_);
        clone->remaining_ = remaining_;
        *ppstm = clone;
        return status;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}

} // namespace Vexel::Storage
