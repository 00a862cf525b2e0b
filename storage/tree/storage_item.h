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
#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

/// The tree of items behind the handles. An item is the object in memory that stands for one element of an
/// open file: a VxStorage for a storage, a VxStream for a stream. It is made when its element is first opened
/// or created. Each storage keeps a table of its children's items, so that one element never has two. The
/// logic here is common to all formats and reaches the element through the COM interface that an open item
/// holds; a backend derives from these classes and supplies the interfaces and the factories.
///
/// Life of an item. A factory makes it closed. It is opened and closed any number of times. A root is
/// destroyed by the container; any other item by its parent's clean-up, by destroyChild, or to make way for a
/// child of the other type. Only the reference count keeps an item alive, and a storage is in use as long as
/// it has children. The order of the virtual functions is part of the contract between the backends.
///
/// Threads. Reference counts, names and `readOnly` may be asked on any thread. Everything else is done under
/// the lock of the root (tree_lock.h). The functions here take it themselves; the backends' functions are
/// called with it held. While a failed call waits for its clean-up the lock is released: afterwards items may
/// be closed, and an item that was to be opened may be open already.
class VxStorageItem {
public:
    VxStorageItem(const VxStorageItem&) = delete;
    VxStorageItem& operator=(const VxStorageItem&) = delete;

    virtual ~VxStorageItem() = default;
    virtual StorageType type() const noexcept = 0;
    virtual StorageFormat format() const noexcept = 0;
    /// Closes the items at and below this one that no handle uses, and frees those below; with `keepObjects`
    /// they stay in their tables. Returns whether anything was freed.
    virtual bool deleteUnusedObjects(bool keepObjects);
    /// Closes this item and all that are open below it; none of them is freed.
    virtual void close();
    virtual bool isUsed() const;
    /// Commits the element's changes. A closed item is opened for reading first, as it is by `stat`.
    virtual long commit() = 0;
    /// Tells the element's times; either pointer may be null.
    virtual long stat(FILETIME* created, FILETIME* modified) = 0;
    /// Whether a call that failed with `status` deserves one more attempt. It does when it failed for want of
    /// memory or file handles, or below the root for a conflict over sharing or access, and a clean-up freed
    /// something. This function runs that clean-up, after releasing this thread's locks of roots.
    virtual bool retryAfterFailure(HRESULT status);

    /// An item's reference counts on its root too. Both return the item's new count.
    int addRef() noexcept;
    int release() noexcept;
    bool referenced() const noexcept { return references_.load() != 0; }
    /// Drops a handle's reference. In a compound file this closes what the handle kept open: the item, when
    /// nothing uses it now; the whole root, with the file, when this was the last reference to any of its
    /// items. The item may be gone afterwards.
    void releaseHandle() noexcept;

    /// A root's is the path of its file.
    const SharedPathName& name() const noexcept { return name_; }
    VxStorage* parent() const noexcept { return parent_; }
    VxStorageItem* root() const noexcept { return root_; }
    bool readOnly() const noexcept { return readOnly_; }
    const std::shared_ptr<Vexel::Detail::RootLock>& rootLock() const noexcept { return root_->lock_; }

    /// For the log: the path of the file, and behind a bar that of the element in it.
    std::wstring whereabouts() const;

    /// Makes `call`, and makes it once more if it failed and retryAfterFailure allows that. Returns S_OK or a
    /// failure.
    template <class Call>
    HRESULT callTwice(Call call) {
        const HRESULT status = Vexel::Detail::outcomeOf(call());
        return FAILED(status) && retryAfterFailure(status) ? Vexel::Detail::outcomeOf(call()) : status;
    }
    /// The same, but only exhausted memory or file handles are a reason for a second attempt.
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

    /// What the inner functions of opening and creating return when another thread has opened the item while
    /// a clean-up ran: nothing was done then.
    static constexpr HRESULT kOpenedMeanwhile = STG_E_FILEALREADYEXISTS;

    /// The keeper of the root; may be null.
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
    static constexpr StorageType kType = StorageType::Storage;
    template <class Item>
    using ItemRef = Vexel::Detail::ItemRef<Item>;

    ~VxStorage() override;
    StorageType type() const noexcept override { return kType; }
    bool deleteUnusedObjects(bool keepObjects) override;
    void close() override;
    bool isUsed() const override;
    long commit() override;
    long stat(FILETIME* created, FILETIME* modified) override;

    // For the backends, in the order of their slots.

    /// Whether there is a child of this name and type. This implementation answers whether one of that very
    /// type stands in the table and is open, for a closed item may have outlived its element. Backends look
    /// in the file too, and take StorageType(0) for either type.
    virtual bool hasChild(const SharedPathName& name, StorageType type);
    /// Makes a new temporary file of an unnamed root.
    virtual long createTemporary(bool rootFlag) = 0;
    virtual long borrowPackedData(VxStorage* source) = 0;
    virtual bool getFileTimes(FILETIME* created, FILETIME* modified, FILETIME* accessed) = 0;
    /// Factories: they make children that are closed and not yet in the table.
    virtual std::unique_ptr<VxStorage> newChildStorage(const SharedPathName& name) = 0;
    virtual std::unique_ptr<VxStream> newChildStream(const SharedPathName& name) = 0;
    virtual std::unique_ptr<VxStorageEnumerator> createEnumerator() = 0;
    virtual long clear() = 0;
    /// These two make and open a root's file with these STGM flags. On success they set the interface; on
    /// failure it stays null. `reserved` is 0. They return `kOpenedMeanwhile`, and change nothing, when the
    /// root has an interface after a clean-up.
    virtual long createRoot(DWORD stgm, DWORD reserved) = 0;
    virtual long openRoot(DWORD stgm) = 0;
    /// Opens a stream's element. For writing its contents may be gone at once: they are emptied in any case.
    virtual HRESULT openStreamElement(const wchar_t* name, bool readOnly, ::IStream** stream);
    /// These five make one call of the open interface. `createStreamElement` replaces what stands there.
    virtual HRESULT openStorageElement(const wchar_t* name, bool readOnly, IStorage** storage);
    virtual HRESULT createStreamElement(const wchar_t* name, ::IStream** stream);
    virtual HRESULT createStorageElement(const wchar_t* name, bool replace, IStorage** storage);
    virtual HRESULT destroyElement(const wchar_t* name);
    virtual HRESULT commitElement();
    /// Whether a failure has taken something from what is uncommitted here, or in an open storage below.
    virtual bool hasLostElements() const { return false; }

    /// The item's interface, borrowed. A closed item is opened for reading; when that fails, the result is
    /// null.
    IStorage* storage();
    bool isOpen() const noexcept { return storage_ != nullptr; }
    /// Opens a closed item for reading; an open one stays as it is.
    long ensureOpen();

    /// Opens the item and the storages above it. An open item stays as it is, unless it is open for reading
    /// and is now wanted for writing: then it is closed, with all below it, and opened again; streams below
    /// it that are used afterwards go on where they were. `rootFlag` is kept with a root for the application.
    /// A failure, exhausted memory included, leaves the item closed.
    long open(bool readOnly, bool rootFlag);
    /// Makes the item's element, or a root's file. `convert` is for roots: the new file takes over the
    /// contents of the one that stands there. `replace` is for children: an element of the name is removed
    /// first. STG_E_FILEALREADYEXISTS when a handle has the item open.
    long create(bool convert, bool readOnly, bool replace);

    // Children. On success the result carries a reference. When the child cannot be had, the result is null
    // and `status` (a pointer that may be null) receives the failure: STG_E_INVALIDPARAMETER while a child of
    // the other type uses the name.

    /// With `lazy` the child's item is entered in the table but not opened.
    ItemRef<VxStorage> openChildStorage(const SharedPathName& name, bool readOnly, bool lazy,
                                        HRESULT* status);
    ItemRef<VxStream> openChildStream(const SharedPathName& name, bool readOnly, bool lazy, HRESULT* status);
    /// Opens it for reading, but leaves one that somebody has open where it stands, also when the reopening
    /// of its storage has closed it meanwhile.
    ItemRef<VxStream> resumeChildStream(const SharedPathName& name, HRESULT* status);
    ItemRef<VxStorage> createChildStorage(const SharedPathName& name, HRESULT* status, bool replace);
    ItemRef<VxStream> createChildStream(const SharedPathName& name, HRESULT* status);

    /// Removes the element `name`. While the child is in use, the result is STG_E_INUSE and the file stays
    /// untouched.
    long destroyChild(const SharedPathName& name);

    // For the keeper of roots, which sets them up.

    void setKeeper(Vexel::Detail::RootKeeper& keeper) noexcept { keeper_ = &keeper; }
    bool keyed() const noexcept { return keyed_; }
    void setKeyed(bool keyed) noexcept { keyed_ = keyed; }
    bool rootFlag() const noexcept { return rootFlag_; }
    bool holdOpen() const noexcept { return holdOpen_; }
    /// Whether the root's file, if it has one, is deleted with it.
    bool temporary() const noexcept { return temporary_; }

protected:
    VxStorage(SharedPathName name, VxStorage* parent, VxStorageItem* root);

    Microsoft::WRL::ComPtr<IStorage> storage_;
    std::map<SharedPathName, std::unique_ptr<VxStorageItem>> children_;
    bool holdOpen_;      // a child of "FileLinks": deleteUnusedObjects(true) does not close it
    bool keyed_ = false; // a root that keeps writers out while it is open for reading; until it is closed
    bool rootFlag_ = false;
    bool temporary_ = false; // a root whose file, if it has one, is deleted with it

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
    static constexpr StorageType kType = StorageType::Stream;

    ~VxStream() override;
    StorageType type() const noexcept override { return kType; }
    bool deleteUnusedObjects(bool keepObjects) override;
    void close() override;
    long commit() override;
    long stat(FILETIME* created, FILETIME* modified) override;
    virtual StreamCompression compression() const noexcept;

    /// The item's interface, borrowed. A closed item is opened for reading; when that fails, the result is
    /// null.
    ::IStream* stream();
    bool isOpen() const noexcept { return stream_ != nullptr; }

    /// Opens the item, or rewinds it when it is open. For writing the stream is emptied, and an item that was
    /// open for reading reopens its parent for writing. A failure leaves the item closed.
    long open(bool readOnly);
    /// Makes the item's element, empty, in place of one that stands there. STG_E_FILEALREADYEXISTS when a
    /// handle has the item open.
    long create();

    long setSize(unsigned long long size);
    /// The size in bytes; 0 when it cannot be asked.
    unsigned long long size();

protected:
    VxStream(SharedPathName name, VxStorage* parent, VxStorageItem* root);

    /// Sets the size of the interface. In a second attempt that may be closed.
    virtual HRESULT changeSize(unsigned long long size);
    /// Moves an interface that was opened again to where the stream stood; closes it when that fails.
    HRESULT resume();

    Microsoft::WRL::ComPtr<::IStream> stream_;
    unsigned long long resumeAt_ = 0; // where a stream goes on that was closed under its handles
    bool isNew_ = false;              // made since it was opened; a backend takes that back
    bool isTouched_ = false;          // its interface was given out; a backend takes that back

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
};

/// Lists the children that a storage has in the file when the listing begins. All of them are read then, so
/// that the listing holds whatever becomes of the storage, and keeps nothing of it open.
class VxStorageEnumerator {
public:
    VxStorageEnumerator() = default;
    VxStorageEnumerator(const VxStorageEnumerator&) = delete;
    VxStorageEnumerator& operator=(const VxStorageEnumerator&) = delete;

    virtual ~VxStorageEnumerator();
    virtual StorageFormat format() const noexcept = 0;

    /// Begins a listing, opening the storage when it is closed. A failure in the middle of the list is not
    /// reported here: `moveNext` meets it after the children that were read.
    long reset(VxStorage* storage);
    /// Steps to the next storage or stream. False at the end, where reading the list failed, and where there
    /// is no memory for a name.
    bool moveNext();
    /// S_OK, S_FALSE after the last child, or the failure that ended the list.
    HRESULT status() const noexcept { return status_; }
    /// Whether nothing follows the current entry.
    bool isLast() const noexcept { return next_ == entries_.size(); }

    StorageType type() const noexcept { return entry_.type; }
    const SharedPathName& name() const noexcept { return name_; }
    ULARGE_INTEGER size() const noexcept { return entry_.size; }
    FILETIME createTime() const noexcept { return entry_.createTime; }
    FILETIME writeTime() const noexcept { return entry_.writeTime; }

private:
    struct Entry {
        StorageType type{}; // 0 before the first entry and after the last
        std::size_t nameEnd = 0;
        ULARGE_INTEGER size{};
        FILETIME createTime{};
        FILETIME writeTime{};
    };

    HRESULT readAll(VxStorage& storage, IEnumSTATSTG& list);
    std::wstring_view nameOf(size_t index) const noexcept;

    std::vector<Entry> entries_;
    std::wstring names_; // of the entries, one behind the other
    size_t next_ = 0;
    Entry entry_;
    SharedPathName name_;   // of the current entry alone: the table of all names does without the others
    HRESULT end_ = S_FALSE; // how reading the list ended
    HRESULT status_ = S_OK;
};
