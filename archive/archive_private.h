#pragma once

#include "archive/database.h"
#include "archive/folder_splitter.h"
#include "archive/item_paths.h"
#include "archive/szip_stream.h"
#include "archive/update_step.h"
#include "base/rw_lock.h"
#include "base/status_guard.h"

#include <vexel/archive.h>

#include <atomic>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <ranges>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace Vexel::Storage {

using Detail::RwGuard;
using Detail::RwLockWord;
using Detail::RwTryGuard;
using Microsoft::WRL::ComPtr;

/// How the items stand to the file at the archive's path.
enum class FileState : std::uint8_t {
    Ignored, ///< It was never to be read: the archive is made anew, and replaces whatever is there.
    Unread,  ///< It could not be read, or was not there.
    Stale,   ///< It was read, but could not be read again: what was not read before counts as missing for all
             ///< but a save.
    Read     ///< `fileDatabase` is that of the file.
};

/// The state of an archive, and what is done to it. The functions expect the lock to be held as they say.
///
/// Every file item has its contents in memory or, by its index, in `database`; no failure may part an item
/// from both. The database is the file's, or another archive's whose packed data were borrowed. Its file may
/// be closed (`Engine::DatabaseStream::open`), which matters only to who needs contents that are not in
/// memory.
class SZipArchivePrivate {
public:
    using ItemMap = std::map<CString, SZipArchiveItem, StringLess>;
    using Database = std::shared_ptr<Engine::DatabaseStream>;

    CString fileName;
    Database database;
    ItemMap items;
    mutable RwLockWord lock{0};
    bool noFile = false;
    std::atomic<bool> readOnly{false};
    /// Whether the file has several items of one path, or a file with items below it: then the archive is
    /// read-only, and not to be written anywhere, for that would drop items.
    bool isAmbiguous = false;
    bool silentDiscard = false;
    SZipStream::ChangeMark changed = std::make_shared<std::atomic<bool>>(false);

    // With the lock held exclusively:

    HRESULT reload();
    HRESULT openingStatus() const noexcept { return openingStatus_; }
    HRESULT save();
    HRESULT createFile(const CString& path, bool failIfExists, bool replace, IStream** result);
    HRESULT createDirectory(const CString& path, bool failIfExists, bool clear);
    HRESULT move(std::wstring_view from, std::wstring_view to);
    void eraseDescendants(std::wstring_view path);
    HRESULT borrowPackedData(const SZipArchivePrivate& source);
    /// Copies an item, or nothing for the empty path, and all below it.
    HRESULT addTree(const SZipArchivePrivate& source, std::wstring_view sourcePath,
                    std::wstring_view targetPath);

    /// Runs `open` for a file's item and path, with a share of the lock.
    template <class Open>
    HRESULT openFile(std::wstring_view path, IStream** result, Open open);

    /// Runs `body`, and turns exhausted memory into its status. STG_E_INUSE when the lock cannot be had.
    template <class Body>
    HRESULT locked(RwGuard::Mode mode, const Body& body) const {
        return Detail::withStatus([&]() -> HRESULT {
            const RwGuard guard(lock, mode);
            return guard ? body() : STG_E_INUSE;
        });
    }

    // With at least a share of it:

    HRESULT extract(SZipArchiveItem& item, const CString& path, IStream** result);
    HRESULT openEmptied(SZipArchiveItem& item, const CString& path, const std::shared_ptr<const void>& keeper,
                        IStream** result);
    HRESULT saveTo(IStream* destination) const;
    /// What decoding an item came to: its whole contents, or else the status that says why there are none.
    /// That is S_OK where packed data are left over behind the contents; see `SZipArchive::extractFile`.
    struct Decoded {
        HRESULT status = S_OK;
        std::optional<DynamicBuffer> contents;
    };
    /// For an item that has no contents in memory.
    Decoded decode(const SZipArchiveItem& item, const CString& path) const;
    /// The contents of any item, or a failure.
    HRESULT copyContents(const SZipArchiveItem& item, const CString& path, DynamicBuffer& bytes) const;
    enum class Flushing { WaitsForOthers, PassesThemOver };
    HRESULT flush(std::wstring_view path, Flushing flushing);
    bool hasDirectory(std::wstring_view path) const;
    bool hasParentOf(std::wstring_view path) const {
        const std::wstring_view parent = parentOf(path);
        return path.find(L'/') == std::wstring_view::npos || hasDirectory(parent);
    }
    /// Whether an item can be made there: STG_E_INVALIDNAME for a path that none can have, STG_E_FILENOTFOUND
    /// where its parent is no directory.
    HRESULT checkNewPath(std::wstring_view path) const {
        if (!isNewItemPath(path))
            return STG_E_INVALIDNAME;
        return hasParentOf(path) ? S_OK : STG_E_FILENOTFOUND;
    }
    /// See `SZipArchive::nameOf`, `SZipArchive::childPath`.
    CString nameOf(std::wstring_view directory, std::wstring_view element) const;
    CString childPath(std::wstring_view directory, std::wstring_view name) const;

    /// Where the item of that path is, or belongs. Items are mostly made in their order, each behind the
    /// last.
    ItemMap::iterator placeOf(std::wstring_view path) {
        const bool isLast = items.empty() || StringLess()(std::prev(items.end())->first, path);
        return isLast ? items.end() : items.lower_bound(path);
    }
    bool isAt(ItemMap::const_iterator place, std::wstring_view path) const noexcept {
        return place != items.end() && StringLess::view(place->first) == path;
    }
    /// Where the items behind all that is below `path` begin; the path is not empty.
    template <class Map>
    static auto descendantsEnd(Map& map, std::wstring_view path) {
        constexpr wchar_t kBehindSlash[] = {L'/' + 1, 0};
        return map.lower_bound(StringLess::Joined{path, kBehindSlash});
    }
    /// The items below `path`, or all there are for the empty path. They are found by looking for both ends:
    /// to compare each with the path would take the time of its length.
    template <class Map>
    static auto descendants(Map& map, std::wstring_view path) {
        if (path.empty())
            return std::ranges::subrange(map.begin(), map.end());
        const auto first = map.lower_bound(StringLess::Joined{path, L"/"});
        const bool isAny = first != map.end() && isInside(path, StringLess::view(first->first));
        return std::ranges::subrange(first, isAny ? descendantsEnd(map, path) : first);
    }

    /// The index of the item's record, or -1.
    int recordOf(const SZipArchiveItem& item) const noexcept;
    bool isPacked(unsigned record) const noexcept;

private:
    /// Contents that are written, and how often they were changed by then.
    struct Written {
        ComPtr<SZipStream> contents;
        std::uint64_t changes;
    };
    /// An item whose contents have to be decoded from the database.
    struct Wanted {
        unsigned record;
        std::size_t entry;
    };
    struct Update {
        std::vector<Engine::UpdateEntry> entries;
        std::vector<Written> written;
        std::vector<Wanted> wanted;
        std::vector<bool> taken;     ///< by index in the database
        HRESULT sourceStatus = S_OK; ///< of the database's file
    };
    /// A database that was read, with the items that it has. All that needs memory is done.
    struct Reading {
        Database database;
        ItemMap added; ///< items that memory does not have, as their records describe them
        /// Items that memory has, and their records.
        std::vector<std::pair<SZipArchiveItem*, unsigned>> records;
        std::vector<unsigned> hidden; ///< records of added items that a later one describes, too
        std::vector<std::pair<const CString*, const SZipArchiveItem*>> parents; ///< that have items
        std::vector<unsigned> outOfReach; ///< records that no storage leads to
        bool contradictsMemory = false;   ///< a directory for one is a file for the other
        std::size_t room = 0;             ///< bytes left for directories that are made up
    };
    /// What becomes of items in memory that the file contradicts.
    enum class Contradiction { FileHolds, Refused };

    HRESULT read(Contradiction contradiction);
    HRESULT openInput(Database& fresh);
    Reading match(Database fresh);
    void addParents(Reading& reading);
    /// Makes up a directory and those above it, as far as they are missing. Whether storages lead to it.
    bool addParents(Reading& reading, std::wstring_view directory);
    void takeOver(Reading&& reading) noexcept;
    void noteHidden(unsigned record) noexcept;
    void reportAmbiguities(const Reading& reading) noexcept;
    void logRecord(const wchar_t* format, unsigned record) const noexcept;
    static void describeBy(const Engine::DatabaseStream& source, unsigned index,
                           SZipArchiveItem& item) noexcept;
    void refresh(SZipArchiveItem& item, unsigned index) const noexcept;
    bool hasModifiedContents() const noexcept;

    ComPtr<SZipStream> newContents(DynamicBuffer&& bytes, const CString& path) const;
    HRESULT addCopy(const SZipArchivePrivate& source, const SZipArchiveItem& item, const CString& sourcePath,
                    const CString& targetPath);
    Decoded decodePacked(const CString& path, unsigned record) const;
    HRESULT reserve(DynamicBuffer& bytes, const CString& path, unsigned record) const;
    bool isAsStored(const CString& path, unsigned record, const DynamicBuffer& bytes,
                    std::uint32_t crc) const;
    void logDecodingFailure(const CString& path, HRESULT status) const noexcept;

    HRESULT describe(Update& update) const;
    HRESULT describe(const CString& path, const SZipArchiveItem& item, Update& update) const;
    bool claimPackedData(int record, Engine::UpdateEntry& entry, Update& update) const;
    HRESULT requestDecoding(int record, const CString& path, Update& update) const;
    void takeFoldersApart(Update& update) const;
    HRESULT decodeWanted(Update& update) const;
    HRESULT decodeWanted(std::span<const Wanted> wanted, Update& update) const;
    bool areVerified(std::span<const Engine::FolderSplitter::Part> parts) const noexcept;

    /// The one place that decides whether a save may replace the file. Where the file was not read, it is
    /// now.
    HRESULT checkReplaceable();
    HRESULT write(const Update& update, Engine::TemporaryFile& temporary, const CString& path,
                  Reading& written);
    HRESULT replaceFile(const CString& temporaryPath);
    /// The database of the archive's own file, if that was read.
    Database& fileDatabase() noexcept { return ownDatabase_ ? ownDatabase_ : database; }
    HRESULT finish(const Update& update, Reading&& written) noexcept;
    void markAllModified() noexcept;

    Database ownDatabase_; ///< of the archive's file, while `database` is another's
    FileState fileState_ = FileState::Ignored;
    HRESULT openingStatus_ = S_OK;
};

} // namespace Vexel::Storage
