#pragma once

#include "storage/tree/storage_item.h"

/// Storages of a compound file, behind which the system's structured storage stands. A root is opened, or
/// wrapped around a caller's interface, but never created: new files are packages.
class VxCompoundStorage final : public VxStorage {
public:
    /// A closed root for the file at `path`; without a path for a caller's interface.
    explicit VxCompoundStorage(SharedPathName path) : VxCompoundStorage(std::move(path), nullptr, nullptr) {}

    /// Whether a caller's interface says that it is for reading only.
    static bool isOnlyForReading(IStorage* storage);
    /// Sets `storage` as the item's interface, which opens it.
    void attach(IStorage* storage, bool readOnly);

    StorageFormat format() const noexcept override { return StorageFormat::CompoundFile; }
    void close() override;
    /// STG_E_REVERTED after a stream was lost that was to be emptied: then nothing is committed until this is
    /// closed.
    long commit() override;
    bool retryAfterFailure(HRESULT status) override;
    bool hasChild(const SharedPathName& name, StorageType type) override;
    long createTemporary(bool rootFlag) override;
    long borrowPackedData(VxStorage* source) override;
    /// The times of the root's file.
    bool getFileTimes(FILETIME* created, FILETIME* modified, FILETIME* accessed) override;
    std::unique_ptr<VxStorage> newChildStorage(const SharedPathName& name) override;
    std::unique_ptr<VxStream> newChildStream(const SharedPathName& name) override;
    std::unique_ptr<VxStorageEnumerator> createEnumerator() override;
    long clear() override;
    long createRoot(DWORD stgm, DWORD reserved) override;
    long openRoot(DWORD stgm) override;
    /// For writing an element that has contents is made anew, see VxCompoundStream.
    HRESULT openStreamElement(const wchar_t* name, bool readOnly, ::IStream** stream) override;

private:
    VxCompoundStorage(SharedPathName name, VxStorage* parent, VxStorageItem* root)
        : VxStorage(std::move(name), parent, root) {}

    HRESULT check(const SharedPathName& path, DWORD stgm);
    HRESULT openFile(const SharedPathName& path, DWORD stgm);
    HRESULT openCopy(DWORD stgm, HRESULT otherwise);
    HRESULT tryElement(const SharedPathName& name, StorageType type);
    template <class Interface, class Call>
    HRESULT tryOpening(Call call);
    friend class VxCompoundStream;

    HRESULT makeAnew(const wchar_t* name, ::IStream** stream);

    bool hasLostStream_ = false; // since it was opened
};

/// A stream is never just emptied: some systems' commit takes an element that was in the file and is empty
/// since for unchanged, throws its entry away all the same, and leaves a file behind whose neighbouring
/// elements cannot be reached. One that is made anew is written.
class VxCompoundStream final : public VxStream {
public:
    VxCompoundStream(SharedPathName name, VxStorage* parent, VxStorageItem* root)
        : VxStream(std::move(name), parent, root) {}

    StorageFormat format() const noexcept override { return StorageFormat::CompoundFile; }

protected:
    HRESULT changeSize(unsigned long long size) override;
};

class VxCompoundStorageEnumerator final : public VxStorageEnumerator {
public:
    StorageFormat format() const noexcept override { return StorageFormat::CompoundFile; }
};

namespace Vexel::Detail {

/// The version of the options that root files are opened with: 2 until a system refuses it, then 1 for the
/// rest of the process.
std::atomic<USHORT>& compoundOptionsVersion() noexcept;

} // namespace Vexel::Detail
