// A thin layer: each function checks its arguments as COM wants it, encodes the name, and asks the archive.
// What an element's mode allows is decided here, what the archive allows by the archive.

#include "archive/szip_storage.h"

#include "archive/szip_enumerator.h"
#include "archive/szip_stream.h"
#include "base/com_pointer.h"
#include "base/status_guard.h"
#include "base/task_memory.h"

#include <algorithm>
#include <utility>

namespace Vexel::Storage {

using Detail::make;
using Detail::withStatus;
using Microsoft::WRL::ComPtr;

namespace {

constexpr DWORD kAccess = STGM_WRITE | STGM_READWRITE;
constexpr const wchar_t* kClassStream = L".clsid";

bool isName(LPCOLESTR name) noexcept { return name && *name; }

/// What createFile and createDirectory do with an element that is there.
bool failsIfExists(DWORD mode) noexcept { return (mode & (STGM_CREATE | STGM_CONVERT)) == 0; }
bool replaces(DWORD mode) noexcept { return (mode & STGM_CREATE) != 0; }

template <class Interface>
HRESULT checkArguments(LPCOLESTR name, Interface** result, bool reservedAreZero) noexcept {
    if (!result)
        return STG_E_INVALIDPOINTER;
    *result = nullptr;
    if (!isName(name))
        return STG_E_INVALIDNAME;
    return reservedAreZero ? S_OK : STG_E_INVALIDPARAMETER;
}

} // namespace

SZipStorage::SZipStorage(CString path, std::shared_ptr<SZipArchive> archive, DWORD mode)
    : path_(std::move(path)), archive_(std::move(archive)), mode_(mode & kAccess) {}

SZipStorage::~SZipStorage() = default;

CString SZipStorage::childPath(LPCOLESTR name) const { return archive_->childPath(path_, name); }

HRESULT SZipStorage::QueryInterface(const GUID& iid, void** ppv) noexcept {
    return ppv && (iid == __uuidof(IStorage) || iid == IID_SZipStorage)
               ? hand(ppv)
               : IUnknownImpl::QueryInterface(iid, ppv);
}

HRESULT SZipStorage::CreateStream(LPCOLESTR name, DWORD mode, DWORD reserved1, DWORD reserved2,
                                  ::IStream** stream) noexcept {
    if (const HRESULT status = checkArguments(name, stream, !reserved1 && !reserved2); FAILED(status))
        return status;
    if (isReadOnly())
        return STG_E_ACCESSDENIED;
    return withStatus([&] {
        ComPtr<::IStream> created;
        const HRESULT status =
            archive_->createFile(&created, childPath(name), failsIfExists(mode), replaces(mode));
        return shareWithCaller(status, created.Get(), false, stream);
    });
}

HRESULT SZipStorage::OpenStream(LPCOLESTR name, void* reserved1, DWORD mode, DWORD reserved2,
                                ::IStream** stream) noexcept {
    if (const HRESULT status = checkArguments(name, stream, !reserved1 && !reserved2); FAILED(status))
        return status;
    if (isReadOnly() && (mode & kAccess) == STGM_WRITE)
        return STG_E_ACCESSDENIED;
    return withStatus([&] {
        ComPtr<::IStream> opened;
        const HRESULT status = archive_->extractFile(&opened, childPath(name));
        return shareWithCaller(status, opened.Get(), (mode & kAccess) == STGM_READ, stream);
    });
}

HRESULT SZipStorage::openEmptied(LPCOLESTR name, ::IStream** stream) noexcept {
    if (const HRESULT status = checkArguments(name, stream, true); FAILED(status))
        return status;
    if (isReadOnly())
        return STG_E_ACCESSDENIED;
    return withStatus([&] { return archive_->openEmptied(stream, childPath(name), archive_); });
}

// The item keeps the stream that it gave, so that one must not keep the archive, or none of them would ever
// go.
HRESULT SZipStorage::shareWithCaller(HRESULT status, ::IStream* contents, bool readOnly,
                                     ::IStream** stream) const {
    if (contents)
        *stream = make<SZipStream>(static_cast<SZipStream&>(*contents), archive_, readOnly).Detach();
    return status;
}

HRESULT SZipStorage::CreateStorage(LPCOLESTR name, DWORD mode, DWORD reserved1, DWORD reserved2,
                                   IStorage** storage) noexcept {
    if (const HRESULT status = checkArguments(name, storage, !reserved1 && !reserved2); FAILED(status))
        return status;
    if (isReadOnly())
        return STG_E_ACCESSDENIED;
    return withStatus([&]() -> HRESULT {
        const ComPtr<SZipStorage> child = make<SZipStorage>(childPath(name), archive_, mode);
        const HRESULT status = archive_->createDirectory(child->path_, failsIfExists(mode), replaces(mode));
        if (SUCCEEDED(status))
            child.CopyTo(storage);
        return status;
    });
}

HRESULT SZipStorage::OpenStorage(LPCOLESTR name, IStorage* priority, DWORD mode, SNB exclude, DWORD reserved,
                                 IStorage** storage) noexcept {
    const bool reservedAreZero = !priority && !exclude && !reserved;
    if (const HRESULT status = checkArguments(name, storage, reservedAreZero); FAILED(status))
        return status;
    if (isReadOnly() && (mode & kAccess) == STGM_WRITE)
        return STG_E_ACCESSDENIED;
    return withStatus([&]() -> HRESULT {
        CString path = childPath(name);
        if (!archive_->hasDirectory(path))
            return STG_E_FILENOTFOUND;
        *storage = make<SZipStorage>(std::move(path), archive_, mode).Detach();
        return S_OK;
    });
}

HRESULT SZipStorage::Commit(DWORD /*flags*/) noexcept { return isReadOnly() ? S_OK : archive_->save(false); }

HRESULT SZipStorage::Revert() noexcept { return E_NOTIMPL; }

HRESULT SZipStorage::EnumElements(DWORD reserved1, void* reserved2, DWORD reserved3,
                                  IEnumSTATSTG** enumerator) noexcept {
    if (!enumerator)
        return STG_E_INVALIDPOINTER;
    *enumerator = nullptr;
    if (reserved1 || reserved2 || reserved3)
        return STG_E_INVALIDPARAMETER;
    return withStatus([&]() -> HRESULT {
        *enumerator = make<SZipEnumerator>(*archive_, path_).Detach();
        return S_OK;
    });
}

HRESULT SZipStorage::DestroyElement(LPCOLESTR name) noexcept {
    if (!isName(name))
        return STG_E_INVALIDNAME;
    return withStatus([&] { return archive_->remove(childPath(name)); });
}

HRESULT SZipStorage::RenameElement(LPCOLESTR oldName, LPCOLESTR newName) noexcept {
    if (!isName(oldName) || !isName(newName))
        return STG_E_INVALIDNAME;
    return withStatus([&] { return archive_->move(childPath(oldName), childPath(newName)); });
}

HRESULT SZipStorage::SetElementTimes(LPCOLESTR /*name*/, const FILETIME* /*created*/,
                                     const FILETIME* /*accessed*/, const FILETIME* /*modified*/) noexcept {
    return S_OK;
}

HRESULT SZipStorage::SetClass(REFCLSID clsid) noexcept {
    if (isReadOnly())
        return STG_E_ACCESSDENIED;
    clsid_ = clsid;
    // Documents are stored whether their class can be kept or not.
    withStatus([&]() -> HRESULT {
        const CString path = childPath(kClassStream);
        if (clsid_ == CLSID_NULL)
            return archive_->remove(path);
        ComPtr<::IStream> stream;
        const HRESULT status = archive_->createFile(&stream, path, false, true);
        return SUCCEEDED(status) ? stream->Write(&clsid_, sizeof clsid_, nullptr) : status;
    });
    return S_OK;
}

HRESULT SZipStorage::SetStateBits(DWORD bits, DWORD mask) noexcept {
    stateBits_ = (stateBits_ & ~mask) | bits;
    return S_OK;
}

void SZipStorage::loadClass() {
    if (clsid_ != CLSID_NULL || std::exchange(clsidLoaded_, true))
        return;
    ComPtr<::IStream> stream;
    CLSID clsid{};
    ULONG count = 0;
    archive_->extractFile(&stream, childPath(kClassStream));
    if (stream && SUCCEEDED(stream->Read(&clsid, sizeof clsid, &count)) && count == sizeof clsid)
        clsid_ = clsid;
}

HRESULT SZipStorage::Stat(STATSTG* info, DWORD flags) noexcept {
    if (!info)
        return STG_E_INVALIDPOINTER;
    *info = {};
    return withStatus([&]() -> HRESULT {
        loadClass();
        info->type = STGTY_STORAGE;
        info->grfMode = mode_;
        archive_->itemTimes(path_, info->ctime, info->mtime);
        info->atime = info->mtime;
        info->clsid = clsid_;
        info->grfStateBits = stateBits_;
        if (flags == STATFLAG_NONAME)
            return S_OK;
        const CString name = path_.IsEmpty() ? archive_->fileName() : archive_->nameOf(path_);
        info->pwcsName = Detail::duplicateText(StringLess::view(name));
        return info->pwcsName ? S_OK : STG_E_INSUFFICIENTMEMORY;
    });
}

} // namespace Vexel::Storage
