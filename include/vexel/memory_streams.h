#pragma once

/// Bytes in memory: a COM stream over a growable buffer, and large blocks straight from the virtual-memory
/// manager.
///
/// Sizes, counts and positions are in bytes. When memory cannot be had, the result is a short count, `false`,
/// null or the status that is named; only making a stream object raises `std::bad_alloc`.
///
/// Threads: reference counts are atomic. Nothing else is locked: a buffer, and all objects that share it,
/// belong to one thread at a time.

#include <vexel/com.h>
#include <vexel/export.h>

#include <windows.h>

#include <objidl.h>

#include <memory>

namespace Vexel::Storage {

/// A plain buffer record, to be filled in by its maker and moved into an `InMemoryIStream`.
struct VEXEL_API DynamicBuffer {
    unsigned char* data = nullptr;   ///< from `malloc` or `realloc`, or somebody else's
    unsigned long long size = 0;     ///< bytes of content, not more than `capacity`
    unsigned long long capacity = 0; ///< bytes at `data`
    bool ownsMemory = true;          ///< whether `data` may be grown and freed by `realloc` and `free`

    DynamicBuffer() noexcept = default;
    /// Leaves `other.data` null and the other fields of `other` as they were; such a left-over counts as
    /// empty when it is moved on.
    DynamicBuffer(DynamicBuffer&& other) noexcept;
    DynamicBuffer& operator=(DynamicBuffer&& other) noexcept;
    /// Frees owned memory; all but `ownsMemory` becomes zero.
    ~DynamicBuffer();
};

/// A COM stream over a growable block of memory, with a direct interface beside the COM one. Clones share the
/// block and see each other's changes at once; each has its own position.
///
/// Memory that the stream does not own is never grown: writes are cut at its capacity and no size can be set.
/// Bytes between the old end and a write beyond it, and those that a new size adds, are not cleared.
class VEXEL_API InMemoryIStream : public IUnknownImpl<::IStream> {
public:
    enum SeekOrigin { Begin = 0, Current = 1, End = 2 };

    /// Makes a stream of `initialSize` bytes, or an empty one when that much memory cannot be had.
    explicit InMemoryIStream(unsigned long long initialSize = 0);
    /// Takes the buffer over. `buffer.data` becomes null; its other fields stay.
    explicit InMemoryIStream(DynamicBuffer&& buffer);

    unsigned long long size() const noexcept { return private_->size; }
    unsigned long long capacity() const noexcept { return private_->capacity; }
    /// The position, which may be beyond the end after `Seek`.
    unsigned long long position() const noexcept { return position_; }

    /// The address of the byte at the position or at `offset`; null at the end and beyond. It is valid until
    /// the stream, or one that shares its memory, changes.
    const unsigned char* data() const noexcept { return data(position_); }
    const unsigned char* data(unsigned long long offset) const noexcept {
        return offset < private_->size ? private_->data + offset : nullptr;
    }

    /// How many streams share the memory, this one included.
    int numInstances() const noexcept { return static_cast<int>(private_.use_count()); }

    void rewind() noexcept { position_ = 0; }

    /// Copies up to `count` bytes and moves the position behind them. Returns the number of bytes, 0 at the
    /// end.
    unsigned long long read(void* destination, unsigned long long count) noexcept;

    /// Writes bytes and moves the position behind them. Returns the number of bytes written, which is less
    /// than `count` where memory ends. `source` may lie in the stream's own memory. Writing 0 bytes beyond
    /// the end makes the stream reach to the position.
    unsigned long long write(const void* source, unsigned long long count) noexcept;

    /// Moves within [0, size] and returns the new position. A move beyond the end stops at the end. A move to
    /// before the beginning, a move forward from the end, and an unknown origin leave the position unchanged.
    /// (`Seek` differs: it goes beyond the end, and fails.)
    unsigned long long seek(long long offset, SeekOrigin origin) noexcept;

    /// Sets the size, but not the position. The capacity grows to exactly `newSize` where it is less. False,
    /// with nothing changed, when the memory is not owned or cannot be had.
    bool resize(unsigned long long newSize) noexcept;

    /// Empties the stream for all that share its memory. The position stays. Memory that the stream owns is
    /// freed, and the stream can grow again; other memory is dropped for good.
    void freeMemory() noexcept;

    /// Answers `IID_IUnknown`, `IID_ISequentialStream` and `IID_IStream`; otherwise as the base.
    HRESULT STDMETHODCALLTYPE QueryInterface(const GUID& iid, void** ppv) noexcept override;

    // In all of these a null pointer to what the stream is to read from, write to or fill in gives
    // STG_E_INVALIDPOINTER. A pointer that receives a count or a position may be null. Counts are 0 on
    // failure.

    /// `S_OK`, also with a short count at the end.
    HRESULT STDMETHODCALLTYPE Read(void* pv, ULONG cb, ULONG* pcbRead) noexcept override;
    /// `S_OK` when at least one byte was written or none was asked for, else `STG_E_INSUFFICIENTMEMORY`.
    HRESULT STDMETHODCALLTYPE Write(const void* pv, ULONG cb, ULONG* pcbWritten) noexcept override;
    /// Positions beyond the end are allowed, and a write there extends the stream. `STG_E_INVALIDFUNCTION`
    /// for a position before the beginning, for a negative move from the beginning, and for an unknown
    /// origin.
    HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER move, DWORD origin,
                                   ULARGE_INTEGER* plibNewPosition) noexcept override;
    /// Does what `resize` does; `STG_E_INSUFFICIENTMEMORY` where the result of that is false.
    HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER newSize) noexcept override;
    /// Writes up to `cb` bytes to `pstm` until it fails, and returns its last status. Both counts are of the
    /// bytes that it accepted. A target that succeeds without accepting anything is asked again for ever.
    /// When the position is beyond the end, the target is given `cb` bytes at a null address, to be refused.
    HRESULT STDMETHODCALLTYPE CopyTo(::IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead,
                                     ULARGE_INTEGER* pcbWritten) noexcept override;
    /// `S_OK`; there is nothing to commit.
    HRESULT STDMETHODCALLTYPE Commit(DWORD flags) noexcept override;
    /// `E_NOTIMPL`, as for the two functions below.
    HRESULT STDMETHODCALLTYPE Revert() noexcept override;
    HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER cb,
                                         DWORD type) noexcept override;
    HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER cb,
                                           DWORD type) noexcept override;
    /// Tells type, size and mode (`STGM_READWRITE`). All else is zero; the name is null, whatever `flags`
    /// say.
    HRESULT STDMETHODCALLTYPE Stat(STATSTG* pstatstg, DWORD flags) noexcept override;
    /// Makes a stream that shares the memory, at this one's position. `E_OUTOFMEMORY`, with null in `*ppstm`,
    /// when it cannot be made.
    HRESULT STDMETHODCALLTYPE Clone(::IStream** ppstm) noexcept override;

protected:
    /// What clones share. Derived streams may share more by deriving from it.
    struct Private : DynamicBuffer {
        Private() noexcept = default;
        explicit Private(DynamicBuffer&& buffer) noexcept : DynamicBuffer(std::move(buffer)) {}
        virtual ~Private() = default;
    };

    /// Shares `contents`, which must not be null, from position 0.
    explicit InMemoryIStream(const std::shared_ptr<Private>& contents);
    /// Shares the other's memory, from its position.
    InMemoryIStream(const InMemoryIStream& other);
    ~InMemoryIStream() override;

    const std::shared_ptr<Private>& contents() const noexcept { return private_; }

private:
    bool enlarge(unsigned long long newCapacity) noexcept;
    bool hasRoom(unsigned long long count) const noexcept;
    void place(const void* source, unsigned long long count) noexcept;
    HRESULT writeAtMost(const void* pv, ULONG cb, ULONG* pcbWritten) noexcept;
    const void* grow(const void* source, unsigned long long count) noexcept;

    std::shared_ptr<Private> private_;
    unsigned long long position_ = 0;
};

} // namespace Vexel::Storage

/// A large block of memory from the virtual-memory manager. One block of the process is kept for the next
/// user instead of being given back; whoever comes while it is taken gets a block of their own.
///
/// Threads: none of it is locked, and that one block is the process's; use from one thread at a time.
class VEXEL_API BigBuffer {
public:
    BigBuffer() noexcept = default;
    /// Copying copies address and size as they are: two objects then name one block, and the first that lets
    /// go of it does so for both. A block that the target of an assignment held is not released.
    BigBuffer(const BigBuffer& other) noexcept = default;
    BigBuffer& operator=(const BigBuffer& other) noexcept = default;
    ~BigBuffer() { clear(); }

    /// Allocates 512 KiB.
    void* init() noexcept { return allocate(0x80000); }

    /// Takes a block of at least `n` bytes, of unknown content, and returns its address. Null when memory
    /// cannot be had, or when this object holds a block already, which it keeps.
    void* allocate(unsigned long long n) noexcept;

    /// Makes room for `n` bytes and returns the address, which changes when the block does. Never shrinks.
    /// Null with nothing changed when memory cannot be had. Without a block it allocates none and returns
    /// null.
    ///
    /// Only the process's kept block keeps its content. A block of one's own that is replaced is filled with
    /// the bytes of the kept block, as far as it reaches.
    void* reallocate(unsigned long long n) noexcept;

    /// Gives the block back; the process's kept block is kept for the next user.
    void clear() noexcept;

    void* data() const noexcept { return address_; }
    /// The size that was asked for; the block may be larger.
    unsigned long long size() const noexcept { return size_; }

    /// Releases the kept block to the system. True when there was one and nobody used it.
    static bool compact() noexcept;

    /// Installs a function that is called when memory is exhausted, with the number of bytes wanted, and that
    /// returns whether it freed some: then the system is asked once more. Null removes it. It may call
    /// `compact`, which releases nothing then, and use other buffers; it must not throw.
    static void setMemoryDepletionHandler(bool (*handler)(unsigned long long)) noexcept;

private:
    static void* alloc(unsigned long long n) noexcept;
    void* take(void* block, unsigned long long n) noexcept;

    void* address_ = nullptr;
    unsigned long long size_ = 0;
};
