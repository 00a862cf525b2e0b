// The system's storage behind the items: which flags a file is opened with, what is tried again when it
// refuses, and the copy that readers are given while another process is writing.

#include "storage/compound/compound_storage.h"

#include "base/handles.h"
#include "base/platform.h"
#include "base/process_end.h"
#include "base/status.h"
#include "base/status_guard.h"
#include "storage/compound/compound_check.h"

#include <vexel/diagnostics.h>
#include <vexel/temp_files.h>

#include <objbase.h>

#include <utility>

using Microsoft::WRL::ComPtr;
using Vexel::Detail::CompoundAccess;
using Vexel::Detail::TreeLock;

namespace {

bool isHeldElsewhere(HRESULT status) {
    return status == STG_E_SHAREVIOLATION || status == STG_E_LOCKVIOLATION;
}

/// Whether an element with which this happened is there all the same.
bool cannotOpenNow(HRESULT status) {
    return status == STG_E_TOOMANYOPENFILES || status == STG_E_ACCESSDENIED || status == STG_E_SHAREVIOLATION;
}

bool isForReading(DWORD stgm) { return (stgm & (STGM_WRITE | STGM_READWRITE)) == STGM_READ; }

/// Whether the system answers with a copy of the file as it is now, for others may write on.
bool needsSnapshot(DWORD stgm) {
    constexpr DWORD kShareBits = 0x70;
    const DWORD share = stgm & kShareBits;
    return (stgm & STGM_TRANSACTED) && !(stgm & STGM_NOSNAPSHOT) && share != STGM_SHARE_DENY_WRITE &&
           share != STGM_SHARE_EXCLUSIVE;
}

CompoundAccess accessOf(DWORD stgm) {
    if (!isForReading(stgm))
        return CompoundAccess::Write;
    return needsSnapshot(stgm) ? CompoundAccess::Snapshot : CompoundAccess::Read;
}

/// False when the options are at the lower version already. Two threads may both lower them.
bool lowerOptionsVersion() {
    auto& version = Vexel::Detail::compoundOptionsVersion();
    if (version == 1)
        return false;
    version = 1;
    return true;
}

/// A copy has been up for deletion since it was opened; once it is closed it can go. Where memory is missing
/// it goes another time: a handle that closes must not fail. The end of the process deletes all of them.
void clearCopies() {
    if (Vexel::Detail::isProcessEnding())
        return;
    Vexel::Detail::withStatus([] {
        TempFileContainer::Instance().clear();
        return S_OK;
    });
}

} // namespace

std::atomic<USHORT>& Vexel::Detail::compoundOptionsVersion() noexcept {
    static std::atomic<USHORT> version{2};
    return version;
}

bool VxCompoundStorage::isOnlyForReading(IStorage* storage) {
    STATSTG info{};
    return storage->Stat(&info, STATFLAG_NONAME) == S_OK && isForReading(info.grfMode);
}

void VxCompoundStorage::attach(IStorage* storage, bool readOnly) {
    const TreeLock lock(*this);
    storage_ = storage;
    readOnly_ = readOnly;
}

void VxCompoundStorage::close() {
    const TreeLock lock(*this);
    VxStorage::close();
    if (!name_.empty()) // a caller's interface keeps what nobody committed, elsewhere nothing of it is left
        lost_.clear();
    if (std::exchange(temporary_, false))
        clearCopies();
}

bool VxCompoundStorage::retryAfterFailure(HRESULT status) {
    if (status == STG_E_INVALIDPARAMETER)
        return lowerOptionsVersion();
    return status != STG_E_INVALIDNAME && VxStorage::retryAfterFailure(status);
}

bool VxCompoundStorage::hasChild(const SharedPathName& name, StorageType type) {
    const TreeLock lock(*this);
    if (name.empty())
        return false;
    if (VxStorage::hasChild(name, type))
        return true;
    const HRESULT status = tryElement(name, type);
    return SUCCEEDED(status) || cannotOpenNow(status);
}

HRESULT VxCompoundStorage::tryElement(const SharedPathName& name, StorageType type) {
    HRESULT status = STG_E_INVALIDPARAMETER; // what no type gets
    const bool either = type == StorageType{};
    if (either || type == StorageType::Storage)
        status = tryOpening<IStorage>([&](IStorage** made) {
            constexpr DWORD kStgm = STGM_TRANSACTED | STGM_SHARE_EXCLUSIVE | STGM_READ;
            return storage_->OpenStorage(name.asString(), nullptr, kStgm, nullptr, 0, made);
        });
    if (type == StorageType::Stream || (either && FAILED(status) && !cannotOpenNow(status)))
        status = tryOpening<::IStream>([&](::IStream** made) {
            return storage_->OpenStream(name.asString(), nullptr, STGM_SHARE_EXCLUSIVE | STGM_READ, 0, made);
        });
    return status;
}

/// Opens an element past the child table, and closes it before anybody else gets here.
template <class Interface, class Call>
HRESULT VxCompoundStorage::tryOpening(Call call) {
    const HRESULT status = ensureOpen();
    return FAILED(status) ? status : callTwice([&]() -> HRESULT {
        Microsoft::WRL::ComPtr<Interface> opened;
        return storage_ ? Vexel::Detail::fetch(opened, call) : STG_E_INVALIDFUNCTION;
    });
}

long VxCompoundStorage::createTemporary(bool /*rootFlag*/) { return STG_E_INVALIDFUNCTION; }

long VxCompoundStorage::borrowPackedData(VxStorage* /*source*/) { return STG_E_INVALIDFUNCTION; }

long VxCompoundStorage::clear() { return STG_E_INVALIDFUNCTION; }

long VxCompoundStorage::createRoot(DWORD /*stgm*/, DWORD /*reserved*/) { return STG_E_INVALIDFUNCTION; }

bool VxCompoundStorage::getFileTimes(FILETIME* created, FILETIME* modified, FILETIME* accessed) {
    constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    Vexel::Detail::FileHandle file;
    callTwiceIfExhausted([&] {
        file = Vexel::Detail::FileHandle(
            Vexel::Detail::platform().createFile(root_->name().asString(), GENERIC_READ, kShareAll, nullptr,
                                                 OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        return file ? S_OK : Vexel::Detail::storageStatus(GetLastError());
    });
    return file && Vexel::Detail::platform().getFileTime(file.get(), created, accessed, modified);
}

std::unique_ptr<VxStorage> VxCompoundStorage::newChildStorage(const SharedPathName& name) {
    return std::unique_ptr<VxStorage>(new VxCompoundStorage(name, this, root_));
}

std::unique_ptr<VxStream> VxCompoundStorage::newChildStream(const SharedPathName& name) {
    return std::make_unique<VxCompoundStream>(name, this, root_);
}

std::unique_ptr<VxStorageEnumerator> VxCompoundStorage::createEnumerator() {
    return std::make_unique<VxCompoundStorageEnumerator>();
}

long VxCompoundStorage::openRoot(DWORD stgm) {
    if (const HRESULT sound = check(name_, stgm); FAILED(sound))
        return sound;
    if (storage_)
        return kOpenedMeanwhile;
    HRESULT status = openFile(name_, stgm);
    if (keyed_ && isHeldElsewhere(status) && isForReading(stgm) && name_.fileExists())
        status = openCopy(stgm, status);

    // Neither is worth a failure: they only save the system a scratch file or a snapshot.
    constexpr DWORD kSavings = STGM_NOSCRATCH | STGM_NOSNAPSHOT;
    if ((status == STG_E_ACCESSDENIED || isHeldElsewhere(status)) && (stgm & kSavings)) {
        // Without them a reader who lets others write is given a copy, which asks more of the file.
        const HRESULT sound = needsSnapshot(stgm & ~kSavings) ? check(name_, stgm & ~kSavings) : S_OK;
        if (storage_)
            return kOpenedMeanwhile;
        status = SUCCEEDED(sound) ? openFile(name_, stgm & ~kSavings) : sound;
    }

    if (!retryAfterFailure(status))
        return status;
    return storage_ ? kOpenedMeanwhile : openFile(name_, stgm);
}

/// Looks at a file before the system does, once for all attempts to open it.
HRESULT VxCompoundStorage::check(const SharedPathName& path, DWORD stgm) {
    const auto look = [&] {
        return Vexel::Detail::checkCompoundFile(path.asString(), accessOf(stgm)).status;
    };
    const HRESULT sound = look();
    return FAILED(sound) && VxStorage::retryAfterFailure(sound) ? look() : sound;
}

HRESULT VxCompoundStorage::openFile(const SharedPathName& path, DWORD stgm) {
    STGOPTIONS options{};
    options.usVersion = Vexel::Detail::compoundOptionsVersion();
    options.ulSectorSize = 4096;
    return Vexel::Detail::fetch(storage_, [&](IStorage** made) {
        return Vexel::Detail::platform().openStorage(path.asString(), stgm, STGFMT_DOCFILE, 0, &options,
                                                     nullptr, IID_IStorage, reinterpret_cast<void**>(made));
    });
}

/// Another process is writing the file: a copy gives a reader who wants no writers a view that does not
/// change. `otherwise` is what a file that cannot be copied gets.
HRESULT VxCompoundStorage::openCopy(DWORD stgm, HRESULT otherwise) {
    auto& files = TempFileContainer::Instance();
    SharedPathName copy;
    callTwiceIfExhausted([&] {
        unsigned long error = 0;
        copy = files.insertCopy(name_.asString(), L"vxsv", name_.fileExtension(false, nullptr), &error, false,
                                false);
        return copy.empty() ? Vexel::Detail::storageStatus(error) : S_OK;
    });
    if (copy.empty())
        return otherwise;
    const HRESULT sound = check(copy, stgm);
    if (storage_) {
        files.erase(copy);
        return kOpenedMeanwhile;
    }
    temporary_ = true;
    const HRESULT status = SUCCEEDED(sound) ? openFile(copy, stgm) : sound;
    files.erase(copy); // goes when it is closed
    return status;
}
