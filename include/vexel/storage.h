#pragma once

/// Structured files: trees of storages (like directories) and streams (like files) inside one file, reached
/// through value handles. Two formats stand behind the same handles: compound files, served by the system's
/// structured storage, and packages (7z archives).
///
///     StorageRef document;
///     if (FAILED(document.open(path, RootStorageOpenMode::ReadOnly, false)))
///         ...
///     StreamRef book;
///     if (SUCCEEDED(book.open(L"Workbook", document, true)))
///         book.ReadBytes(buffer, size);
///
/// Rules for the whole library
///
/// 1. Null handles. A default-constructed handle is null and answers every call: with the status
///    STG_E_INVALIDPARAMETER (where not said otherwise), false, 0, an empty name or a null pointer. Nothing
///    throws for a null handle.
/// 2. Statuses. `long` results are HRESULTs. A failure of the system's storage passes through; a success of a
///    node's call other than S_OK is STG_E_READFAULT, except that StreamRef::read and write return what the
///    node's stream does. An open or create that fails leaves the handle null; an out-parameter is set in
///    every case, on failure to 0 where nothing else is said. Exhausted memory is STG_E_INSUFFICIENTMEMORY in
///    a function that returns a status; one that returns anything else raises it (std::bad_alloc or similar).
/// 3. Identity. One node of one open root is one object, however often it is opened; two handles are equal
///    exactly when they reach the same one. A root opened with ReadOnly and one opened with another mode on
///    the same path are two roots. A node has one state: opening it for writing through one handle makes
///    it writable for all, and all handles of a stream share its position.
/// 4. Names. A root's name is the path of its file, a child's the name of its element. Elements are named
///    exactly as spelled: texts given to the handles are interned with case and never made canonical ("C:x",
///    "\foo" and ".." are names as any other), and an enumeration delivers the spelling in the file. A
///    SharedPathName that the caller made of such a text may have become a path: it is used as it is. A
///    compound file itself does not tell case apart: while an element is open, or
///    cached (rule 8), under one spelling, opening it under another fails with STG_E_ACCESSDENIED, but
///    replacing or destroying it under another goes through, and what is open then fails with
///    STG_E_REVERTED. An element of a compound file has 1 to 31 characters without "/", "\", ":" and "!";
///    others end in STG_E_INVALIDNAME.
/// 5. Transactions. Nothing reaches a file before a commit. What a commit writes depends on the format:
///     - Compound file: a storage's commit passes its changes on to the storage above it, the root's commit
///       writes the file. A change is in the file when its storage and every storage above it, the root last,
///       have been committed; it is lost when one of them is closed (rule 8) before its commit.
///     - Package: the commit of any storage, the root or another, writes the whole file with all changes,
///       those in storages that were not committed included. Changes are lost when the root is closed
///       before.
///    Code for both formats commits from the inside to the outside. A stream needs no commit of its own.
/// 6. Streams are written whole: to open a stream for writing empties it.
/// 7. Ownership. A handle owns one reference on its node and through it keeps the root in use. Interface
///    pointers (`storage()`, `stream()`) are borrowed: they hold while a handle on the node does and nothing,
///    on any thread, opens the node or one above it for writing after it was open for reading, clears it
///    away, or closes all roots. A reference of one's own keeps the object alive, not of use.
/// 8. What is released when. Dropping a handle does not close its node. A compound file's storage is closed
///    when its last handle goes and none of its children is cached; with the last handle on any of its
///    nodes the whole root is closed, cached children included, and its file is free for others. Until then
///    the children of a storage named "FileLinks" stay open. A package stays open, so that it is not read
///    again for each handle, until a clean-up finds it unused.
/// 9. Clean-up. StorageContainer::deleteUnusedObjects closes and frees what no handle uses. The library
///    runs it by itself when the system reports exhausted memory or file handles while something is opened,
///    made, listed, resized, asked for its size or times, committed or destroyed, and repeats the failed call
///    once. Below the root's own children a conflict over sharing or access is answered alike. Reading,
///    writing and moving in a stream are not repeated.
/// 10. Threads. A handle belongs to one thread at a time. Handles on one root, on one node even, may be used
///     on several threads at once, whoever opened them: each call has the root for itself, and the others
///     wait. What handles share by rules 3 and 5 they share across threads, too: the position of a stream,
///     and what a commit writes. A stream that is being read goes on at its position when another thread
///     opens its root or its storage for writing. A clean-up passes over roots that are in use at that
///     moment. Borrowed interfaces (rule 7) are for their callers to guard. A log sink, and a caller's
///     interface behind `fromPtr`, may be called with locks held and must not use handles. The
///     calling thread need not have initialised COM. When the process ends, handles in static storage may be
///     destroyed last.

#include <vexel/byte_streams.h>
#include <vexel/export.h>
#include <vexel/framework.h>
#include <vexel/open_package.h>
#include <vexel/path_name.h>

#include <windows.h>

#include <objidl.h>
#include <wrl/client.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

class StorageRef;
class StreamRef;
class VxStorage;
class VxStorageEnumerator;
class VxStorageItem;
class VxStream;

namespace Vexel::Detail {
template <class Item>
class ItemRef;
class StreamLock;
} // namespace Vexel::Detail

/// How a structured file is stored.
enum class StorageFormat {
    None = 0, ///< not a structured file, or a null handle
    CompoundFile = 1,
    Package = 2,
};

/// What a node is. 0, without a name, is what a null enumerator reports and what stands for "either" in
/// StorageRef::hasChild.
enum class StorageType {
    Storage = 1,
    Stream = 2,
};

enum class StreamCompression {
    None = 0,   ///< stored as it is: every stream of a compound file
    Packed = 1, ///< stored compressed: every stream of a package
};

enum class RootStorageOpenMode {
    /// For reading, while other processes may still write the file.
    ReadOnly = 0,
    /// For reading, keeping other writers out. When another process holds the file for writing already, a
    /// temporary copy is opened in its place, which is deleted when the root is closed.
    ReadOnlyDenyWrite = 1,
    /// For reading and writing, keeping other writers out.
    ReadWrite = 2,
};

/// A handle on a storage: a root, that is a whole file, or a node inside one.
class VEXEL_API StorageRef {
public:
    /// Null.
    StorageRef() noexcept = default;
    /// One more reference on the same node.
    StorageRef(const StorageRef& other) noexcept;
    StorageRef(StorageRef&& other) noexcept;
    /// Drops what the handle held as close() does, then shares; does nothing when both reach the same node.
    StorageRef& operator=(const StorageRef& other) noexcept;
    /// Swaps: what this handle held goes when `other` does.
    StorageRef& operator=(StorageRef&& other) noexcept;
    /// As close().
    ~StorageRef();

    /// The handle on a caller's interface, served as a compound-file root without a name; the same pointer
    /// gives the same root each time. The container keeps a reference on the interface until a clean-up finds
    /// the root unused. Null for null.
    static StorageRef fromPtr(IStorage* storage);

    bool null() const noexcept { return item_ == nullptr; }
    bool notNull() const noexcept { return item_ != nullptr; }
    bool operator!() const noexcept { return null(); }
    explicit operator bool() const noexcept { return notNull(); }
    /// Whether both reach the same node; two null handles are equal.
    bool operator==(const StorageRef& other) const noexcept { return item_ == other.item_; }
    bool operator!=(const StorageRef& other) const noexcept { return item_ != other.item_; }

    // Opening and creating. Each releases what the handle held first, unless the parent is null.

    /// Opens the file at `path` as a root, or shares the root that is open on it already (rule 3). `flag` is
    /// stored in the root and has no meaning to the library.
    ///  - STG_E_FILENOTFOUND, STG_E_PATHNOTFOUND: there is no such file, for reading.
    ///  - HRESULT_FROM_WIN32 of the system's error, for writing: the file is missing (ERROR_FILE_NOT_FOUND),
    ///    write-protected (ERROR_ACCESS_DENIED) or open elsewhere (ERROR_SHARING_VIOLATION).
    ///  - STG_E_SHAREVIOLATION, STG_E_LOCKVIOLATION, STG_E_ACCESSDENIED: it cannot be opened as asked for.
    ///  - STG_E_INVALIDHEADER: neither a package nor a compound file, or a damaged package.
    ///  - STG_E_DOCFILECORRUPT: a damaged compound file. STG_E_INVALIDPARAMETER: an empty path, for reading.
    /// While a SharedPathNameFlagsCacheBlock lives, the first answer about a missing file stands for every
    /// mode.
    long open(const SharedPathName& path, RootStorageOpenMode mode, bool flag);

    /// Opens the storage `name` of `parent`; for writing, a parent that is open for reading is reopened
    /// first, up to the root. The handle may be its own parent.
    ///  - STG_E_INVALIDPARAMETER: a null parent (the handle keeps what it held), an empty name, or one under
    ///    which a stream is in use.
    ///  - STG_E_FILENOTFOUND: there is no such element, or it is a stream.
    ///  - STG_E_INVALIDNAME: there cannot be such an element.
    ///  - STG_E_INVALIDFUNCTION: more than 512 levels below the root.
    ///  - STG_E_ACCESSDENIED and the statuses of opening the root.
    long open(const SharedPathName& name, const StorageRef& parent, bool readOnly);
    long open(const wchar_t* name, const StorageRef& parent, bool readOnly);
    long open(const CStringW& name, const StorageRef& parent, bool readOnly);

    /// Makes a new root, a package, for the file at `path`, open for reading and writing and shared like a
    /// root opened with ReadOnly. The file itself is made, or replaced, by the first commit after something
    /// was changed: a root that is committed without ever having had an element writes nothing, and what
    /// stood at `path` stays. STG_E_FILEALREADYEXISTS when a handle has that root open.
    long create(const SharedPathName& path);

    /// Makes the storage `name` in `parent`, empty and open for reading and writing. The parent, and the
    /// statuses not named here, as for opening it for writing.
    ///  - STG_E_FILEALREADYEXISTS: an element of the name stands there, and `replace` is not set; or a handle
    ///    has the storage open.
    ///  - STG_E_INVALIDPARAMETER: also when a storage with handles on nodes below it is to be replaced.
    ///  - STG_E_INVALIDFUNCTION: a stream of the name stands there, in a package, `replace` or not.
    long create(const SharedPathName& name, const StorageRef& parent, bool replace);
    long create(const wchar_t* name, const StorageRef& parent, bool replace);
    long create(const CStringW& name, const StorageRef& parent, bool replace);

    /// Makes a new temporary root: always a package. `flag` is stored in the root.
    long createTemporary(bool flag);

    /// Makes the root at `path` anew with the contents of what stands there, open like a root of that mode. A
    /// package keeps what it has; where no file is, a root for writing begins empty.
    ///  - STG_E_INVALIDFUNCTION: a compound file. `copyTo` makes a package of it.
    ///  - STG_E_FILEALREADYEXISTS: a handle has that root open. Other failures of reading the package.
    long convert(const SharedPathName& path, RootStorageOpenMode mode);

    /// Drops the handle's reference and makes it null; see rule 8 for what that closes.
    void close() noexcept;

    // The format of a file or stream by its first 6 bytes; no value when there is no file, or it cannot be
    // opened or read. None also when there are fewer bytes.

    /// Throws std::system_error when the file can be opened but not read.
    static std::optional<StorageFormat> getFormat(const wchar_t* path);
    /// Leaves the stream behind the bytes read.
    static std::optional<StorageFormat> getFormat(::IStream* stream);
    /// Whether the file at `path` has one of the formats; as getFormat.
    static std::optional<bool> isStorage(const SharedPathName& path);
    static std::optional<bool> isStorage(const wchar_t* path);
    static std::optional<bool> isStorage(const CStringW& path);

    // Queries.

    /// A handle on the storage above; null for a root.
    StorageRef parent() const noexcept;
    /// Valid while the handle holds the node.
    const SharedPathName& name() const noexcept;
    /// Whether the node is open for reading only or not open; true for a null handle.
    bool readOnly() const noexcept;
    StorageFormat format() const noexcept;
    /// Whether there is a child of that name and type (StorageType(0): of either), by what is open or in the
    /// file and not by what handles are on. A child that exists but cannot be opened now counts.
    bool hasChild(const SharedPathName& name, StorageType type) const;
    /// The times of the node as its format keeps them, 0 where it keeps none. Either pointer may be null.
    long stat(FILETIME* created, FILETIME* modified) const;
    /// The times of the whole file, whatever node is asked; false, the outputs unspecified, when it cannot be
    /// asked. Any pointer may be null.
    bool getFileTimes(FILETIME* created, FILETIME* modified, FILETIME* accessed) const;
    /// The node's interface, opening the node when it is closed; null when that fails. Borrowed (rule 7).
    IStorage* storage() const;

    // Changes. All are transacted (rule 5).

    /// Removes the child `name` with all below it. STG_E_INUSE, the file untouched, while a handle is on the
    /// child or below it; STG_E_FILENOTFOUND; STG_E_ACCESSDENIED when this storage is open for reading.
    long destroy(const SharedPathName& name);
    long destroy(const wchar_t* name);
    long destroy(const CStringW& name);
    /// Removes every child, those with handles too: such a handle finds nothing any more, unless an element
    /// of its name is made again. STG_E_INVALIDFUNCTION for a compound file, STG_E_ACCESSDENIED when this
    /// storage is open for reading.
    long clear();
    /// Copies all that is in this storage into `target`, beside what is there; streams of the same name are
    /// replaced, storages joined. The target is committed by its owner (rule 5), except that it is
    /// committed on the way, up to its file,
    ///  - by a copy of a compound file into a package, each time 64 MiB of contents have been copied, so that
    ///    no more than these and the largest stream are in memory at a time;
    ///  - when memory or file handles run out, before the copy is tried once more.
    /// So a copy that must be whole or not at all goes into a new file. What cannot be copied is left out of
    /// the target, the rest is copied, and the first failure is the result. Where memory, file handles or
    /// space on the disk run out, the copy may end early. Handles on streams keep their positions.
    ///  - STG_E_INVALIDPARAMETER: a null handle, the same storage, or one that cannot be opened.
    ///  - STG_E_ACCESSDENIED: the target is open for reading, or stands in this storage; nothing was done.
    ///  - STG_E_READFAULT: a stream holds less than it should. Other statuses of reading and writing.
    ///  - STG_E_DOCFILECORRUPT: a part of this compound file is missing, or the system cannot copy so much.
    long copyTo(const StorageRef& target) const;
    /// Lets this package, as long as nothing in it has been saved, take over the compressed data of another:
    /// what is copied from `source` by `copyTo` afterwards is not unpacked, unless it is changed or replaces
    /// something. 1, or 0 when that is not possible. Until the next commit the file of `source` is in use.
    /// STG_E_INVALIDFUNCTION for a compound file; STG_E_INVALIDPARAMETER when either handle is null, or the
    /// source is no open package.
    long borrowPackedData(const StorageRef& source);
    /// Commits what rule 5 says: for a compound file this storage's changes, to the storage above or a root's
    /// to the file; for a package the whole of it, to the file. What could not be written may be committed
    /// again.
    long commit() const;

    /// Closes and frees the nodes below this one that no handle uses.
    void deleteUnusedObjects();

private:
    friend class StorageEnumerator;
    friend class StreamRef;

    explicit StorageRef(IStorage* storage);
    explicit StorageRef(Vexel::Detail::ItemRef<VxStorage> item) noexcept;

    VxStorage* item_ = nullptr; // carries one reference
};

/// A handle on a stream, and itself a seekable byte stream of the library (byte_streams.h, whose rules hold).
class VEXEL_API StreamRef : public vxio::IReadStream, public vxio::IWriteStream {
public:
    /// Null.
    StreamRef() noexcept = default;
    /// One more reference on the same node.
    StreamRef(const StreamRef& other) noexcept;
    StreamRef(StreamRef&& other) noexcept;
    /// Drops what the handle held as close() does, then shares; does nothing when both reach the same node.
    StreamRef& operator=(const StreamRef& other) noexcept;
    /// Swaps: what this handle held goes when `other` does.
    StreamRef& operator=(StreamRef&& other) noexcept;
    /// As close().
    ~StreamRef();

    bool null() const noexcept { return item_ == nullptr; }
    bool notNull() const noexcept { return item_ != nullptr; }
    bool operator!() const noexcept { return null(); }
    explicit operator bool() const noexcept { return notNull(); }
    /// Whether both reach the same node; two null handles are equal.
    bool operator==(const StreamRef& other) const noexcept { return item_ == other.item_; }
    bool operator!=(const StreamRef& other) const noexcept { return item_ != other.item_; }

    /// Opens the stream `name` of `parent`, positioned at 0: a stream that is open already is rewound, for
    /// all its handles. Opening for writing empties it. A stream that is open for reading is reopened for
    /// that, and the storages above it; one that is not open needs a parent that is open for writing, else
    /// STG_E_ACCESSDENIED. Other statuses as for StorageRef::open, with stream and storage exchanged. The
    /// contents of a package's stream are read for it, before they are emptied as well:
    ///  - STG_E_READFAULT, STG_E_INVALIDFUNCTION and other failures to unpack: they cannot be had. `create`
    ///    replaces such a stream without reading it.
    long open(const SharedPathName& name, const StorageRef& parent, bool readOnly);
    long open(const wchar_t* name, const StorageRef& parent, bool readOnly);
    long open(const CStringW& name, const StorageRef& parent, bool readOnly);

    /// Makes the stream `name` in `parent`, empty and open for reading and writing. A stream that stands
    /// there is replaced, in a compound file also a storage. The parent, and the statuses not named here, as
    /// for StorageRef::create.
    ///  - STG_E_FILEALREADYEXISTS: a handle has the stream open; or a storage of the name stands there, in a
    ///    package.
    long create(const SharedPathName& name, const StorageRef& parent);
    long create(const wchar_t* name, const StorageRef& parent);
    long create(const CStringW& name, const StorageRef& parent);

    /// Drops the handle's reference and makes it null. The node stays open, except that the last handle on a
    /// compound file closes the root (rule 8).
    void close() noexcept;

    // Queries, as for StorageRef.

    const SharedPathName& name() const noexcept;
    bool readOnly() const noexcept;
    StorageFormat format() const noexcept;
    StreamCompression compression() const noexcept;
    /// In bytes; 0 also when it cannot be asked.
    unsigned long long size() const;
    long stat(FILETIME* created, FILETIME* modified) const;
    /// The node's interface, opening the node when it is closed; null when that fails. Borrowed (rule 7).
    ::IStream* stream() const;

    // Contents. Reading and writing are one call of the node's stream; `done`, where not null, receives the
    // bytes moved, on failure too.

    /// STG_E_INVALIDPARAMETER also when the stream cannot be opened. S_OK with fewer bytes than asked for, or
    /// none, at the end.
    long read(void* buffer, unsigned long count, unsigned long* done);
    /// As read. STG_E_ACCESSDENIED when the stream is open for reading.
    long write(const void* buffer, unsigned long count, unsigned long* done);
    /// Cuts off or extends, by bytes of no given value; the position stays. E_FAIL for a null handle.
    long setSize(unsigned long long size);
    /// Replaces the contents of `target` by those of this stream, whose position stays; the target's is at
    /// its end afterwards. On failure the target holds what was copied until then, or what it held.
    ///  - STG_E_INVALIDPARAMETER: either is null or cannot be opened, or both are the same stream.
    ///  - STG_E_READFAULT: this stream holds less than its size says. Other statuses of reading and writing.
    long copyTo(StreamRef& target);
    long commit() const;

    // The byte stream. A null handle or a stream that cannot be opened gives 0 and moves nothing.

    unsigned long long SeekToEnd() override;
    void SeekToBegin() override;
    /// As size().
    unsigned long long GetLength() override;
    /// In a compound file a position before the start, or beyond both the end and 4 GiB, is refused as a move
    /// that fails: not every version of the system's storage survives the read that follows.
    unsigned long long Seek(SeekPosition origin, long long offset) override;
    unsigned long long GetPosition() const override;
    unsigned long long ReadBytes(void* buffer, unsigned long long count) override;
    unsigned long long WriteBytes(const void* buffer, unsigned long long count) override;

private:
    friend class Vexel::Detail::StreamLock;

    VxStream* item_ = nullptr; // carries one reference
};

/// Lists the children of a storage, in the order in which the format delivers them.
///
///     StorageEnumerator child;
///     if (SUCCEEDED(child.reset(storage)))
///         while (child.moveNext())
///             use(child.name(), child.type());
class VEXEL_API StorageEnumerator {
public:
    /// Null.
    StorageEnumerator() noexcept = default;
    StorageEnumerator(StorageEnumerator&& other) noexcept;
    /// Copies the pointer and nothing else: what this handle held is not destroyed, and of the two that now
    /// name one enumerator only one may be reset, released or destroyed. Kept for callers that rely on it.
    StorageEnumerator& operator=(const StorageEnumerator& other) noexcept = default;
    /// As release().
    ~StorageEnumerator();

    bool null() const noexcept { return enumerator_ == nullptr; }
    bool notNull() const noexcept { return enumerator_ != nullptr; }
    bool operator!() const noexcept { return null(); }
    explicit operator bool() const noexcept { return notNull(); }
    /// Whether both name the same enumerator.
    bool operator==(const StorageEnumerator& other) const noexcept {
        return enumerator_ == other.enumerator_;
    }
    bool operator!=(const StorageEnumerator& other) const noexcept {
        return enumerator_ != other.enumerator_;
    }

    /// Begins a listing of the children that `storage` has now, opening it when it is closed. What becomes of
    /// the storage meanwhile does not change the listing. On failure the handle is null.
    ///  - STG_E_INVALIDPARAMETER: a null storage. E_FAIL: its format has no listing.
    long reset(const StorageRef& storage);
    /// Steps to the next child. False at the end, and when the listing cannot go on; children that are
    /// neither storage nor stream are passed over.
    bool moveNext();
    /// Why moveNext gave false: S_FALSE at the end, else a failure, behind which there may be children that
    /// were not listed. S_OK before; STG_E_INVALIDPARAMETER when null.
    long status() const noexcept;

    // The current child. Before the first and after the last: an empty name, type 0, sizes and times 0.

    /// Valid until the next step.
    const SharedPathName& name() const noexcept;
    StorageType type() const noexcept;
    /// In bytes; 0 for a storage.
    ULARGE_INTEGER size() const noexcept;
    FILETIME createTime() const noexcept;
    FILETIME writeTime() const noexcept;
    StorageFormat format() const noexcept;

    /// Destroys the enumerator and makes the handle null.
    void release() noexcept;

private:
    VxStorageEnumerator* enumerator_ = nullptr; // owned by this handle alone
};

/// The process-wide owner of all roots. Opening and creating a root by its path holds the container's one
/// lock to the end, the system's calls included; others wait meanwhile. A temporary root's file is made
/// without it.
class VEXEL_API StorageContainer {
public:
    /// Lives until the process ends, handles in static storage included. Only the roots whose files are
    /// temporary are closed then, so that these can be deleted.
    static StorageContainer& Instance();

    StorageContainer(const StorageContainer&) = delete;
    StorageContainer& operator=(const StorageContainer&) = delete;

    /// Whether temporary roots are made as files instead of in memory; false at first. One flag under two
    /// spellings; setting it returns the previous value.
    bool GetCreateOnDisk() const;
    bool SetCreateOnDisk(bool onDisk);
    bool createOnDisk() const { return GetCreateOnDisk(); }
    bool setCreateOnDisk(bool onDisk) { return SetCreateOnDisk(onDisk); }

    /// Closes and frees every node and root that no handle uses. True when anything was freed.
    bool deleteUnusedObjects();

    /// Sets what runs instead of deleteUnusedObjects when the system reports exhausted memory or file
    /// handles; null for the default. The callback returns whether it freed anything; it usually lets go of
    /// some of the application's handles and calls deleteUnusedObjects. It runs without any lock of a root,
    /// but, when a root is being opened by its path, with the container's: it must not wait for a thread that
    /// opens roots.
    void setDeleteUnusedObjectsCallback(bool (*callback)());

    /// Closes all roots, with what was not committed, and empties the tables; for the end of the application.
    /// Handles that are left stay valid: when used again, they open their root anew, apart from later ones. A
    /// caller's interface and a temporary root in memory are gone for them.
    void clearAll();

private:
    constexpr StorageContainer() noexcept = default;
    ~StorageContainer() = default;
};
