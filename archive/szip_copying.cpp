// Copying and moving elements between storages.

#include "archive/item_paths.h"
#include "archive/szip_storage.h"
#include "base/com_pointer.h"
#include "base/status.h"
#include "base/status_guard.h"
#include "base/task_memory.h"

#include <vexel/diagnostics.h>

#include <algorithm>
#include <memory>
#include <vector>

namespace Vexel::Storage {

using Detail::outcomeOf;
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

bool isAtOrInside(const CString& directory, const CString& path) noexcept {
    return path == directory || isInside(StringLess::view(directory), StringLess::view(path));
}

/// As `outcomeOf`, for a call that opens or makes an element: success without one is a failure.
/// Packages answer so where there are data behind the end of the contents, other programs' storages as they
/// like.
template <class Element>
HRESULT elementOutcome(HRESULT status, const ComPtr<Element>& element) noexcept {
    return status == S_OK && !element ? STG_E_READFAULT : outcomeOf(status);
}

HRESULT copyBytes(::IStream* source, ::IStream* target) {
    constexpr ULARGE_INTEGER kAll{{0xFFFFFFFF, 0xFFFFFFFF}};
    return outcomeOf(source->CopyTo(target, kAll, nullptr, nullptr));
}

} // namespace

/// A copy of elements, of storages with all that is below them. What cannot be copied is left out and logged,
/// the rest is copied, and the first failure is the result. The depth of storages comes from the file, so
/// there is no recursion; and they stay open until all below them is copied, as the system's want it.
class SZipStorage::Copying {
public:
    /// Of the children, what to copy.
    struct Selection {
        bool storages = true;
        bool streams = true;
        SNB excluded = nullptr;
    };

    HRESULT copyTree(SZipStorage& source, IStorage* destination, const Selection& selection) {
        noteOutcome(enter(source, destination, selection));
        return finish();
    }
    HRESULT copyElement(SZipStorage& parent, const CString& name, IStorage* destination, LPCOLESTR newName) {
        if (!parent.archive_->hasDirectory(parent.childPath(name)))
            return copyStream(parent, name, destination, newName);
        noteOutcome(copyStorage(parent, name, destination, newName));
        return finish();
    }

private:
    struct Level {
        ComPtr<SZipStorage> source;
        ComPtr<IStorage> destination;
        ComPtr<IEnumSTATSTG> children; ///< null when they cannot be listed
        Selection selection;
        bool isForeign;         ///< the destination is no package
        HRESULT failure = S_OK; ///< the first of an element
    };

    static void log(const wchar_t* format, const SZipStorage& storage, const CString& path, HRESULT status) {
        VxLog_WriteW(VxLog_Error, format, storage.archive_->fileName().GetString(), path.GetString(),
                     static_cast<unsigned>(status));
    }
    void noteOutcome(HRESULT status);
    HRESULT finish();
    HRESULT enter(SZipStorage& source, IStorage* destination, const Selection& selection);
    HRESULT copyChild(const STATSTG& entry);
    HRESULT copyStorage(SZipStorage& parent, const CString& name, IStorage* destination, LPCOLESTR newName);
    HRESULT copyStream(SZipStorage& parent, const CString& name, IStorage* destination, LPCOLESTR newName);
    static bool addToArchive(const SZipStorage& parent, const CString& name, IStorage* destination,
                             LPCOLESTR newName, HRESULT& status);

    std::vector<Level> levels_;
    HRESULT first_ = S_OK; ///< failure
    HRESULT part_ = S_OK;  ///< that of a stream of which a part could not be taken away
};

// Between archives contents go as they are, packed if both read from one file. False where that is no way,
// and nothing was tried: a stream that is there is replaced by a copy of the bytes.
bool SZipStorage::Copying::addToArchive(const SZipStorage& parent, const CString& name, IStorage* destination,
                                        LPCOLESTR newName, HRESULT& status) {
    const ComPtr<SZipStorage> package = asPackage(destination);
    if (!package || package->archive_ == parent.archive_ || package->isReadOnly())
        return false;
    SZipArchive& archive = *package->archive_;
    if (!package->path_.IsEmpty() && !archive.hasDirectory(package->path_))
        return false;
    const CString path = parent.childPath(name);
    status = outcomeOf(archive.addItem(*parent.archive_, path, package->childPath(newName)));
    if (status == STG_E_FILEALREADYEXISTS)
        return false;
    if (FAILED(status)) // nothing stood in its way there, so it cannot be had here
        log(L"Failed to open stream \"%ls|%ls\" for copying: 0x%08x", parent, path, status);
    return true;
}

HRESULT SZipStorage::Copying::copyStream(SZipStorage& parent, const CString& name, IStorage* destination,
                                         LPCOLESTR newName) {
    HRESULT status = S_OK;
    if (addToArchive(parent, name, destination, newName, status))
        return status;
    const CString path = parent.childPath(name);
    ComPtr<::IStream> source;
    status = parent.OpenStream(name, nullptr, kReading, 0, &source);
    status = elementOutcome(status, source);
    if (FAILED(status)) {
        log(L"Failed to open stream \"%ls|%ls\" for copying: 0x%08x", parent, path, status);
        return status;
    }
    status = source->Seek({}, STREAM_SEEK_SET, nullptr);
    if (FAILED(status)) {
        log(L"Failed to rewind stream \"%ls|%ls\": 0x%08x", parent, path, status);
        return status;
    }
    ComPtr<::IStream> target;
    status = destination->CreateStream(newName, kMaking, 0, 0, &target);
    status = elementOutcome(status, target);
    if (FAILED(status)) {
        log(L"Failed to create destination stream for copying \"%ls|%ls\": 0x%08x", parent, path, status);
        return status;
    }
    status = copyBytes(source.Get(), target.Get());
    if (FAILED(status)) {
        log(L"Failed to copy stream \"%ls|%ls\": 0x%08x", parent, path, status);
        target.Reset();
        // A part is not taken for the whole, nor committed by who needs memory for another attempt.
        const HRESULT removed = destination->DestroyElement(newName);
        if (removed != S_OK && removed != STG_E_FILENOTFOUND)
            status = part_ = STG_E_WRITEFAULT;
    }
    return status;
}

HRESULT SZipStorage::Copying::copyStorage(SZipStorage& parent, const CString& name, IStorage* destination,
                                          LPCOLESTR newName) {
    const ComPtr<SZipStorage> source =
        Detail::make<SZipStorage>(parent.childPath(name), parent.archive_, kReading);
    if (!source->archive_->hasDirectory(source->path_)) {
        log(L"Failed to open storage \"%ls|%ls\" for copying: 0x%08x", parent, source->path_,
            STG_E_FILENOTFOUND);
        return STG_E_FILENOTFOUND;
    }
    ComPtr<IStorage> target;
    HRESULT status = destination->CreateStorage(newName, kMakingStorage, 0, 0, &target);
    if (status == STG_E_FILEALREADYEXISTS) // what is in it stays, as with the system's storages
        status = destination->OpenStorage(newName, nullptr, kMakingStorage, nullptr, 0, &target);
    status = elementOutcome(status, target);
    if (FAILED(status)) {
        log(L"Failed to create destination storage for copying \"%ls|%ls\": 0x%08x", parent, source->path_,
            status);
        return status;
    }
    return enter(*source.Get(), target.Get(), {});
}

HRESULT SZipStorage::Copying::enter(SZipStorage& source, IStorage* destination, const Selection& selection) {
    const ComPtr<SZipStorage> package = asPackage(destination);
    Level& level = levels_.emplace_back(Level{&source, destination, nullptr, selection, !package});
    if (package && package->archive_ == source.archive_ && isAtOrInside(source.path_, package->path_))
        return STG_E_ACCESSDENIED;
    STATSTG info{};
    if (const HRESULT status = source.Stat(&info, STATFLAG_NONAME); FAILED(status)) {
        log(L"Failed to get information about storage \"%ls|%ls\": 0x%08x", source, source.path_, status);
        return status;
    }
    if (info.clsid != CLSID_NULL)
        noteOutcome(destination->SetClass(info.clsid));
    destination->SetStateBits(info.grfStateBits, ~DWORD{0}); // which not everybody keeps
    return source.EnumElements(0, nullptr, 0, &level.children);
}

HRESULT SZipStorage::Copying::copyChild(const STATSTG& entry) {
    const Level& level = levels_.back();
    const CString name(entry.pwcsName);
    const bool isStorage = entry.type == STGTY_STORAGE;
    if (!(isStorage ? level.selection.storages : level.selection.streams) ||
        isListed(level.selection.excluded, name))
        return S_OK;
    // Elsewhere the class is no stream, but what SetClass sets.
    if (level.isForeign && !isStorage && name == CString(L".clsid"))
        return S_OK;
    return isStorage ? copyStorage(*level.source.Get(), name, level.destination.Get(), name)
                     : copyStream(*level.source.Get(), name, level.destination.Get(), name);
}

/// Takes down how an element of the storage that is being copied has fared.
void SZipStorage::Copying::noteOutcome(HRESULT status) {
    const HRESULT failure = outcomeOf(status);
    if (first_ == S_OK)
        first_ = failure;
    if (!levels_.empty() && levels_.back().failure == S_OK)
        levels_.back().failure = failure;
}

/// Copies what is in the storages that were entered, and returns the first failure of all.
HRESULT SZipStorage::Copying::finish() {
    while (!levels_.empty()) {
        const Level& level = levels_.back();
        STATSTG entry{};
        const HRESULT next = level.children ? level.children->Next(1, &entry, nullptr) : S_FALSE;
        const Detail::TaskText owner(entry.pwcsName);
        if (next == S_OK) {
            noteOutcome(withStatus([&] { return copyChild(entry); }));
            continue;
        }
        if (next != S_FALSE)
            noteOutcome(next); // there may have been more
        if (level.failure != S_OK && levels_.size() > 1)
            VxLog_WriteW(VxLog_Minor,
                         L"Swallowing error 0x%08x that occured during copying of storage \"%ls|%ls\"",
                         static_cast<unsigned>(level.failure), level.source->archive_->fileName().GetString(),
                         level.source->path_.GetString());
        levels_.pop_back();
    }
    return part_ != S_OK ? part_ : first_;
}

HRESULT SZipStorage::CopyTo(DWORD excludedCount, const IID* excludedIids, SNB excludedNames,
                            IStorage* destination) noexcept {
    if (!destination)
        return STG_E_INVALIDPOINTER;
    const auto isCopied = [&](const IID& iid) {
        return !excludedIids ||
               std::find(excludedIids, excludedIids + excludedCount, iid) == excludedIids + excludedCount;
    };
    return withStatus([&]() -> HRESULT {
        if (const ComPtr<SZipStorage> package = asPackage(destination); package && package->isReadOnly())
            return STG_E_ACCESSDENIED;
        return Copying().copyTree(
            *this, destination, {isCopied(__uuidof(IStorage)), isCopied(__uuidof(::IStream)), excludedNames});
    });
}

HRESULT SZipStorage::transfer(const CString& name, IStorage* destination, LPCOLESTR newName, bool moves) {
    const ComPtr<SZipStorage> package = asPackage(destination);
    if (package && package->archive_ == archive_) {
        if (package->path_ == path_ && name == CString(newName))
            return STG_E_ACCESSDENIED;
        if (moves)
            return archive_->move(childPath(name), package->childPath(newName));
        if (isAtOrInside(childPath(name), package->path_))
            return STG_E_ACCESSDENIED; // before a storage for it is made
    }
    if ((moves && archive_->readOnly()) || (package && package->isReadOnly()))
        return STG_E_ACCESSDENIED;
    const HRESULT status = Copying().copyElement(*this, name, destination, newName);
    return SUCCEEDED(status) && moves ? archive_->remove(childPath(name)) : status;
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
    return withStatus([&] {
        const bool moves = flags == STGMOVE_MOVE;
        return moves && destination == this ? archive_->move(childPath(name), childPath(newName))
                                            : transfer(name, destination, newName, moves);
    });
}

} // namespace Vexel::Storage
