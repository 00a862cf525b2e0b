// What a package needs beyond what SZipStorage offers as a COM storage: temporary roots, whose file goes with
// them, borrowing packed data, removing all children at once, and giving memory back.

#include "storage/package/package_storage.h"

#include "archive/szip_storage.h"
#include "base/status_guard.h"

#include <vexel/archive.h>
#include <vexel/temp_files.h>

using Vexel::Detail::TreeLock;
using Vexel::Detail::TreePairLock;
using Vexel::Storage::SZipArchive;
using Vexel::Storage::SZipArchiveItem;
using Vexel::Storage::SZipStorage;

namespace {

constexpr DWORD kTemporaryFlags = STGM_CREATE | STGM_SHARE_EXCLUSIVE | STGM_READWRITE;

} // namespace

SZipStorage* VxNativePackage::package() const noexcept { return static_cast<SZipStorage*>(storage_.Get()); }

VxNativePackage::~VxNativePackage() {
    storage_.Reset();
    giveFileBack();
}

// Memory that is missing leaves the file to the end of the process.
void VxNativePackage::giveFileBack() {
    if (temporary_)
        Vexel::Detail::withStatus([this] { return TempFileContainer::Instance().erase(name_), S_OK; });
}

// Never waits: the archive may be busy for as long as a save through a caller's interface takes.
void VxNativePackage::flushArchive() {
    if (storage_)
        package()->archive()->flushIfIdle(package()->path());
}

bool VxNativePackage::deleteUnusedObjects(bool keepObjects) {
    const TreeLock lock(*this);
    const bool freed = VxStorage::deleteUnusedObjects(keepObjects);
    flushArchive();
    return freed;
}

void VxNativePackage::close() {
    const TreeLock lock(*this);
    VxStorage::close();
    if (!referenced())
        giveFileBack();
}

bool VxNativePackage::hasChild(const SharedPathName& name, StorageType type) {
    const TreeLock lock(*this);
    if (name.empty())
        return false;
    if (VxStorage::hasChild(name, type))
        return true;
    if (FAILED(ensureOpen()))
        return false;
    const SZipArchiveItem* const item = package()->archive()->item(package()->childPath(name.asString()));
    if (!item)
        return false;
    return type == StorageType{} ||
           type == (item->isDirectory() ? StorageType::Storage : StorageType::Stream);
}

long VxNativePackage::createTemporary(bool rootFlag) {
    close();
    const long status = makeTemporary();
    if (FAILED(status)) {
        close();
        return status;
    }
    readOnly_ = false;
    temporary_ = true;
    rootFlag_ = rootFlag;
    return status;
}

long VxNativePackage::makeTemporary() {
    if (keeper() && keeper()->isMakingFiles()) {
        name_ = TempFileContainer::Instance().insert(nullptr, L"grb", false, false);
        temporary_ = true; // the file is to be given back even if it cannot be made
        return openArchive(kTemporaryFlags, true);
    }
    Microsoft::WRL::ComPtr<SZipStorage> made;
    const HRESULT status = Vexel::Storage::createMemoryPackage(made.GetAddressOf());
    if (FAILED(status))
        return status;
    name_ = SharedPathName(made->archive()->fileName(), true, false);
    storage_ = made;
    return status;
}

long VxNativePackage::borrowPackedData(VxStorage* source) {
    if (!source || source->format() != StorageFormat::Package)
        return STG_E_INVALIDPARAMETER;
    const TreePairLock locks(*this, *source);
    HRESULT status = source->isOpen() ? ensureOpen() : STG_E_INVALIDPARAMETER;
    if (SUCCEEDED(status) && !source->isOpen())
        status = STG_E_INVALIDPARAMETER; // closed by the clean-up that the opening needed
    if (FAILED(status))
        return status;
    const SZipArchive& from = *static_cast<VxNativePackage*>(source)->package()->archive();
    return SUCCEEDED(package()->archive()->borrowPackedData(from)) ? 1 : 0;
}

bool VxNativePackage::getFileTimes(FILETIME* created, FILETIME* modified, FILETIME* accessed) {
    const TreeLock lock(*this);
    return storage_ && package()->archive()->fileTimes(created, modified, accessed);
}

std::unique_ptr<VxStorage> VxNativePackage::newChildStorage(const SharedPathName& name) {
    return std::unique_ptr<VxStorage>(new VxNativePackage(name, this, root_));
}

std::unique_ptr<VxStream> VxNativePackage::newChildStream(const SharedPathName& name) {
    return std::make_unique<VxNativePart>(name, this, root_);
}

std::unique_ptr<VxStorageEnumerator> VxNativePackage::createEnumerator() {
    return std::make_unique<VxNativeStorageEnumerator>();
}

HRESULT VxNativePackage::openStreamElement(const wchar_t* name, bool readOnly, ::IStream** stream) {
    return readOnly ? VxStorage::openStreamElement(name, readOnly, stream)
                    : package()->openEmptied(name, stream);
}

long VxNativePackage::clear() {
    const TreeLock lock(*this);
    deleteUnusedObjects(false);
    if (readOnly_)
        return STG_E_ACCESSDENIED;
    if (const HRESULT status = open(false, rootFlag_); FAILED(status))
        return status;
    const HRESULT status = callTwiceIfExhausted(
        [this] { return storage_ ? package()->archive()->clear(package()->path()) : STG_E_INVALIDFUNCTION; });
    if (FAILED(status))
        return status;
    // What handles are on has gone. Left open, it would go on taking writes, and lose them.
    for (const auto& [name, child] : children_)
        child->close();
    return status;
}

long VxNativePackage::createRoot(DWORD stgm, DWORD reserved) { return openArchive(stgm, reserved != 0); }

long VxNativePackage::openRoot(DWORD stgm) { return openArchive(stgm, false); }

long VxNativePackage::openArchive(DWORD stgm, bool silentDiscard) {
    return callTwice([&]() -> HRESULT {
        if (storage_)
            return kOpenedMeanwhile;
        Microsoft::WRL::ComPtr<SZipStorage> opened;
        const HRESULT status =
            Vexel::Storage::openPackage(name_.asString(), stgm, silentDiscard, opened.GetAddressOf());
        storage_ = opened;
        return status;
    });
}
