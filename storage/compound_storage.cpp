#include "storage/compound_storage.h"

#include "paths/file_handle.h"
#include "paths/status_guard.h"
#include "storage/compound_check.h"
#include "storage/platform_storage.h"

#include <vexel/diagnostics.h>
#include <vexel/temp_files.h>

#include <objbase.h>

using Vexel::Detail::CompoundAccess;

namespace {

/// Whether any root was ever opened on a copy; see VxCompoundStorage::close.
std::atomic<bool> copiesMade{false};

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
    constexpr DWORD shareBits = 0x70;
    const DWORD share = stgm & shareBits;
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
/// it goes another time: a handle that closes must not fail.
void clearCopies() {
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

void VxCompoundStorage::attach(IStorage* storage) {
    storage_ = storage;
    STATSTG info{};
    readOnly_ = storage && SUCCEEDED(storage->Stat(&info, STATFLAG_NONAME)) && isForReading(info.grfMode);
}

void VxCompoundStorage::close() {
    const bool mayBeCopy = copiesMade && !parent_ && keyed_ && readOnly_ && storage_;
    VxStorage::close();
    if (mayBeCopy)
        clearCopies();
}

bool VxCompoundStorage::retryAfterFailure(HRESULT status) {
    if (status == STG_E_INVALIDPARAMETER)
        return lowerOptionsVersion();
    return status != STG_E_INVALIDNAME && VxStorage::retryAfterFailure(status);
}

bool VxCompoundStorage::hasChild(const SharedPathName& name, StorageType type) {
    if (name.empty())
        return false;
    if (VxStorage::hasChild(name, type))
        return true;
    // A storage of its own on the same interface, so that trying leaves nothing in the child table.
    VxCompoundStorage trial(name_, parent_, root_);
    trial.storage_ = storage_;
    trial.keyed_ = keyed_;
    const HRESULT status = trial.tryElement(name, type);
    return SUCCEEDED(status) || cannotOpenNow(status);
}

HRESULT VxCompoundStorage::tryElement(const SharedPathName& name, StorageType type) {
    HRESULT status = STG_E_INVALIDPARAMETER; // what no type gets
    const bool either = type == StorageType{};
    if (either || type == StorageType::Storage)
        openChildStorage(name, true, false, &status);
    if (type == StorageType::Stream || (either && FAILED(status) && !cannotOpenNow(status)))
        openChildStream(name, true, false, &status);
    return status;
}

long VxCompoundStorage::createTemporary(bool /*flag*/) { return STG_E_INVALIDFUNCTION; }

long VxCompoundStorage::borrowPackedData(VxStorage* /*source*/) { return STG_E_INVALIDFUNCTION; }

long VxCompoundStorage::clear() { return STG_E_INVALIDFUNCTION; }

long VxCompoundStorage::createRoot(DWORD /*stgm*/, DWORD /*reserved*/) { return STG_E_INVALIDFUNCTION; }

bool VxCompoundStorage::getFileTimes(FILETIME* created, FILETIME* modified, FILETIME* accessed) {
    constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    const Vexel::Detail::FileHandle file(CreateFileW(root_->name().asString(), GENERIC_READ, shareAll,
                                                     nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    return file && GetFileTime(file.get(), created, accessed, modified);
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
    HRESULT status = openFile(name_, stgm);
    if (keyed_ && isHeldElsewhere(status) && isForReading(stgm) && name_.fileExists())
        status = openCopy(stgm, status);

    // Neither is worth a failure: they only save the system a scratch file or a snapshot.
    constexpr DWORD savings = STGM_NOSCRATCH | STGM_NOSNAPSHOT;
    if ((status == STG_E_ACCESSDENIED || isHeldElsewhere(status)) && (stgm & savings)) {
        // Without them a reader who lets others write is given a copy, which asks more of the file.
        const HRESULT sound = needsSnapshot(stgm & ~savings) ? check(name_, stgm & ~savings) : S_OK;
        status = SUCCEEDED(sound) ? openFile(name_, stgm & ~savings) : sound;
    }

    if (status == STG_E_INVALIDPARAMETER
            ? !lowerOptionsVersion()
            : status == STG_E_INVALIDNAME || !VxStorage::retryAfterFailure(status))
        return status;
    return openFile(name_, stgm);
}

/// Looks at a file before the system does, once for all attempts to open it.
HRESULT VxCompoundStorage::check(const SharedPathName& path, DWORD stgm) {
    const auto look = [&] { return Vexel::Detail::checkCompoundFile(path.asString(), accessOf(stgm)); };
    const HRESULT sound = look();
    return FAILED(sound) && VxStorage::retryAfterFailure(sound) ? look() : sound;
}

HRESULT VxCompoundStorage::openFile(const SharedPathName& path, DWORD stgm) {
    STGOPTIONS options{};
    options.usVersion = Vexel::Detail::compoundOptionsVersion();
    options.ulSectorSize = 4096;
    void** const result = reinterpret_cast<void**>(storage_.ReleaseAndGetAddressOf());
    return Vexel::Detail::StoragePlatform().openStorage(path.asString(), stgm, STGFMT_DOCFILE, 0, &options,
                                                        nullptr, IID_IStorage, result);
}

/// Another process is writing the file: a copy gives a reader who wants no writers a view that does not
/// change. `otherwise` is what a file that cannot be copied gets.
HRESULT VxCompoundStorage::openCopy(DWORD stgm, HRESULT otherwise) {
    auto& files = TempFileContainer::Instance();
    unsigned long error = 0;
    const SharedPathName copy = files.insertCopy(name_.asString(), L"vxsv",
                                                 name_.fileExtension(false, nullptr), &error, false, false);
    if (copy.empty())
        return otherwise;
    copiesMade = true;
    const HRESULT sound = check(copy, stgm);
    const HRESULT status = SUCCEEDED(sound) ? openFile(copy, stgm) : sound;
    files.erase(copy); // goes when it is closed
    return status;
}
