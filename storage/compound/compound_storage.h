#pragma once

#include "storage/compound/lost_elements.h"
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
    HRESULT openStreamElement(const wchar_t* name, bool readOnly, ::IStream** stream) override;
    HRESULT openStorageElement(const wchar_t* name, bool readOnly, IStorage** storage) override;
    HRESULT createStreamElement(const wchar_t* name, ::IStream** stream) override;
    HRESULT createStorageElement(const wchar_t* name, bool replace, IStorage** storage) override;
    HRESULT destroyElement(const wchar_t* name) override;
    /// STG_E_REVERTED while something is lost, see LostElements.
    HRESULT commitElement() override;
    bool hasLostElements() const override;

private:
    VxCompoundStorage(SharedPathName name, VxStorage* parent, VxStorageItem* root)
        : VxStorage(std::move(name), parent, root) {}

    HRESULT check(const SharedPathName& path, DWORD stgm);
    HRESULT openFile(const SharedPathName& path, DWORD stgm);
    HRESULT openCopy(DWORD stgm, HRESULT otherwise);
    HRESULT tryElement(const SharedPathName& name, StorageType type);
    template <class Interface, class Call>
    HRESULT tryOpening(Call call);

    // Elements, in compound_elements.cpp.

    friend class VxCompoundStream;

    /// What there is under a name, as far as it takes to tell afterwards whether that is still there.
    struct Found {
        HRESULT status = STG_E_FILENOTFOUND;
        unsigned long long size = 0; ///< a stream's
        bool isStorage = false;

        bool isThere() const noexcept { return status != STG_E_FILENOTFOUND && status != STG_E_INVALIDNAME; }
        bool operator==(const Found&) const = default;
    };
    Found look(const wchar_t* name);
    bool isStillThere(const wchar_t* name, const Found& old);
    /// Takes down whether `old` is lost after a call that takes it away came to `status`, which it returns.
    HRESULT settle(const wchar_t* name, const Found& old, HRESULT status);
    template <class Interface, class Make>
    HRESULT replaceElement(const wchar_t* name, const Found& old, Interface** made, Make make);
    HRESULT replaceStream(const wchar_t* name, const Found& old, ::IStream** stream);

    Vexel::Detail::LostElements lost_;
};

/// A stream is never just emptied, but made anew (compound_elements.cpp says why): when its item empties it,
/// and where its interface was used for that, before its storage is committed or its item closes.
class VxCompoundStream final : public VxStream {
public:
    VxCompoundStream(SharedPathName name, VxStorage* parent, VxStorageItem* root)
        : VxStream(std::move(name), parent, root) {}

    StorageFormat format() const noexcept override { return StorageFormat::CompoundFile; }
    void close() override;
    /// To be called before each commit of the storage: makes the element anew if its interface has emptied
    /// it.
    HRESULT prepareCommit();

protected:
    HRESULT changeSize(unsigned long long size) override;

private:
    VxCompoundStorage& storage() const noexcept;
    HRESULT makeAnew(const wchar_t* name, const VxCompoundStorage::Found& old);
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
