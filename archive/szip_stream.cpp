// Two numbers tell whether contents have to be saved: how often they were changed, and how often they had
// been when the file got them. So a change that comes while a save is running is not taken for saved.

#include "archive/szip_stream.h"

#include "archive/item_paths.h"
#include "base/platform.h"
#include "base/task_memory.h"
#include "base/text.h"

#include <windows.h>

#include <cstring>
#include <new>
#include <string_view>
#include <utility>

namespace Vexel::Storage {

using Detail::RwGuard;

struct SZipStream::Contents : Private {
    Contents(DynamicBuffer&& bytes, Origin&& made) : Private(std::move(bytes)), origin(std::move(made)) {}

    Origin origin;
    std::atomic<std::uint64_t> changes{0};
    std::atomic<std::uint64_t> saved{0}; ///< `changes` when the file's contents were these
    mutable Detail::RwLockWord lock{0};  ///< the bytes and `origin.path`
};

namespace {

// The last element as it is stored. Unlike a storage, a stream does not decode its name.
HRESULT duplicateName(const CString& path, LPOLESTR* name) noexcept {
    *name = Detail::duplicateText(lastElement(Detail::viewOf(path)));
    return *name ? S_OK : STG_E_INSUFFICIENTMEMORY;
}

} // namespace

SZipStream::SZipStream(DynamicBuffer&& bytes, Origin origin)
    : InMemoryIStream(std::make_shared<Contents>(std::move(bytes), std::move(origin))) {}

SZipStream::SZipStream(const SZipStream& other, std::shared_ptr<const void> keeper, bool readOnly)
    : InMemoryIStream(other), keeper_(std::move(keeper)), readOnly_(readOnly) {}

SZipStream::~SZipStream() = default;

SZipStream::Contents& SZipStream::shared() const noexcept { return static_cast<Contents&>(*contents()); }

std::uint64_t SZipStream::changes() const noexcept { return shared().changes; }

bool SZipStream::isModified() const noexcept { return shared().changes != shared().saved; }

bool SZipStream::isReadOnly() const noexcept { return readOnly_ || shared().origin.readOnly; }

void SZipStream::markModified() noexcept { ++shared().changes; }

void SZipStream::markSaved(std::uint64_t savedChanges) noexcept { shared().saved = savedChanges; }

void SZipStream::markChanged() noexcept {
    markModified();
    *shared().origin.changed = true;
}

unsigned long long SZipStream::lockedSize() const noexcept {
    const RwGuard guard(shared().lock, RwGuard::Shared); // or not, at the end of the process
    return size();
}

void SZipStream::setPath(const CString& path) noexcept {
    if (const RwGuard guard(shared().lock, RwGuard::Exclusive); guard)
        shared().origin.path = path;
}

DynamicBuffer SZipStream::copyBytes() const {
    const RwGuard guard(shared().lock, RwGuard::Shared);
    if (!guard)
        throw std::bad_alloc();
    DynamicBuffer copy;
    if (size() == 0)
        return copy;
    copy.data = static_cast<unsigned char*>(Detail::platform().reallocate(nullptr, size()));
    if (!copy.data)
        throw std::bad_alloc();
    std::memcpy(copy.data, data(0), size());
    copy.size = copy.capacity = size();
    return copy;
}

HRESULT SZipStream::Read(void* pv, ULONG cb, ULONG* pcbRead) noexcept {
    const RwGuard guard(shared().lock, RwGuard::Shared);
    if (guard)
        return InMemoryIStream::Read(pv, cb, pcbRead);
    if (pcbRead)
        *pcbRead = 0;
    return STG_E_INUSE;
}

HRESULT SZipStream::Write(const void* pv, ULONG cb, ULONG* pcbWritten) noexcept {
    if (pcbWritten)
        *pcbWritten = 0;
    if (isReadOnly())
        return STG_E_ACCESSDENIED;
    const RwGuard guard(shared().lock, RwGuard::Exclusive);
    if (!guard)
        return STG_E_INUSE;
    const HRESULT status = InMemoryIStream::Write(pv, cb, pcbWritten);
    if (SUCCEEDED(status))
        markChanged();
    return status;
}

HRESULT SZipStream::SetSize(ULARGE_INTEGER newSize) noexcept {
    if (isReadOnly())
        return STG_E_ACCESSDENIED;
    const RwGuard guard(shared().lock, RwGuard::Exclusive);
    if (!guard)
        return STG_E_INUSE;
    const HRESULT status = InMemoryIStream::SetSize(newSize);
    if (SUCCEEDED(status))
        markChanged();
    return status;
}

HRESULT SZipStream::Stat(STATSTG* pstatstg, DWORD flags) noexcept {
    const RwGuard guard(shared().lock, RwGuard::Shared);
    if (!guard)
        return STG_E_INUSE;
    const HRESULT status = InMemoryIStream::Stat(pstatstg, flags);
    if (FAILED(status))
        return status;
    pstatstg->grfMode = isReadOnly() ? STGM_READ : STGM_READWRITE;
    return flags == STATFLAG_NONAME ? S_OK : duplicateName(shared().origin.path, &pstatstg->pwcsName);
}

HRESULT SZipStream::Clone(::IStream** ppstm) noexcept {
    if (!ppstm)
        return STG_E_INVALIDPOINTER;
    *ppstm = nullptr;
    try {
        *ppstm = new SZipStream(*this, keeper_, readOnly_);
        return S_OK;
    } catch (const std::bad_alloc&) {
        return STG_E_INSUFFICIENTMEMORY;
    }
}

} // namespace Vexel::Storage
