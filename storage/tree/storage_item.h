#pragma once

#include "base/status.h"
#include "storage/tree/error_status.h"
#include "storage/tree/item_ref.h"
#include "storage/tree/root_keeper.h"
#include "storage/tree/tree_lock.h"

#include <vexel/path_name.h>
#include <vexel/storage.h>

#include <windows.h>

#include <objidl.h>
#include <wrl/client.h>

#include <atomic>
#include <map>
#include <memory>
#include <vector>

/// The tree of items behind the handles: a VxStorage for each storage node and a VxStream for each stream
/// node that is or was open. Each storage keeps a table of its children's items, so that one node is never
/// two objects. The logic here is common to all formats and speaks to the nodes through COM; a backend
/// derives from these classes and supplies the interfaces and the factories.
///
/// Life of an item. A factory makes it closed; it is opened and closed any number of times; it is destroyed
/// by its parent's clean-up, by destroyChild, or to make way for a child of the other type, a root by the
/// container. Only the reference count keeps it alive, and a storage is in use as long as it has children.
/// The order of the virtual functions is part of the contract between the backends.
///
/// Threads. Counts, names and the marks for reading may be asked on any thread. All else is done under the
/// lock of the root (tree_lock.h), which the functions take themselves; the backends' are called with it.
/// While a failed call waits for its clean-up the lock is let go of: nodes may be closed by then, and a node
/// that was to be opened may be open.
class VxStorageItem {
public:
    VxStorageItem(const VxStorageItem&) = delete;
    VxStorageItem& operator=(const VxStorageItem&) = delete;

    virtual ~VxStorageItem() = default;
    virtual StorageType type() const noexcept = 0;
    virtual StorageFormat format() const noexcept = 0;
    /// Closes what no handle uses, at and below this item, and frees the items below; with `keepObjects` the
    /// items stay in their tables. Returns whether anything was freed.
    virtual bool deleteUnusedObjects(bool keepObjects);
    /// Closes the node and what is open below it; the items stay.
    virtual void close();
    virtual bool isUsed() const;
    /// These two open a closed node first, for reading.
    virtual long commit() = 0;
    /// The node's times; either pointer may be null.
    virtual long stat(FILETIME* created, FILETIME* modified) = 0;
    /// Whether a call that failed with `status` deserves one more attempt: memory, file handles or, below the
    /// root, sharing ran out, and a clean-up freed something. Runs that clean-up, without this thread's locks
    /// of roots.
    virtual bool retryAfterFailure(HRESULT status);

    /// An item's reference counts on its root too. Both return the item's new count.
    int addRef() noexcept;
    int release() noexcept;
    bool referenced() const noexcept { return references_.load() != 0; }
    /// Drops a handle's reference and, for a compound file, what the handle kept open: the item when it is
    /// out of use now; the whole root, with the file, when this was the last reference to any of its nodes.
    /// The item may be gone afterwards.
    void releaseHandle() noexcept;

    /// A root's is the path of its file.
    const SharedPathName& name() const noexcept { return name_; }
    VxStorage* parent() const noexcept { return parent_; }
    VxStorageItem* root() const noexcept { return root_; }
    bool readOnly() const noexcept { return readOnly_; }
    const std::shared_ptr<Vexel::Detail::RootLock>& rootLock() const noexcept { return root_->lock_; }

    /// `call`, and once more if this item finds the failure worth it. S_OK or a failure.
    template <class Call>
    HRESULT callTwice(Call call) {
        const HRESULT status = Vexel::Detail::outcomeOf(call());
        return FAILED(status) && retryAfterFailure(status) ? Vexel::Detail::outcomeOf(call()) : status;
    }
    /// The same for exhausted memory and file handles only: a conflict with others is no reason.
    template <class Call>
    HRESULT callTwiceIfExhausted(Call call) {
        const HRESULT status = Vexel::Detail::outcomeOf(call());
        return Vexel::Detail::isExhausted(status) && retryAfterFailure(status)
                   ? Vexel::Detail::outcomeOf(call())
                   : status;
    }

protected:
    /// `parent` is null for a root, which is its own `root` then.
    VxStorageItem(SharedPathName name, VxStorage* parent, VxStorageItem* root);

    /// In the inside of opening and making nodes: nothing was done, for another thread has opened the node
    /// meanwhile.
    static constexpr HRESULT openedMeanwhile = STG_E_FILEALREADYEXISTS;

    /// The root's; may be null.
    const Vexel::Detail::RootKeeper* keeper() const noexcept { return root_->keeper_; }

    SharedPathName name_;
    VxStorage* parent_;   // outlives this item: it stands in the parent's table
    VxStorageItem* root_; // this item for a root
    std::atomic<int> references_{0};
    std::atomic<bool> readOnly_{true};            // also while closed
    Vexel::Detail::RootKeeper* keeper_ = nullptr; // a root's

private:
    std::shared_ptr<Vexel::Detail::RootLock> lock_; // a root's
};

class VxStorage : public VxStorageItem {
public:
    static constexpr StorageType Type = StorageType::Storage;
    template <class Item>
    using ItemRef = Vexel::Detail::ItemRef<Item>;

    ~VxStorage() override;
    StorageType type() const noexcept override { return Type; }
    bool deleteUnusedObjects(bool keepObjects) override;
    void close() override;
    bool isUsed() const override;
    long commit() override;
    long stat(FILETIME* created, FILETIME* modified) override;

    // For the backends, in the order of their slots.

    /// Whether there is such a child; here, whether one of that very type stands in the table and is open: an
    /// item that is closed may have outlived its element. Backends look in the file too and take
    /// StorageType(0) for either type.
    virtual bool hasChild(const SharedPathName& name, StorageType type);
    /// Makes a new temporary file of an unnamed root.
    virtual long createTemporary(bool flag) = 0;
    virtual long borrowPackedData(VxStorage* source) = 0;
    virtual bool getFileTimes(FILETIME* created, FILETIME* modified, FILETIME* accessed) = 0;
    /// Factories of closed children, which are not in the table yet.
    virtual std::unique_ptr<VxStorage> newChildStorage(const SharedPathName& name) = 0;
    virtual std::unique_ptr<VxStream> newChildStream(const SharedPathName& name) = 0;
    virtual std::unique_ptr<VxStorageEnumerator> createEnumerator() = 0;
    virtual long clear() = 0;
    /// Make or open the root file with these STGM flags, and set the interface, which a failure leaves null.
    /// `reserved` is 0. `openedMeanwhile`, and nothing changed, when there is one after a clean-up.
    virtual long createRoot(DWORD stgm, DWORD reserved) = 0;
    virtual long openRoot(DWORD stgm) = 0;

    /// The node's interface, borrowed; opens a closed node for reading. Null when that fails.
    IStorage* storage();
    bool isOpen() const noexcept { return storage_ != nullptr; }
    /// Opens a closed node for reading.
    long ensureOpen();

    /// Opens the node and the storages above it. An open node stays as it is, unless it is open for reading
    /// and now wanted for writing: then it is closed, with all below it, and opened again; streams below it
    /// that are used again go on where they were. `rootFlag` is kept
    /// with a root for the application. A failure, exhausted memory included, leaves the node closed.
    long open(bool readOnly, bool rootFlag);
    /// Makes the node's element, or a root's file. `convert` is for roots: with the contents of what stands
    /// there. `replace` is for children: an element of the name is removed first. STG_E_FILEALREADYEXISTS
    /// when a handle has the node open.
    long create(bool convert, bool readOnly, bool replace);

    // Children. The result carries a reference; it is null, and `status` (which may be null) a failure, when
    // the child cannot be had. STG_E_INVALIDPARAMETER while a child of the other type uses the name.

    /// With `lazy` the child is made known but not opened.
    ItemRef<VxStorage> openChildStorage(const SharedPathName& name, bool readOnly, bool lazy,
                                        HRESULT* status);
    ItemRef<VxStream> openChildStream(const SharedPathName& name, bool readOnly, bool lazy, HRESULT* status);
    ItemRef<VxStorage> createChildStorage(const SharedPathName& name, HRESULT* status, bool replace);
    ItemRef<VxStream> createChildStream(const SharedPathName& name, HRESULT* status);

    /// Removes the element `name`. STG_E_INUSE, and the file untouched, while the child is in use.
    long destroyChild(const SharedPathName& name);

    // For whoever keeps roots, and sets them up.

    void setKeeper(Vexel::Detail::RootKeeper& keeper) noexcept { keeper_ = &keeper; }
    bool keyed() const noexcept { return keyed_; }
    void setKeyed(bool keyed) noexcept { keyed_ = keyed; }
    bool rootFlag() const noexcept { return rootFlag_; }
    bool holdOpen() const noexcept { return holdOpen_; }
    /// Whether its file goes with it.
    bool temporary() const noexcept { return temporary_; }

protected:
    VxStorage(SharedPathName name, VxStorage* parent, VxStorageItem* root);

    Microsoft::WRL::ComPtr<IStorage> storage_;
    std::map<SharedPathName, std::unique_ptr<VxStorageItem>> children_;
    bool holdOpen_;      // a child of "FileLinks": deleteUnusedObjects(true) does not close it
    bool keyed_ = false; // a root that keeps writers out while it is open for reading; until it is closed
    bool rootFlag_ = false;
    bool temporary_ = false; // a root whose file, if it has one, goes with it

private:
    friend class VxStream;

    /// What a child's item is wanted for.
    enum class Purpose { Open, Create, Replace };

    bool isOpenedMeanwhile(HRESULT status) const noexcept { return FAILED(status) && storage_; }
    /// Whether a child may be had from the interface: a clean-up before the second attempt may have closed
    /// it, and another thread may have opened it again, for reading.
    HRESULT checkAccess(bool readOnly) const noexcept;
    long openRootOrInParent(bool readOnly);
    long openInParent(bool readOnly);
    long createInParent(bool readOnly, bool replace);
    bool freeUnusedChildren(bool keepObjects);
    void rememberPositions();
    template <class Child>
    HRESULT findOrMake(const SharedPathName& name, Purpose purpose, ItemRef<Child>& child, bool& made);
    template <class Child, class Action>
    ItemRef<Child> withChild(const SharedPathName& name, Purpose purpose, HRESULT* status, Action action);
    void discard(const SharedPathName& name, const VxStorageItem* item);
    HRESULT forgetChild(const SharedPathName& name);
};

class VxStream : public VxStorageItem {
public:
    static constexpr StorageType Type = StorageType::Stream;

    ~VxStream() override;
    StorageType type() const noexcept override { return Type; }
    bool deleteUnusedObjects(bool keepObjects) override;
    void close() override;
    long commit() override;
    long stat(FILETIME* created, FILETIME* modified) override;
    virtual StreamCompression compression() const noexcept;

    /// The node's interface, borrowed; opens a closed node for reading. Null when that fails.
    ::IStream* stream();
    bool isOpen() const noexcept { return stream_ != nullptr; }

    /// Opens the node, or rewinds it when it is open; for writing it is emptied, and a node that was open for
    /// reading reopens its parent for writing. A failure leaves the node closed.
    long open(bool readOnly);
    /// Makes the node's element, empty, in place of one that stands there. STG_E_FILEALREADYEXISTS when a
    /// handle has the node open.
    long create();

    long setSize(unsigned long long size);
    /// In bytes; 0 when it cannot be asked.
    unsigned long long size();

protected:
    VxStream(SharedPathName name, VxStorage* parent, VxStorageItem* root);

    Microsoft::WRL::ComPtr<::IStream> stream_;

private:
    friend class VxStorage;

    long ensureOpen();
    bool isOpenedMeanwhile(HRESULT status) const noexcept { return FAILED(status) && stream_; }
    long openOrRewind(bool readOnly);
    long openClosed(bool readOnly);
    long openInParent(bool readOnly);
    long createInParent();
    long statNode(STATSTG& info);
    long resize(unsigned long long size);
    void rememberPosition();

    unsigned long long resumeAt_ = 0; // where a stream goes on that was closed for its parent's reopening
};

/// Lists the children of a storage as the file has them at the beginning. So the listing outlives whatever
/// becomes of the storage, and keeps nothing of it open.
class VxStorageEnumerator {
public:
    VxStorageEnumerator() = default;
    VxStorageEnumerator(const VxStorageEnumerator&) = delete;
    VxStorageEnumerator& operator=(const VxStorageEnumerator&) = delete;

    virtual ~VxStorageEnumerator();
    virtual StorageFormat format() const noexcept = 0;

    /// Begins a listing, opening the storage when it is closed. A failure in the middle is `moveNext`'s.
    long reset(VxStorage* storage);
    /// Steps to the next storage or stream; false at the end and where reading the list failed.
    bool moveNext();
    /// S_OK, S_FALSE at the end, or the failure.
    HRESULT status() const noexcept { return status_; }

    StorageType type() const noexcept { return entry_.type; }
    const SharedPathName& name() const noexcept { return entry_.name; }
    ULARGE_INTEGER size() const noexcept { return entry_.size; }
    FILETIME createTime() const noexcept { return entry_.createTime; }
    FILETIME writeTime() const noexcept { return entry_.writeTime; }

private:
    struct Entry {
        StorageType type{}; // 0 before the first entry and after the last
        SharedPathName name;
        ULARGE_INTEGER size{};
        FILETIME createTime{};
        FILETIME writeTime{};
    };

    HRESULT readAll(VxStorage& storage, IEnumSTATSTG& list);

    std::vector<Entry> entries_;
    size_t next_ = 0;
    Entry entry_;
    HRESULT end_ = S_FALSE; // how reading the list ended
    HRESULT status_ = S_OK;
};
