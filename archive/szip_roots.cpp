// Packages as the storages that they begin with.

#include "archive/szip_storage.h"
#include "base/com_pointer.h"
#include "base/status_guard.h"

#include <cwchar>
#include <iterator>

namespace Vexel::Storage {

using Detail::withStatus;

namespace {

constexpr DWORD kAccess = STGM_WRITE | STGM_READWRITE;

/// What an archive without a path is called in messages.
CString displayName(const SZipArchive& archive) {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    wchar_t name[64];
    std::swprintf(name, std::size(name), L":szip%08lx%08lx@%p:", now.dwHighDateTime, now.dwLowDateTime,
                  static_cast<const void*>(&archive));
    return name;
}

bool isToBeRead(DWORD mode) noexcept {
    const bool isNew = (mode & STGM_CREATE) != 0 && (mode & STGM_CONVERT) == 0;
    return (mode & kAccess) != STGM_WRITE && !isNew;
}

bool isTolerable(HRESULT status, bool readOnly) noexcept {
    return SUCCEEDED(status) || (!readOnly && (status == STG_E_FILENOTFOUND || status == STG_E_PATHNOTFOUND));
}

} // namespace

HRESULT openPackage(const wchar_t* path, DWORD mode, bool silentDiscard, SZipStorage** root) noexcept {
    if (!root)
        return STG_E_INVALIDPOINTER;
    *root = nullptr;
    if (!path || !*path)
        return STG_E_INVALIDNAME;
    return withStatus([&]() -> HRESULT {
        const bool readOnly = (mode & kAccess) == STGM_READ;
        auto archive = std::make_shared<SZipArchive>(path, readOnly, silentDiscard);
        if (isToBeRead(mode)) {
            HRESULT status = archive->reload();
            if (SUCCEEDED(status))
                status = archive->openingStatus();
            if (!isTolerable(status, readOnly))
                return status;
            if (!readOnly && archive->readOnly()) // see SZipArchive::reload
                return STG_E_ACCESSDENIED;
        }
        *root = Detail::make<SZipStorage>(CString(), std::move(archive), mode).Detach();
        return S_OK;
    });
}

HRESULT openPackage(::IStream* stream, SZipStorage** root) noexcept {
    if (root)
        *root = nullptr;
    if (!root || !stream)
        return STG_E_INVALIDPOINTER;
    STATSTG info{};
    if (const HRESULT status = stream->Stat(&info, STATFLAG_NONAME); FAILED(status))
        return status;
    if ((info.grfMode & kAccess) == STGM_WRITE)
        return STG_E_ACCESSDENIED;
    return withStatus([&]() -> HRESULT {
        auto archive = std::make_shared<SZipArchive>(stream);
        archive->setFileName(displayName(*archive));
        if (const HRESULT status = archive->reload(); FAILED(status))
            return status;
        *root = Detail::make<SZipStorage>(CString(), std::move(archive), DWORD{STGM_READ}).Detach();
        return S_OK;
    });
}

HRESULT createMemoryPackage(SZipStorage** root) noexcept {
    if (!root)
        return STG_E_INVALIDPOINTER;
    *root = nullptr;
    return withStatus([&]() -> HRESULT {
        auto archive = std::make_shared<SZipArchive>(std::wstring_view(), false, true);
        archive->setFileName(displayName(*archive));
        *root = Detail::make<SZipStorage>(CString(), std::move(archive), DWORD{STGM_READWRITE}).Detach();
        return S_OK;
    });
}

} // namespace Vexel::Storage
