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
    /// Makes empty streams anew before: some systems' commit would leave a damaged file behind if they had
    /// contents before. Interfaces of such streams that somebody holds are reverted.
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

private:
    VxCompoundStorage(SharedPathName name, VxStorage* parent, VxStorageItem* root)
        : VxStorage(std::move(name), parent, root) {}

    HRESULT check(const SharedPathName& path, DWORD stgm);
    HRESULT openFile(const SharedPathName& path, DWORD stgm);
    HRESULT openCopy(DWORD stgm, HRESULT otherwise);
    HRESULT tryElement(const SharedPathName& name, StorageType type);
    template <class Interface, class Call>
    HRESULT tryOpening(Call call);
    bool hasOpenEmptyStream();
    HRESULT remakeEmptyStreams();
    HRESULT remake(const SharedPathName& name);
    HRESULT makeEmptyStream(const SharedPathName& name, ::IStream** made);

    friend class VxCompoundStream;
    bool mayHaveEmptied_ = false; // a stream that has been closed since the last commit
};

class VxCompoundStream final : public VxStream {
public:
    VxCompoundStream(SharedPathName name, VxStorage* parent, VxStorageItem* root)
        : VxStream(std::move(name), parent, root) {}

    StorageFormat format() const noexcept override { return StorageFormat::CompoundFile; }
    void close() override;

private:
    friend class VxCompoundStorage;

    bool mayBeEmptied() const;
    HRESULT remake();
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
