#pragma once

/// A package: a standard 7z archive that serves as a structured file. Its items are the streams, its
/// directories the storages.
///
/// The rules of all that follows:
///  - Paths are elements joined by "/", without one at either end. The empty path is the root, which has no
///    item of its own. Paths are compared code unit by code unit, so case counts. Elements are stored as
///    `SZipArchive::encodePathElement` makes them; nothing here encodes or decodes by itself.
///  - Changes are kept in memory until `save`, which writes a whole new archive beside the old one and then
///    replaces the old one by it. Whatever fails on the way, the file is the old one or, if it was replaced
///    already, the new one, and the archive in memory can be used and saved again. Whatever becomes of the
///    file, contents that are in memory can be read, changed and saved elsewhere.
///  - Statuses are those of the storage facility. A Win32 error keeps its code there (0x80030000 | code), and
///    a call of the system that failed without an error gives 0x80030000. Exhausted memory is
///    STG_E_INSUFFICIENTMEMORY. A caller's stream that fails gives its own status; a positive one, which
///    would pass for a success, is replaced by a failure. Failures are logged with the archive's name.
///  - Only constructors and functions that return a string or change a name throw (std::bad_alloc,
///    CMemoryException*).
///  - Threads: an archive may be used from many threads at once, except for its constructors, destructor,
///    assignment and `setFileName`. Functions that take no lock say so. An item pointer is valid until the
///    item is removed.

#include <vexel/export.h>
#include <vexel/framework.h>

#include <windows.h>

#include <objidl.h>
#include <wrl/client.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string_view>
#include <utility>

namespace Vexel::Storage {

class SZipArchive;
class SZipArchivePrivate;
class SZipStream;

/// The order of item paths: by UTF-16 code units, a prefix first.
struct StringLess {
    using is_transparent = void;

    static std::wstring_view view(std::wstring_view text) noexcept { return text; }
    static std::wstring_view view(const CString& text) noexcept {
        return {text.GetString(), static_cast<std::size_t>(text.GetLength())};
    }
    /// How many units two texts have in common at their beginning. Paths of one directory share most of
    /// theirs, so those go by blocks.
    static std::size_t commonLength(std::wstring_view a, std::wstring_view b) noexcept {
        constexpr std::size_t kBlock = 16;
        const std::size_t length = a.size() < b.size() ? a.size() : b.size();
        std::size_t done = 0;
        while (done + kBlock <= length &&
               std::memcmp(a.data() + done, b.data() + done, kBlock * sizeof(wchar_t)) == 0)
            done += kBlock;
        while (done < length && a[done] == b[done])
            ++done;
        return done;
    }
    template <class A, class B>
    bool operator()(const A& a, const B& b) const noexcept {
        return isLess(view(a), view(b));
    }

    /// Two texts that stand for the one that they make together, to look for that without making it.
    struct Joined {
        std::wstring_view head, tail;
    };
    template <class A>
    bool operator()(const A& a, const Joined& b) const noexcept {
        const std::wstring_view text = view(a);
        const std::size_t common = commonLength(text, b.head);
        if (common == b.head.size())
            return isLess(text.substr(common), b.tail);
        return common == text.size() || text[common] < b.head[common];
    }

private:
    static bool isLess(std::wstring_view a, std::wstring_view b) noexcept {
        const std::size_t common = commonLength(a, b);
        if (common == a.size() || common == b.size())
            return a.size() < b.size();
        return a[common] < b[common];
    }
};

/// A file or directory of an archive. It lives in the archive's map and is reached through it.
class VEXEL_API SZipArchiveItem {
public:
    SZipArchiveItem(SZipArchivePrivate& archive, bool isDirectory);
    SZipArchiveItem(const SZipArchiveItem&) = delete;
    SZipArchiveItem& operator=(const SZipArchiveItem&) = delete;
    ~SZipArchiveItem();

    /// The size in bytes of the contents as they are now, changes included.
    unsigned long long size() const;
    bool isDirectory() const noexcept { return isDirectory_; }
    /// Whether the archive marks the item as a deletion.
    bool isAnti() const noexcept { return isAnti_; }
    /// The CRC-32 of the contents in the file; 0 when the file records none.
    unsigned crc() const noexcept { return crc_; }
    /// The packed bytes of the contents in the file; 0 when it has none. Of a folder that several items share
    /// each has the part that its size is of theirs. Takes no lock: it must not be called while another
    /// thread reloads or saves.
    unsigned long long packedSize() const noexcept;

    /// The times are in UTC, and zero when the archive has none. They take no lock: reading them while
    /// another thread sets them, reloads or saves may give a mixture.
    FILETIME creationFileTime() const noexcept { return creationTime_; }
    FILETIME modificationFileTime() const noexcept { return modificationTime_; }
    void setCreationTime(const FILETIME& time) noexcept;
    void setModificationTime(const FILETIME& time) noexcept;
    /// Sets the modification time to now.
    void touch() noexcept;

    /// Gives back the memory of contents that are the same in the file and that nobody holds.
    void flush();

private:
    friend class SZipArchive;
    friend class SZipArchivePrivate;

    void flushIfIdle();
    bool canFlush() const noexcept; // with the lock held

    SZipArchivePrivate* archive_;
    Microsoft::WRL::ComPtr<SZipStream> contents_; // null while they are only in the file
    unsigned long long size_ = 0;
    FILETIME creationTime_{};
    FILETIME modificationTime_{};
    unsigned crc_ = 0;
    mutable std::atomic<std::uint64_t> lock_{0};
    int databaseIndex_ = -1; // of the record in the archive that was read
    bool isDirectory_;
    bool isAnti_ = false;
};

/// A 7z archive in memory. Contents are read when they are asked for and stay, until they are flushed.
///
/// Contents can be read if their item uses the methods Copy, LZMA and LZMA2 and has a folder (7z's coded
/// unit) of its own. Archives with other items can be opened and listed, but such contents are refused.
/// Directories for which the archive has no item are among the items all the same.
class VEXEL_API SZipArchive {
public:
    /// Makes an archive that is read from `stream`, on which it takes a reference. It cannot be changed.
    /// Nothing is read before `reload`.
    explicit SZipArchive(IStream* stream);
    /// Makes an archive at `path`, or with an empty path one that has no file and is never read or written.
    /// Nothing is read before `reload`. With `silentDiscard` destroying it unsaved is no reason for a
    /// warning.
    SZipArchive(std::wstring_view path, bool readOnly, bool silentDiscard);
    /// Afterwards the other archive may only be assigned to or destroyed.
    SZipArchive(SZipArchive&& other) noexcept;
    SZipArchive& operator=(SZipArchive&& other) noexcept;
    /// Does not save, and logs a warning when that loses changes.
    ~SZipArchive();
    void swap(SZipArchive& other) noexcept { private_.swap(other.private_); }

    /// Reads the file or stream. Items in memory that the file has, too, get the file's attributes. Changed
    /// contents, and items that the file does not have, stay, and the next save writes changed contents. On
    /// failure everything in memory stays, and a save loses nothing; but contents that were not read yet
    /// cannot be had before a reload or a save succeeds.
    ///  - STG_E_FILENOTFOUND and other Win32 codes: the archive is read-only, and its file cannot be opened.
    ///    An archive that can be changed counts as a new one then: the status is S_OK, and `openingStatus`
    ///    tells why. For both, so does a file that cannot be opened although the system names no error.
    ///  - STG_E_INVALIDHEADER: it is not a 7z archive, or its headers are damaged.
    ///  - HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED): the headers use something that the library does not
    ///    support.
    ///
    /// An archive with several items of one path, or with a file that has items below it, is read-only from
    /// then on and cannot be saved to a stream either. Of several items of one path the last one is there;
    /// the log names the hidden ones.
    HRESULT reload();

    /// Why the file could not be opened when the archive was read last; S_OK when it could.
    HRESULT openingStatus() const;

    /// The path, or whatever name was given for messages. Takes no lock.
    const CString& fileName() const noexcept;
    void setFileName(const CString& name);
    bool readOnly() const noexcept;

    /// All items by path. Takes no lock: it must not be used while another thread may add, move or remove
    /// items.
    const std::map<CString, SZipArchiveItem, StringLess>& items() const noexcept;
    /// The item with this path; null when there is none. Takes no lock, as `items`.
    SZipArchiveItem* item(std::wstring_view path) const;
    SZipArchiveItem* item(const CString& path) const { return item(StringLess::view(path)); }
    /// Calls `visit` for each item in a directory, or at the root for the empty path, with its name. A share
    /// of the lock is held meanwhile: `visit` may ask the item for what takes no lock of the archive (size,
    /// times, flags), but must not call the archive, which could wait for ever.
    ///  - STG_E_INSUFFICIENTMEMORY: memory is exhausted, or `visit` threw std::bad_alloc; not all items were
    ///    visited.
    HRESULT
    visitChildren(const CString& path,
                  const std::function<void(const CString& name, const SZipArchiveItem& item)>& visit) const;
    /// The name of an item: its last element, decoded. Where encoding the name would not give the element
    /// back, as with many that other programs wrote, the name is the element as it is. Where another item of
    /// the directory has that name, it is encoded further.
    CString nameOf(const CString& path) const;
    /// The path of the item of that name in a directory, or the path that a new item of that name is to have.
    /// `nameOf` and this function undo each other. Both throw std::bad_alloc, CMemoryException*.
    CString childPath(const CString& directory, std::wstring_view name) const;
    /// These two answer under the lock: whether there is such a directory, and an item's times, which are
    /// left as they are when there is no such item.
    bool hasDirectory(const CString& path) const;
    void itemTimes(const CString& path, FILETIME& creation, FILETIME& modification) const;
    bool isEmpty() const;
    /// Whether anything was created, changed, moved or removed since the last load or save. Takes no lock.
    bool isChanged() const noexcept;

    /// The times of the archive's file; note their order. False, with nothing set, unless a file is open. Any
    /// pointer may be null.
    bool fileTimes(FILETIME* creation, FILETIME* lastWrite, FILETIME* lastAccess) const;

    /// Gives the contents of a file as a stream at position 0. All streams of one item show the same bytes;
    /// each has its own position. They refuse changes when the archive is read-only; otherwise the next save
    /// writes what was changed through them. `*result` receives the stream with one reference, or null.
    ///  - STG_E_INVALIDPOINTER: `result` is null.
    ///  - STG_E_INVALIDNAME: the path is empty or begins with "/".
    ///  - STG_E_FILENOTFOUND: there is no such item, it is a directory, or its contents are not in the file
    ///    that was read.
    ///  - STG_E_INVALIDFUNCTION: the item shares a folder with others.
    ///  - STG_E_READFAULT: the contents are not those that were stored, or cannot be, because the packed
    ///    bytes are far too few for them.
    ///  - Win32 codes of opening the file again after a save that failed.
    ///  - STG_E_INVALIDHEADER: the file was opened again, and is another one.
    ///  - STG_E_INSUFFICIENTMEMORY.
    ///  - The code of the archive's stream, when that cannot be cloned.
    ///  - E_NOTIMPL: the contents use a method that is not known here, such as encryption. That is no damage.
    ///  - The engine's code when it cannot decode, such as S_FALSE for packed data that are damaged.
    ///  - S_OK with a null `*result`: there were data behind the end of the contents. So look at both.
    HRESULT extractFile(IStream** result, std::wstring_view path);
    HRESULT extractFile(IStream** result, const CString& path) {
        return extractFile(result, StringLess::view(path));
    }
    /// Empties a file for contents that are to replace the old ones, which are not unpacked: so this takes no
    /// time for a large one, and succeeds for one that cannot be unpacked. Streams that others have of the
    /// item show the new contents, too. Statuses as of `extractFile`, without those of unpacking, and
    /// STG_E_ACCESSDENIED: the archive is read-only.
    /// `keeper` lives as long as the stream.
    HRESULT openEmptied(IStream** result, const CString& path,
                        const std::shared_ptr<const void>& keeper = nullptr);

    // Changes. Statuses that all of them can return:
    //  - STG_E_ACCESSDENIED: the archive is read-only.
    //  - STG_E_INVALIDNAME: the path begins with "/" or, where an item is needed, is empty. For an item that
    //    is made or moved, also when the path has an empty element ("a//b", "a/").
    //  - STG_E_FILENOTFOUND: an item was to be made or moved where the parent is no directory.

    /// Makes a new file, which counts as changed even if nothing is written. When there is such a file
    /// already, it depends on the last two arguments: with `failIfExists` the status is
    /// STG_E_FILEALREADYEXISTS; with `replace` the file becomes empty, and its old contents are not needed;
    /// with neither its contents are given as by `extractFile`. A mark for a deletion that contents are
    /// written into becomes a file.
    ///  - STG_E_INVALIDPOINTER: `result` is null.
    ///  - STG_E_INVALIDNAME: here also when the parent is no directory.
    ///  - STG_E_FILEALREADYEXISTS: also when a directory has that name.
    HRESULT createFile(IStream** result, const CString& path, bool failIfExists, bool replace);
    /// Makes a new directory. One that exists is left as it is, or with `clear` emptied.
    ///  - STG_E_INVALIDFUNCTION: a file has that name.
    ///  - STG_E_FILEALREADYEXISTS: the directory exists, and `failIfExists` is set.
    HRESULT createDirectory(const CString& path, bool failIfExists, bool clear);
    /// Removes an item and all below it. STG_E_FILENOTFOUND when there is no such item.
    HRESULT remove(std::wstring_view path);
    HRESULT remove(const CString& path) { return remove(StringLess::view(path)); }
    /// Gives an item and all below it a new path.
    ///  - STG_E_FILENOTFOUND: there is no such item.
    ///  - STG_E_FILEALREADYEXISTS: the new path has an item.
    ///  - STG_E_ACCESSDENIED: the item would be moved into itself.
    HRESULT move(std::wstring_view from, std::wstring_view to);
    HRESULT move(const CString& from, const CString& to) {
        return move(StringLess::view(from), StringLess::view(to));
    }
    /// Removes all items below a directory, or for the empty path all that there are.
    ///  - STG_E_FILENOTFOUND: there is no such item.
    ///  - STG_E_INVALIDFUNCTION: it is not a directory.
    HRESULT clear(std::wstring_view path);
    HRESULT clear(const CString& path) { return clear(StringLess::view(path)); }

    /// Gives back the memory of unchanged contents that nobody holds: those of the item and of all below it,
    /// or for the empty path all. Read-only archives allow it.
    ///  - STG_E_INVALIDNAME: the path begins with "/".
    ///  - STG_E_FILENOTFOUND: there is no such item.
    HRESULT flush(std::wstring_view path);
    HRESULT flush(const CString& path) { return flush(StringLess::view(path)); }
    /// As flush, but does not wait for other threads. Contents that another thread is reading stay. While
    /// another thread changes or saves the archive, all contents stay, and the result is S_FALSE.
    HRESULT flushIfIdle(std::wstring_view path);
    HRESULT flushIfIdle(const CString& path) { return flushIfIdle(StringLess::view(path)); }

    /// Lets items of `source` be copied without recompression: from then on both archives read from the file
    /// that `source` has read, which stays open as long as either needs it.
    ///  - STG_E_INVALIDFUNCTION: an item of this archive still needs the archive's own file.
    HRESULT borrowPackedData(const SZipArchive& source);
    /// Copies an item and all below it. Contents that are unchanged since they were read from a file that
    /// both archives share stay packed; others are copied, and decoded if need be. Items that were copied
    /// before a failure stay.
    ///  - STG_E_INVALIDFUNCTION: `source` is this archive.
    ///  - STG_E_FILENOTFOUND: there is no such item.
    ///  - STG_E_FILEALREADYEXISTS: a file has one of the paths, or a file would get that of a directory.
    ///  - Failures of `extractFile`.
    HRESULT addItem(const SZipArchive& source, std::wstring_view sourcePath, const CString& targetPath);
    HRESULT addItem(const SZipArchive& source, const CString& sourcePath, const CString& targetPath) {
        return addItem(source, StringLess::view(sourcePath), targetPath);
    }
    /// Does what `addItem` does for the item at `path`, or for the empty path for all items that there are.
    /// They keep their paths.
    HRESULT addItems(const SZipArchive& source, const CString& path);

    /// Replaces the file by one with all changes; nothing is done when there are none. With `flushAfterwards`
    /// a `flush` of everything follows.
    ///
    /// A file that `reload` could not read, or did not find, is read first, and items that it has and memory
    /// does not are kept. While that fails, the file is not replaced, unless there is none. An archive that
    /// was never to be read replaces whatever is there. The packed contents of unchanged items are copied.
    /// Where one item of a folder is changed or removed, the folder's other items are unpacked and written
    /// one by one.
    ///  - STG_E_ACCESSDENIED: the archive is read-only, or (as the Win32 code) the file is in use.
    ///  - STG_E_FILENOTFOUND: contents that were never read are gone with their file.
    ///  - STG_E_FILEALREADYEXISTS: there is a file, but this archive was read from another one, or has read
    ///    none and borrows; or the file is read only now, and has a file where memory has a directory, or the
    ///    other way round.
    ///  - STG_E_INVALIDHEADER: the file that was read is not the one that is there.
    ///  - STG_E_INUSE, from whatever takes a lock: only at the end of the process, when a thread was ended
    ///    while it was changing the archive.
    ///  - STG_E_READFAULT: contents that have to be unpacked are damaged.
    ///  - Win32 codes of opening, creating, writing and replacing; the engine's codes; those of `reload`.
    HRESULT save(bool flushAfterwards);
    /// Writes the whole archive to a stream, from its position on. This archive does not change. The statuses
    /// are those of `save`, and those of the stream.
    HRESULT save(IStream* destination) const;
    /// The same. Without this overload, a pointer could equally well be taken for a `bool`.
    HRESULT save(IStream* destination) { return std::as_const(*this).save(destination); }

    /// Makes the element of a path that stands for a name: "/", "%" and characters below 0x20 become "%" and
    /// two hexadecimal digits.
    static CString encodePathElement(std::wstring_view name);
    static CString encodePathElement(const CString& name) {
        return encodePathElement(StringLess::view(name));
    }
    /// Makes the name that an element stands for. Malformed escapes, which `encodePathElement` never makes,
    /// come out garbled, but always in the same way: "%zAB" is "%" and U+000B.
    static CString decodePathElement(std::wstring_view element);
    static CString decodePathElement(const CString& element) {
        return decodePathElement(StringLess::view(element));
    }

private:
    std::unique_ptr<SZipArchivePrivate> private_;
};

inline void swap(SZipArchive& a, SZipArchive& b) noexcept { a.swap(b); }

} // namespace Vexel::Storage
