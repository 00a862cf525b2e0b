#pragma once

#include <vexel/com.h>
#include <vexel/export.h>

#include <windows.h>

#include <objidl.h>
#include <wrl/client.h>

namespace Vexel::Storage {

/// Shows the range [offset, offset + size) of another COM stream, the base, as a stream of its own, with
/// positions counted from the start of the range.
///
/// Reads and writes happen at the base's own seek pointer, which only `Seek` sets: a new sub-stream must be
/// positioned first unless the base stands at `offset` already, and sub-streams that share a base disturb
/// each other unless each seeks before it reads. They never pass the end of the range.
///
/// Threads: an object belongs to one thread at a time; only references may be taken and released on any.
class VEXEL_API SubStream : public IUnknownImpl<::IStream> {
public:
    /// Makes a sub-stream without a base. As long as it has none, its methods return
    /// `STG_E_INVALIDFUNCTION`, and `QueryInterface` returns `E_FAIL`.
    SubStream() noexcept = default;
    /// Holds a reference on `base`, which may be null.
    SubStream(::IStream* base, unsigned long long offset, unsigned long long size) noexcept;

    /// Shows another range, of `base` itself or, with `clone`, of a clone of it. False, with nothing changed,
    /// when `base` is null or anybody else holds this object. When cloning fails, the result is false and the
    /// object is left without a base.
    bool set(::IStream* base, unsigned long long offset, unsigned long long size, bool clone) noexcept;

    /// Drops the base. False, with nothing changed, when anybody else holds this object.
    bool detach() noexcept;

    /// `IID_IUnknown`, `IID_ISequentialStream` and `IID_IStream` are this object. Any other interface is
    /// asked of the base, which gives one of its own. `E_POINTER` when `ppv` is null.
    HRESULT STDMETHODCALLTYPE QueryInterface(const GUID& iid, void** ppv) noexcept override;

    // The statuses of the following methods are those of the base where nothing else is said. Pointers that
    // receive a count or a position may be null; counts are 0 when there is no base.

    HRESULT STDMETHODCALLTYPE Read(void* pv, ULONG cb, ULONG* pcbRead) noexcept override;
    HRESULT STDMETHODCALLTYPE Write(const void* pv, ULONG cb, ULONG* pcbWritten) noexcept override;
    /// Moves within the range; `STG_E_INVALIDFUNCTION` for positions outside it and for unknown origins.
    /// Asking for the position (a move by 0 from `STREAM_SEEK_CUR`) does not touch the base.
    HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER move, DWORD origin,
                                   ULARGE_INTEGER* plibNewPosition) noexcept override;
    /// Changes the range only, not the base. `E_INVALIDARG` for an end beyond 64 bits. A range that is made
    /// to end before the current position limits nothing from there until the next `Seek` into it.
    HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER newSize) noexcept override;
    HRESULT STDMETHODCALLTYPE CopyTo(::IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead,
                                     ULARGE_INTEGER* pcbWritten) noexcept override;
    HRESULT STDMETHODCALLTYPE Commit(DWORD flags) noexcept override;
    HRESULT STDMETHODCALLTYPE Revert() noexcept override;
    /// Both lock or unlock a region of the base. `STG_E_INVALIDFUNCTION` for an offset beyond 64 bits.
    HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER libOffset, ULARGE_INTEGER cb,
                                         DWORD type) noexcept override;
    HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER libOffset, ULARGE_INTEGER cb,
                                           DWORD type) noexcept override;
    /// Returns what the base tells of itself, but the size of the range, which is set even when the base
    /// fails.
    HRESULT STDMETHODCALLTYPE Stat(STATSTG* pstatstg, DWORD flag) noexcept override;
    /// A sub-stream of the same range, at the same position, over a clone of the base.
    /// `STG_E_INVALIDPOINTER` when `ppstm` is null, `E_OUTOFMEMORY`; `*ppstm` is null on failure.
    HRESULT STDMETHODCALLTYPE Clone(::IStream** ppstm) noexcept override;

protected:
    ~SubStream() override = default;

private:
    void show(Microsoft::WRL::ComPtr<::IStream> base, unsigned long long offset,
              unsigned long long size) noexcept;
    void consume(unsigned long long count) noexcept;
    HRESULT target(long long move, DWORD origin, unsigned long long& position) const noexcept;
    HRESULT lock(ULARGE_INTEGER libOffset, ULARGE_INTEGER cb, DWORD type) noexcept;

    Microsoft::WRL::ComPtr<::IStream> base_;
    // From the current position to the end of the range; wraps while the position is beyond the end.
    unsigned long long remaining_ = 0;
    unsigned long long offset_ = 0;
    unsigned long long size_ = 0;
};

} // namespace Vexel::Storage
