#pragma once

#include "base/rw_lock.h"

#include <vexel/framework.h>
#include <vexel/memory_streams.h>

#include <atomic>
#include <cstdint>
#include <memory>

namespace Vexel::Storage {

/// A stream over the contents of an archive's item. All streams of one item share them: the bytes, whether
/// they were changed, and whether they may be.
///
/// `Read`, `Write` and `SetSize` may be called on one of these streams while another thread saves the archive
/// or reads through a stream of its own.
class SZipStream final : public InMemoryIStream {
public:
    /// Set when anything in an archive is changed; outlives the archive for the streams that do.
    using ChangeMark = std::shared_ptr<std::atomic<bool>>;

    struct Origin {
        ChangeMark changed;
        CString path; ///< of the item
        bool readOnly;
    };

    SZipStream(DynamicBuffer&& bytes, Origin origin);
    /// Shares the other's contents, from its position. `keeper` lives as long as this stream. With `readOnly`
    /// this stream refuses changes even where others may make them.
    explicit SZipStream(const SZipStream& other, std::shared_ptr<const void> keeper = nullptr,
                        bool readOnly = false);
    SZipStream& operator=(const SZipStream&) = delete;

    /// A number that every change makes larger.
    std::uint64_t changes() const noexcept;
    /// Whether the contents differ from those in the archive's file.
    bool isModified() const noexcept;
    void markModified() noexcept;
    /// Tells that the file has the contents as they were when `changes()` was `savedChanges`.
    void markSaved(std::uint64_t savedChanges) noexcept;
    /// Whether any other stream shares the contents, or holds this one besides its item.
    bool isShared() const noexcept { return numRefs() != 1 || numInstances() != 1; }
    unsigned long long lockedSize() const noexcept;
    void setPath(const CString& path) noexcept;
    /// A copy of the bytes. Throws std::bad_alloc.
    DynamicBuffer copyBytes() const;

    HRESULT STDMETHODCALLTYPE Read(void* pv, ULONG cb, ULONG* pcbRead) noexcept override;
    HRESULT STDMETHODCALLTYPE Write(const void* pv, ULONG cb, ULONG* pcbWritten) noexcept override;
    HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER newSize) noexcept override;
    HRESULT STDMETHODCALLTYPE Stat(STATSTG* pstatstg, DWORD flags) noexcept override;
    HRESULT STDMETHODCALLTYPE Clone(::IStream** ppstm) noexcept override;

private:
    struct Contents;

    ~SZipStream() override;
    Contents& shared() const noexcept;
    void markChanged() noexcept;
    bool isReadOnly() const noexcept;

    std::shared_ptr<const void> keeper_;
    bool readOnly_ = false;
};

} // namespace Vexel::Storage
