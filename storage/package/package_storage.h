#pragma once

#include "storage/tree/storage_item.h"

namespace Vexel::Storage {
class SZipStorage;
} // namespace Vexel::Storage

/// Storages of a package, behind which an archive stands as COM storages and streams (SZipStorage). For what
/// those interfaces cannot express, the archive itself is asked, by the element's path in it.
class VxNativePackage final : public VxStorage {
public:
    /// A closed root for the file at `path`, which need not be there; without a path for a temporary root.
    explicit VxNativePackage(SharedPathName path) : VxNativePackage(std::move(path), nullptr, nullptr) {}
    VxNativePackage(const VxNativePackage&) = delete;
    VxNativePackage& operator=(const VxNativePackage&) = delete;
    /// A temporary root's file goes with it.
    ~VxNativePackage() override;

    StorageFormat format() const noexcept override { return StorageFormat::Package; }
    /// Also gives back the memory of contents that nobody holds, unless another thread is busy with the
    /// archive.
    bool deleteUnusedObjects(bool keepObjects) override;
    /// A temporary root that is not used any more gives its file back, too.
    void close() override;
    bool hasChild(const SharedPathName& name, StorageType type) override;
    /// In a temporary file if the container says so, else in memory; the root is named after it.
    long createTemporary(bool rootFlag) override;
    /// 1 when the packed data can be had from then on, 0 when not. STG_E_INVALIDPARAMETER: the source is no
    /// open package.
    long borrowPackedData(VxStorage* source) override;
    /// The times of the root's file as it was when it was read last.
    bool getFileTimes(FILETIME* created, FILETIME* modified, FILETIME* accessed) override;
    std::unique_ptr<VxStorage> newChildStorage(const SharedPathName& name) override;
    std::unique_ptr<VxStream> newChildStream(const SharedPathName& name) override;
    std::unique_ptr<VxStorageEnumerator> createEnumerator() override;
    long clear() override;
    /// For writing what is in the file is not unpacked, so that opening takes no time for a large stream, and
    /// one that cannot be unpacked can be replaced.
    HRESULT openStreamElement(const wchar_t* name, bool readOnly, ::IStream** stream) override;
    long createRoot(DWORD stgm, DWORD reserved) override;
    long openRoot(DWORD stgm) override;

private:
    VxNativePackage(SharedPathName name, VxStorage* parent, VxStorageItem* root)
        : VxStorage(std::move(name), parent, root) {}

    /// The interface; null while the item is closed.
    Vexel::Storage::SZipStorage* package() const noexcept;
    long makeTemporary();
    long openArchive(DWORD stgm, bool silentDiscard);
    void flushArchive();
    void giveFileBack();
};

class VxNativePart final : public VxStream {
public:
    VxNativePart(SharedPathName name, VxStorage* parent, VxStorageItem* root)
        : VxStream(std::move(name), parent, root) {}

    StorageFormat format() const noexcept override { return StorageFormat::Package; }
    StreamCompression compression() const noexcept override { return StreamCompression::Packed; }
};

class VxNativeStorageEnumerator final : public VxStorageEnumerator {
public:
    StorageFormat format() const noexcept override { return StorageFormat::Package; }
};
