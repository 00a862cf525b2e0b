// Copying and moving elements between storages.

#include "archive/item_paths.h"
#include "archive/szip_storage.h"
#include "archive/task_memory.h"
#include "paths/status_guard.h"

#include <vexel/diagnostics.h>

#include <algorithm>
#include <memory>

namespace Vexel::Storage {

using Detail::withStatus;
using Microsoft::WRL::ComPtr;

namespace {

constexpr DWORD kReading = STGM_READ | STGM_SHARE_EXCLUSIVE;
constexpr DWORD kMaking = STGM_CREATE | STGM_WRITE | STGM_SHARE_EXCLUSIVE;
constexpr DWORD kMakingStorage = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

/// Null unless the storage is one of ours.
ComPtr<SZipStorage> asPackage(IStorage* storage) {
    ComPtr<SZipStorage> package;
    storage->QueryInterface(IID_SZipStorage, reinterpret_cast<void**>(package.GetAddressOf()));
    return package;
}

bool isListed(SNB names, const CString& name) noexcept {
    for (; names && *names; ++names)
        if (name.Compare(*names) == 0)
            return true;
    return false;
}

struct FreeTaskMemory {
    void operator()(void* memory) const noexcept { CoTaskMemFree(memory); }
};

HRESULT copyBytes(::IStream* source, ::IStream* target) {
    constexpr ULARGE_INTEGER all{{0xFFFFFFFF, 0xFFFFFFFF}};
    return source->CopyTo(target, all, nullptr, nullptr);
}

} // namespace

void SZipStorage::logCopying(const wchar_t* format, const CString& name, HRESULT status) const {
    VxLog_WriteW(VxLog_Error, format, archive_->fileName().GetString(), childPath(name).GetString(),
                 static_cast<unsigned>(status));
}

HRESULT SZipStorage::copyStream(const CString& name, IStorage* destination, LPCOLESTR newName) {
    ComPtr<::IStream> source;
    HRESULT status = OpenStream(name, nullptr, kReading, 0, &source);
    if (SUCCEEDED(status) && !source)
        status = STG_E_READFAULT; // data behind the end: the archive's way to say so
    if (FAILED(status)) {
        logCopying(L"Failed to open stream \"%ls|%ls\" for copying: 0x%08x", name, status);
        return status;
    }
    ComPtr<::IStream> target;
    status = destination->CreateStream(newName, kMaking, 0, 0, &target);
    if (FAILED(status)) {
        logCopying(L"Failed to create destination stream for copying \"%ls|%ls\": 0x%08x", name, status);
        return status;
    }
    status = source->Seek({}, STREAM_SEEK_SET, nullptr);
    if (FAILED(status)) {
        logCopying(L"Failed to rewind stream \"%ls|%ls\": 0x%08x", name, status);
        return status;
    }
    status = copyBytes(source.Get(), target.Get());
    if (FAILED(status))
        logCopying(L"Failed to copy stream \"%ls|%ls\": 0x%08x", name, status);
    return status;
}

HRESULT SZipStorage::copyStorage(const CString& name, IStorage* destination, LPCOLESTR newName) {
    ComPtr<IStorage> source;
    HRESULT status = OpenStorage(name, nullptr, kReading, nullptr, 0, &source);
    if (FAILED(status)) {
        logCopying(L"Failed to open storage \"%ls|%ls\" for copying: 0x%08x", name, status);
        return status;
    }
    ComPtr<IStorage> target;
    status = destination->CreateStorage(newName, kMakingStorage, 0, 0, &target);
    if (status == STG_E_FILEALREADYEXISTS) // what is in it stays, as with the system's storages
        status = destination->OpenStorage(newName, nullptr, kMakingStorage, nullptr, 0, &target);
    if (FAILED(status)) {
        logCopying(L"Failed to create destination storage for copying \"%ls|%ls\": 0x%08x", name, status);
        return status;
    }
    status = source->CopyTo(0, nullptr, nullptr, target.Get());
    if (FAILED(status))
        VxLog_WriteW(
            VxLog_Minor, L"Swallowing error 0x%08x that occured during copying of storage \"%ls|%ls\"",
            static_cast<unsigned>(status), archive_->fileName().GetString(), childPath(name).GetString());
    return S_OK;
}

HRESULT SZipStorage::copyChildren(bool withStorages, bool withStreams, SNB excludedNames,
                                  IStorage* destination) {
    ComPtr<IEnumSTATSTG> children;
    HRESULT status = EnumElements(0, nullptr, 0, &children);
    const bool isForeign = !asPackage(destination);
    for (STATSTG entry{}; SUCCEEDED(status) && children->Next(1, &entry, nullptr) == S_OK; entry = {}) {
        const std::unique_ptr<wchar_t, FreeTaskMemory> owner(entry.pwcsName);
        const CString name(entry.pwcsName);
        const bool isStorage = entry.type == STGTY_STORAGE;
        if (!(isStorage ? withStorages : withStreams) || isListed(excludedNames, name))
            continue;
        // Elsewhere the class is no stream, but what SetClass sets.
        if (isForeign && !isStorage && name == CString(L".clsid"))
            continue;
        status = isStorage ? copyStorage(name, destination, name) : copyStream(name, destination, name);
    }
    return status;
}

HRESULT SZipStorage::CopyTo(DWORD excludedCount, const IID* excludedIids, SNB excludedNames,
                            IStorage* destination) noexcept {
    if (!destination)
        return STG_E_INVALIDPOINTER;
    const auto isExcluded = [&](const IID& iid) {
        return excludedIids &&
               std::find(excludedIids, excludedIids + excludedCount, iid) != excludedIids + excludedCount;
    };
    return withStatus([&]() -> HRESULT {
        const ComPtr<SZipStorage> package = asPackage(destination);
        if (package && package->archive_ == archive_ &&
            (package->path_ == path_ || isInside(StringLess::view(path_), StringLess::view(package->path_))))
            return STG_E_ACCESSDENIED;
        STATSTG info{};
        if (const HRESULT status = Stat(&info, STATFLAG_NONAME); FAILED(status)) {
            VxLog_WriteW(VxLog_Error, L"Failed to get information about storage \"%ls|%ls\": 0x%08x",
                         archive_->fileName().GetString(), path_.GetString(), static_cast<unsigned>(status));
            return status;
        }
        if (info.clsid != CLSID_NULL)
            destination->SetClass(info.clsid);
        destination->SetStateBits(info.grfStateBits, ~DWORD{0});
        return copyChildren(!isExcluded(__uuidof(IStorage)), !isExcluded(__uuidof(::IStream)), excludedNames,
                            destination);
    });
}

HRESULT SZipStorage::copyElement(LPCOLESTR name, IStorage* destination, LPCOLESTR newName) {
    return archive_->hasDirectory(childPath(name)) ? copyStorage(name, destination, newName)
                                                   : copyStream(name, destination, newName);
}

HRESULT SZipStorage::MoveElementTo(LPCOLESTR name, IStorage* destination, LPCOLESTR newName,
                                   DWORD flags) noexcept {
    if (!name || !*name || !newName || !*newName)
        return STG_E_INVALIDNAME;
    if (!destination)
        return STG_E_INVALIDPOINTER;
    if (flags == STGMOVE_SHALLOWCOPY)
        return E_NOTIMPL;
    if (flags > STGMOVE_SHALLOWCOPY)
        return STG_E_INVALIDFLAG;
    return withStatus([&]() -> HRESULT {
        const bool moves = flags == STGMOVE_MOVE;
        if (moves && destination == this)
            return archive_->move(childPath(name), childPath(newName));
        const ComPtr<SZipStorage> package = asPackage(destination);
        if (package && package->archive_ == archive_) {
            if (package->path_ == path_ && CString(name) == CString(newName))
                return STG_E_ACCESSDENIED;
            if (moves)
                return archive_->move(childPath(name), package->childPath(newName));
        }
        if (moves && archive_->readOnly())
            return STG_E_ACCESSDENIED;
        const HRESULT status = copyElement(name, destination, newName);
        return SUCCEEDED(status) && moves ? archive_->remove(childPath(name)) : status;
    });
}

} // namespace Vexel::Storage
