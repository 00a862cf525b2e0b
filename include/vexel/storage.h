#pragma once

/// Structured files: trees of storages (like directories) and streams (like files) inside one file, reached
/// through value handles. Two formats stand behind the same handles: compound files, served by the system's
/// structured storage, and packages (7z archives).
///
///     StorageRef document;
///     if (document.open(path, RootStorageOpenMode::ReadOnly, false) != S_OK)
///         ...
///     StreamRef book;
///     if (book.open(L"Workbook", document, true) == S_OK)
///         book.ReadBytes(buffer, size);
///
/// Words
///
/// An element is a storage or a stream in a file. A root is a whole file that is open, seen as its topmost
/// storage. An item is the object in memory that stands for a root or for an element below it. A handle holds
/// one item.
///
/// Rules for the whole library
///
/// 1. Null handles. A default-constructed handle is null. It answers every call: with the status
///    STG_E_INVALIDPARAMETER (where nothing else is said), false, 0, an empty name or a null pointer. Nothing
///    throws for a null handle.
/// 2. Statuses. A `long` result is an HRESULT.
///     - A failure of the system's storage is passed on. Where the interface of an element reports a success
///       other than S_OK, the result is STG_E_READFAULT; only StreamRef::read and StreamRef::write return
///       what the interface returned.
///     - An open or create that fails leaves the handle null. An out-parameter is set in every case, on
///       failure to 0 where nothing else is said.
///     - When memory is exhausted, a function that returns a status returns STG_E_INSUFFICIENTMEMORY, and any
///       other function raises (std::bad_alloc or similar).
/// 3. Identity. However often an element of an open root is opened, it has one item. Two handles are equal
///    exactly when they hold the same item. A root opened with ReadOnly and a root opened with another mode
///    on the same path are two roots. An item has one state, which all its handles share: when one handle
///    opens it for writing, it is writable for all, and all handles of a stream share its position.
/// 4. Names. A root's name is the path of its file; every other item has the name of its element. Elements
///    are named exactly as spelled: a text given to a handle is interned with its case and never made
///    canonical ("C:x", "\foo" and ".." are names like any other), and an enumeration delivers the spelling
///    in the file. A SharedPathName that the caller made of such a text may have become a path; it is used as
///    it is. In a compound file
///     - an element's name has 1 to 31 characters, without "/", "\", ":" and "!"; other names end in
///       STG_E_INVALIDNAME;
///     - the file itself does not tell upper from lower case. While an element is open, or cached (rule 8),
///       under one spelling, opening it under another one fails with STG_E_ACCESSDENIED. Replacing or
///       destroying it under another one succeeds, and what is open then fails with STG_E_REVERTED.
/// 5. Transactions. Nothing reaches a file before a commit. What a commit writes depends on the format:
///     - Compound file: a storage's commit passes its changes on to the storage above it; the root's commit
///       writes the file. A change is in the file when its storage and every storage above it, the root last,
///       have been committed. It is lost when one of them is closed (rule 8) before its commit.
///     - Package: the commit of any storage, the root or another, writes the whole file with all changes,
///       those in storages that were not committed included. Changes are lost when the root is closed before
///       a commit.
///    Code for both formats commits the innermost storage first and the root last. A stream needs no commit
///    of its own.
///
///    Where the system takes an element of a compound file away and then fails to make what was to stand in
///    its place (a stream that is emptied, an element that is replaced or destroyed), the element is lost: it
///    cannot be read (STG_E_REVERTED), and its storage is neither committed nor copied as a whole. The file
///    still has it. This ends when an element of its name is made or destroyed, or a stream of its name is
///    opened for writing; or when the storage is closed, except that a caller's interface (`fromPtr`) keeps
///    what it lost until a clean-up lets go of it. A root that is made of that interface afterwards does not
///    know of the loss, and a commit by the caller's own call of an interface is not held back.
/// 6. Streams are written whole: opening a stream for writing empties it.
/// 7. Ownership. A handle owns one reference on its item and through it keeps the root in use. The interface
///    pointers that `storage()` and `stream()` return are borrowed. They are valid as long as a handle is on
///    the item, and until some thread opens the item or one above it for writing after it was open for
///    reading, clears it away (`clear`), or closes all roots (`clearAll`). A reference of the caller's own
///    keeps such an object alive, but not usable. The same becomes of the interface of a compound file's
///    stream when the stream is emptied, and of one through which it was emptied, or may have been, when its
///    storage is committed. A stream that the caller opens by a storage's interface is not looked after: if
///    that empties it, the commit may damage the file.
/// 8. What is closed when. Dropping a handle does not close its item: the item stays cached, that is, in
///    memory.
///     - Compound file: a storage is closed when its last handle goes and none of its children is cached.
///       When the last handle on any item of a root goes, the whole root is closed, cached children included,
///       and its file is free for others. Until then the children of a storage named "FileLinks" stay open.
///     - Package: it stays open, so that it is not read again for each handle, until a clean-up finds it
///       unused.
/// 9. Clean-up. StorageContainer::deleteUnusedObjects closes and frees what no handle uses. The library
///    runs it by itself when the system reports exhausted memory or file handles while something is opened,
///    made, listed, resized, asked for its size or times, committed or destroyed, and then repeats the failed
///    call once. Below the root's own children it does the same after a conflict over sharing or access.
///    Reading, writing and moving in a stream are not repeated.
/// 10. Threads.
///     - A handle belongs to one thread at a time. Handles on one root, and even on one item, may be used on
///       several threads at once, whoever opened them: each call has the root for itself, and the others
///       wait. What handles share by rules 3 and 5 they share across threads, too: the position of a stream,
///       and what a commit writes.
///     - A stream that is being read goes on at its position when another thread opens its root or its
///       storage for writing. A clean-up passes over roots that are in use at that moment.
///     - Nothing guards a borrowed interface (rule 7) against other threads but its caller.
///     - A log sink, and a caller's interface behind `fromPtr`, may be called with locks held. They must not
///       use handles.
///     - The calling thread need not have initialised COM. When the process ends, handles in static storage
///       may be destroyed last.

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
class TreeWalk;
} // namespace Vexel::Detail

/// How a structured file is stored.
enum class StorageFormat {
    None = 0, ///< not a structured file, or a null handle
    CompoundFile = 1,
    Package = 2,
};

/// What an element is. The value 0 has no name: a null enumerator reports it, and to StorageRef::hasChild it
/// means either type.
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
    /// temporary copy of it is opened instead and deleted when the root is closed.
    ReadOnlyDenyWrite = 1,
    /// For reading and writing, keeping other writers out.
    ReadWrite = 2,
};

/// A handle on a storage: a root, that is, a whole file, or a storage inside one.
class VEXEL_API StorageRef {
public:
    /// Makes a null handle.
    StorageRef() noexcept = default;
    /// Takes one more reference on the item of `other`.
    StorageRef(const StorageRef& other) noexcept;
    StorageRef(StorageRef&& other) noexcept;
    /// Drops what this handle held, as close() does, and takes a reference on the item of `other`. Does
    /// nothing when both handles are on the same item.
    StorageRef& operator=(const StorageRef& other) noexcept;
    /// Swaps the two: what this handle held is dropped when `other` goes.
    StorageRef& operator=(StorageRef&& other) noexcept;
    /// Does what close() does.
    ~StorageRef();

    /// Makes a handle on a caller's interface, which is served as the root of a compound file without a name.
    /// The same pointer gives the same root each time. The container keeps a reference on the interface until
    /// a clean-up finds the root unused. The handle is null when `storage` is.
    static StorageRef fromPtr(IStorage* storage);

    bool null() const noexcept { return item_ == nullptr; }
    bool notNull() const noexcept { return item_ != nullptr; }
    bool operator!() const noexcept { return null(); }
    explicit operator bool() const noexcept { return notNull(); }
    /// Whether both are on the same item; two null handles are equal.
    bool operator==(const StorageRef& other) const noexcept { return item_ == other.item_; }
    bool operator!=(const StorageRef& other) const noexcept { return item_ != other.item_; }

    // Opening and creating. Each of these functions first releases what the handle held, unless the parent is
    // null.

    /// Opens the file at `path` as a root, or shares the root that is open on it already (rule 3). `rootFlag`
    /// is kept with the root for the application and has no meaning to the library.
    ///  - STG_E_FILENOTFOUND, STG_E_PATHNOTFOUND: there is no such file, and it was to be read.
    ///  - HRESULT_FROM_WIN32 of the system's error: the file was to be written, and it is missing
    ///    (ERROR_FILE_NOT_FOUND), write-protected (ERROR_ACCESS_DENIED) or open elsewhere
    ///    (ERROR_SHARING_VIOLATION).
    ///  - STG_E_SHAREVIOLATION, STG_E_LOCKVIOLATION, STG_E_ACCESSDENIED: it cannot be opened as asked for.
    ///  - STG_E_INVALIDHEADER: it is neither a package nor a compound file, or it is a damaged package.
    ///  - STG_E_DOCFILECORRUPT: it is a damaged compound file.
    ///  - STG_E_INVALIDPARAMETER: the path is empty, and it was to be read.
    /// While a SharedPathNameFlagsCacheBlock lives, the first answer about a missing file stands for every
    /// mode.
    long open(const SharedPathName& path, RootStorageOpenMode mode, bool rootFlag);

    /// Opens the storage `name` of `parent`. For writing, the parents that are open for reading are reopened
    /// first, up to the root. The handle may be its own parent.
    ///  - STG_E_INVALIDPARAMETER: the parent is null (then this handle keeps what it held), the name is
    ///    empty, or a stream of that name is in use.
    ///  - STG_E_FILENOTFOUND: there is no such element, or it is a stream.
    ///  - STG_E_INVALIDNAME: no element can have that name.
    ///  - STG_E_REVERTED: the element is lost (rule 5).
    ///  - STG_E_INVALIDFUNCTION: the storage is more than 512 levels below the root.
    ///  - STG_E_ACCESSDENIED, and the statuses of opening the root.
    long open(const SharedPathName& name, const StorageRef& parent, bool readOnly);
    long open(const wchar_t* name, const StorageRef& parent, bool readOnly);
    long open(const CStringW& name, const StorageRef& parent, bool readOnly);

    /// Makes a new root, a package, for the file at `path`. It is open for reading and writing, and later
    /// openers share it as they share a root opened with ReadOnly. The file itself is made, or replaced, by
    /// the first commit after something was changed: when a root is committed that never had an element,
    /// nothing is written, and what stood at `path` stays.
    ///  - STG_E_FILEALREADYEXISTS: a handle has that root open.
    long create(const SharedPathName& path);

    /// Makes the storage `name` in `parent`, empty and open for reading and writing. The parent is treated,
    /// and the statuses that are not named here are returned, as when the storage is opened for writing.
    ///  - STG_E_FILEALREADYEXISTS: an element of the name stands there, and `replace` is not set; or a handle
    ///    has the storage open.
    ///  - STG_E_INVALIDPARAMETER: also when a storage is to be replaced below which handles are.
    ///  - STG_E_INVALIDFUNCTION: in a package, whether `replace` is set or not, a stream of the name stands
    ///    there.
    long create(const SharedPathName& name, const StorageRef& parent, bool replace);
    long create(const wchar_t* name, const StorageRef& parent, bool replace);
    long create(const CStringW& name, const StorageRef& parent, bool replace);

    /// Makes a new temporary root, which is always a package. `rootFlag` is kept with the root for the
    /// application.
    long createTemporary(bool rootFlag);

    /// Makes the root at `path` anew with the contents of what stands there, open like a root of that mode. A
    /// package keeps what it has; where there is no file, a root for writing begins empty.
    ///  - STG_E_INVALIDFUNCTION: a compound file stands there. `copyTo` makes a package of it.
    ///  - STG_E_FILEALREADYEXISTS: a handle has that root open.
    ///  - Other failures of reading the package.
    long convert(const SharedPathName& path, RootStorageOpenMode mode);

    /// Drops the reference of this handle and makes the handle null. Rule 8 says what that closes.
    void close() noexcept;

    // The format of a file or stream, by its first 6 bytes. There is no value when there is no file, or when
    // it cannot be opened or read. One of fewer than 6 bytes has StorageFormat::None.

    /// Throws std::system_error when the file can be opened but not read.
    static std::optional<StorageFormat> getFormat(const wchar_t* path);
    /// Leaves the stream's position behind the bytes that were read.
    static std::optional<StorageFormat> getFormat(::IStream* stream);
    /// Whether the file at `path` has one of the formats. Fails and throws as getFormat does.
    static std::optional<bool> isStorage(const SharedPathName& path);
    static std::optional<bool> isStorage(const wchar_t* path);
    static std::optional<bool> isStorage(const CStringW& path);

    // Queries.

    /// A handle on the storage above this one. It is null for a root.
    StorageRef parent() const noexcept;
    /// The reference is valid while the handle holds the item.
    const SharedPathName& name() const noexcept;
    /// Whether the item is open for reading only, or not open; true for a null handle.
    bool readOnly() const noexcept;
    StorageFormat format() const noexcept;
    /// Whether there is a child of that name and type, StorageType(0) meaning either type. What counts is
    /// what is open or in the file, not what handles are on. A child that exists but cannot be opened now
    /// counts, too.
    bool hasChild(const SharedPathName& name, StorageType type) const;
    /// The times of the element as its format keeps them, 0 where it keeps none. Either pointer may be null.
    long stat(FILETIME* created, FILETIME* modified) const;
    /// The times of the whole file, whichever of its items is asked. False when the file cannot be asked; the
    /// outputs are unspecified then. Any pointer may be null.
    bool getFileTimes(FILETIME* created, FILETIME* modified, FILETIME* accessed) const;
    /// The item's interface, borrowed (rule 7). A closed item is opened; when that fails, the result is null.
    IStorage* storage() const;

    // Changes. All are transacted (rule 5).

    /// Removes the child `name` with all that is below it.
    ///  - STG_E_INUSE: a handle is on the child or below it; the file is untouched.
    ///  - STG_E_FILENOTFOUND: there is no such child.
    ///  - STG_E_ACCESSDENIED: this storage is open for reading.
    long destroy(const SharedPathName& name);
    long destroy(const wchar_t* name);
    long destroy(const CStringW& name);
    /// Removes every child, also those with handles. Such a handle finds nothing any more, unless an element
    /// of its name is made again.
    ///  - STG_E_INVALIDFUNCTION: this is a compound file.
    ///  - STG_E_ACCESSDENIED: this storage is open for reading.
    long clear();
    /// Copies everything in this storage into `target`, beside what is there. A stream of the same name is
    /// replaced; a storage of the same name is joined with the one that is copied. Handles on streams keep
    /// their positions.
    ///
    /// The target is committed by its owner (rule 5). In two cases it is also committed on the way, up to its
    /// file:
    ///  - by a copy of a compound file into a package, each time 64 MiB of contents have been copied, so that
    ///    no more than these and the largest stream are in memory at a time. Documents with a stream "\1Ole"
    ///    are other programs', which the system copies, all in memory, unless they are damaged;
    ///  - when memory or file handles run out, before the copy is tried once more.
    /// So a copy that must be whole or not at all goes into a new file: if the second attempt fails, too, the
    /// file has what was copied until then, one stream perhaps in part, and may lack one that was to be
    /// replaced.
    ///
    /// What cannot be copied is left out of the target, the rest is copied, and the first failure is the
    /// result. Where memory, file handles or space on the disk run out, the copy may end early.
    ///  - STG_E_INVALIDPARAMETER: a handle is null, both are on the same storage, or a storage cannot be
    ///    opened.
    ///  - STG_E_ACCESSDENIED: the target is open for reading, or stands in this storage; nothing was done.
    ///  - STG_E_READFAULT: a stream holds less than it should. Other statuses of reading and writing.
    ///  - STG_E_DOCFILECORRUPT: a part of this compound file is missing, or the system cannot copy so much.
    ///  - STG_E_REVERTED: an element of this compound file is lost (rule 5), here or in an open storage
    ///  below.
    ///  - STG_E_WRITEFAULT, before all others: the target may have a part of a stream, and is not to be
    ///    committed. Between compound files the space on the disk, memory or file handles may run out with
    ///    such a part, too, and another status.
    long copyTo(const StorageRef& target) const;
    /// Lets this package, as long as nothing in it has been saved, take over the compressed data of another
    /// one: streams that `copyTo` copies from `source` afterwards are not unpacked, unless they are changed
    /// or replace something. Until the next commit the file of `source` is in use. Returns 1, or 0 when that
    /// is not possible.
    ///  - STG_E_INVALIDFUNCTION: this is a compound file.
    ///  - STG_E_INVALIDPARAMETER: either handle is null, or the source is no open package.
    long borrowPackedData(const StorageRef& source);
    /// Commits what rule 5 says. In a compound file, the changes of this storage go to the storage above it,
    /// those of a root to the file; of a package, everything goes to the file. After a failure the commit may
    /// be repeated.
    ///  - STG_E_REVERTED: an element of this storage is lost (rule 5). Nothing was committed, nor will be
    ///    before that ends.
    long commit() const;

    /// Closes and frees the items below this one that no handle uses.
    void deleteUnusedObjects();

private:
    friend class StorageEnumerator;
    friend class StreamRef;
    friend class Vexel::Detail::TreeWalk;

    explicit StorageRef(IStorage* storage);
    explicit StorageRef(Vexel::Detail::ItemRef<VxStorage> item) noexcept;

    VxStorage* item_ = nullptr; // carries one reference
};

/// A handle on a stream, and itself a seekable byte stream of the library (byte_streams.h, whose rules hold).
class VEXEL_API StreamRef : public vxio::IReadStream, public vxio::IWriteStream {
public:
    /// Makes a null handle.
    StreamRef() noexcept = default;
    /// Takes one more reference on the item of `other`.
    StreamRef(const StreamRef& other) noexcept;
    StreamRef(StreamRef&& other) noexcept;
    /// Drops what this handle held, as close() does, and takes a reference on the item of `other`. Does
    /// nothing when both handles are on the same item.
    StreamRef& operator=(const StreamRef& other) noexcept;
    /// Swaps the two: what this handle held is dropped when `other` goes.
    StreamRef& operator=(StreamRef&& other) noexcept;
    /// Does what close() does.
    ~StreamRef();

    bool null() const noexcept { return item_ == nullptr; }
    bool notNull() const noexcept { return item_ != nullptr; }
    bool operator!() const noexcept { return null(); }
    explicit operator bool() const noexcept { return notNull(); }
    /// Whether both are on the same item; two null handles are equal.
    bool operator==(const StreamRef& other) const noexcept { return item_ == other.item_; }
    bool operator!=(const StreamRef& other) const noexcept { return item_ != other.item_; }

    /// Opens the stream `name` of `parent`. Its position is 0 then: a stream that is open already is rewound
    /// for all its handles.
    ///
    /// Opening for writing empties the stream. If it is open for reading, it is reopened for writing, and so
    /// are the storages above it. If it is not open, the parent has to be open for writing. A package's
    /// stream is unpacked as a whole when it is opened for reading, and not at all for writing.
    ///  - STG_E_ACCESSDENIED: also when a stream that is not open is wanted for writing, and the parent is
    ///    open for reading.
    ///  - STG_E_REVERTED: the stream is lost (rule 5), and wanted for reading.
    ///  - STG_E_READFAULT, STG_E_INVALIDFUNCTION and other failures to unpack: the contents cannot be had for
    ///    reading.
    ///  - The other statuses are those of StorageRef::open, with stream and storage exchanged.
    long open(const SharedPathName& name, const StorageRef& parent, bool readOnly);
    long open(const wchar_t* name, const StorageRef& parent, bool readOnly);
    long open(const CStringW& name, const StorageRef& parent, bool readOnly);

    /// Makes the stream `name` in `parent`, empty and open for reading and writing. It replaces a stream that
    /// stands there, and in a compound file also a storage. The parent is treated, and the statuses that are
    /// not named here are returned, as by StorageRef::create.
    ///  - STG_E_FILEALREADYEXISTS: a handle has the stream open; or, in a package, a storage of the name
    ///    stands there.
    long create(const SharedPathName& name, const StorageRef& parent);
    long create(const wchar_t* name, const StorageRef& parent);
    long create(const CStringW& name, const StorageRef& parent);

    /// Drops the reference of this handle and makes the handle null. The item stays open, except that the
    /// last handle on a compound file closes the root (rule 8).
    void close() noexcept;

    // Queries. Those without a comment answer as StorageRef's do.

    const SharedPathName& name() const noexcept;
    bool readOnly() const noexcept;
    StorageFormat format() const noexcept;
    StreamCompression compression() const noexcept;
    /// The size in bytes; 0 also when it cannot be asked.
    unsigned long long size() const;
    long stat(FILETIME* created, FILETIME* modified) const;
    /// The item's interface, borrowed (rule 7). A closed item is opened; when that fails, the result is null.
    ::IStream* stream() const;

    // Contents. Reading and writing make one call of the item's interface. `done` may be null; otherwise it
    // receives the number of bytes moved, on failure too.

    /// Reads from the position on. At the end of the stream the status is S_OK with fewer bytes than asked
    /// for, or none.
    ///  - STG_E_INVALIDPARAMETER: also when the stream cannot be opened.
    long read(void* buffer, unsigned long count, unsigned long* done);
    /// Writes at the position.
    ///  - STG_E_INVALIDPARAMETER: also when the stream cannot be opened.
    ///  - STG_E_ACCESSDENIED: the stream is open for reading.
    long write(const void* buffer, unsigned long count, unsigned long* done);
    /// Cuts the stream off at this size, or extends it to it by bytes of no given value. The position stays.
    /// After a failure the stream has its old contents, unless it is lost (rule 5).
    ///  - E_FAIL: this handle is null.
    long setSize(unsigned long long size);
    /// Replaces the contents of `target` by those of this stream. The position of this stream stays, that of
    /// the target is at its end afterwards. On failure the target holds what was copied until then, or what
    /// it held before.
    ///  - STG_E_INVALIDPARAMETER: either handle is null or cannot be opened, or both are on the same stream.
    ///  - STG_E_READFAULT: this stream holds less than its size says.
    ///  - Other statuses of reading and writing.
    long copyTo(StreamRef& target);
    long commit() const;

    // The byte stream. On a null handle, or when the stream cannot be opened, these functions return 0 and
    // move nothing.

    unsigned long long SeekToEnd() override;
    void SeekToBegin() override;
    /// Returns what size() does.
    unsigned long long GetLength() override;
    /// In a compound file, a position before the start, or beyond both the end and 4 GiB, is refused like a
    /// move that fails: not every version of the system's storage survives the read that follows.
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
///     if (child.reset(storage) == S_OK)
///         while (child.moveNext())
///             use(child.name(), child.type());
class VEXEL_API StorageEnumerator {
public:
    /// Makes a null enumerator.
    StorageEnumerator() noexcept = default;
    StorageEnumerator(StorageEnumerator&& other) noexcept;
    /// Copies the pointer and nothing else: what this handle held is not destroyed, and of the two handles
    /// that now name one enumerator only one may be reset, released or destroyed. Kept for callers that rely
    /// on it.
    StorageEnumerator& operator=(const StorageEnumerator& other) noexcept = default;
    /// Does what release() does.
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

    /// Begins a listing of the children that `storage` has now. A closed storage is opened for that. What
    /// happens to the storage afterwards does not change the listing. On failure the enumerator is null.
    ///  - STG_E_INVALIDPARAMETER: the storage is null.
    ///  - E_FAIL: its format has no listing.
    long reset(const StorageRef& storage);
    /// Steps to the next child. False at the end, and when the listing cannot go on. Children that are
    /// neither storage nor stream are passed over.
    bool moveNext();
    /// Why moveNext returned false: S_FALSE at the end, otherwise a failure, after which there may be
    /// children that were not listed. Before that the status is S_OK, and for a null enumerator
    /// STG_E_INVALIDPARAMETER.
    long status() const noexcept;

    // The current child. Before the first step and after the last child the name is empty, the type is 0, and
    // the size and the times are 0.

    /// The reference is valid until the next step.
    const SharedPathName& name() const noexcept;
    StorageType type() const noexcept;
    /// The size in bytes; 0 for a storage.
    ULARGE_INTEGER size() const noexcept;
    FILETIME createTime() const noexcept;
    FILETIME writeTime() const noexcept;
    StorageFormat format() const noexcept;

    /// Destroys the enumerator and makes the handle null.
    void release() noexcept;

private:
    VxStorageEnumerator* enumerator_ = nullptr; // owned by this handle alone
};

/// The process-wide owner of all roots. Whoever opens or creates a root by its path holds the container's one
/// lock to the end, during the system's calls too, and others wait meanwhile. Only the file of a temporary
/// root is made without that lock.
class VEXEL_API StorageContainer {
public:
    /// The container lives until the process ends, and outlives even handles in static storage. At the end
    /// only the roots whose files are temporary are closed, so that these files can be deleted.
    static StorageContainer& Instance();

    StorageContainer(const StorageContainer&) = delete;
    StorageContainer& operator=(const StorageContainer&) = delete;

    /// Whether temporary roots are made as files instead of in memory; false at first. The two spellings are
    /// for one setting; setting it returns the previous value.
    bool GetCreateOnDisk() const;
    bool SetCreateOnDisk(bool onDisk);
    bool createOnDisk() const { return GetCreateOnDisk(); }
    bool setCreateOnDisk(bool onDisk) { return SetCreateOnDisk(onDisk); }

    /// Closes and frees every item, roots included, that no handle uses. Returns whether anything was freed.
    bool deleteUnusedObjects();

    /// Sets the function that runs instead of deleteUnusedObjects when the system reports exhausted memory or
    /// file handles; null stands for the default. The callback returns whether it freed anything; usually it
    /// drops some of the application's handles and calls deleteUnusedObjects. It runs without any root's
    /// lock, but, when a root is being opened by its path, with the container's: it must not wait for a
    /// thread that opens roots.
    void setDeleteUnusedObjectsCallback(bool (*callback)());

    /// Closes all roots, dropping changes that were not committed, and empties the tables; for the end of the
    /// application. Handles that are left stay valid: when they are used again, they open their root anew,
    /// apart from roots that were opened later. But a caller's interface, and a temporary root in memory, are
    /// gone for them.
    void clearAll();

private:
    constexpr StorageContainer() noexcept = default;
    ~StorageContainer() = default;
};
