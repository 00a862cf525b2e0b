#pragma once

#include "archive/database.h"
#include "archive/item_paths.h"
#include "archive/rw_lock.h"
#include "archive/szip_stream.h"
#include "archive/update_step.h"

#include <vexel/archive.h>

#include <memory>
#include <string_view>
#include <vector>

namespace Vexel::Storage {

using Detail::RwGuard;
using Detail::RwLockWord;
using Detail::RwTryGuard;
using Microsoft::WRL::ComPtr;

/// The state of an archive, and what is done to it. The functions expect the lock to be held as they say.
///
/// Every file item has its contents in memory or, by its index, in `database`; no failure may part an item
/// from both. So indices that a failed reload forgets are remembered (`SZipArchiveItem::oldIndex_`), and what
/// a save could not finish is finished before anything is changed (`settle`).
class SZipArchivePrivate {
public:
    using ItemMap = std::map<CString, SZipArchiveItem, StringLess>;
    using Database = std::shared_ptr<Engine::DatabaseStream>;

    CString fileName;
    Database database;
    ItemMap items;
    mutable RwLockWord lock{0};
    bool noFile = false;
    bool readOnly = false;
    bool silentDiscard = false;
    SZipStream::ChangeMark changed = std::make_shared<std::atomic<bool>>(false);

    // With the lock held exclusively:

    HRESULT reload();
    /// Catches up on what a save could not do: reads the file that it wrote, or opens the old one again. To
    /// be called before anything else when `isSettled` is false.
    HRESULT settle();
    HRESULT openingStatus() const noexcept { return notOpened_; }
    bool isSettled() const noexcept { return !unread_ && (!database || database->isOpen()); }
    HRESULT save();
    HRESULT createFile(const CString& path, bool failIfExists, bool replace, IStream** result);
    HRESULT createDirectory(const CString& path, bool failIfExists, bool clear);
    HRESULT move(std::wstring_view from, std::wstring_view to);
    void eraseDescendants(std::wstring_view path);
    HRESULT borrowPackedData(const SZipArchivePrivate& source);
    /// Copies an item, or nothing for the empty path, and all below it.
    HRESULT addTree(const SZipArchivePrivate& source, std::wstring_view sourcePath,
                    std::wstring_view targetPath);

    // With at least a share of it:

    HRESULT extract(SZipArchiveItem& item, const CString& path, IStream** result);
    HRESULT saveTo(IStream* destination) const;
    HRESULT flush(std::wstring_view path, void (SZipArchiveItem::*drop)());
    bool hasDirectory(std::wstring_view path) const;
    bool hasParentOf(std::wstring_view path) const {
        const std::wstring_view parent = parentOf(path);
        return path.find(L'/') == std::wstring_view::npos || hasDirectory(parent);
    }

    /// The first item below `path`, or the first there is for the empty path; the others follow it.
    template <class Map>
    static auto descendantsBegin(Map& map, std::wstring_view path) {
        return path.empty() ? map.begin() : map.lower_bound(std::wstring(path) + L'/');
    }
    static bool isDescendant(std::wstring_view path, const CString& key) noexcept {
        return isInside(path, StringLess::view(key));
    }

private:
    /// Contents that are written, and how often they were changed by then.
    struct Written {
        ComPtr<SZipStream> contents;
        std::uint64_t changes;
    };
    struct Update {
        std::vector<Engine::UpdateEntry> entries;
        std::vector<Written> written;
        std::vector<bool> taken; ///< by index in the database
    };

    HRESULT read();
    HRESULT openInput(Database& fresh);
    void takeOver(Database fresh);
    void refresh(SZipArchiveItem& item, unsigned index) const noexcept;
    void forgetOldIndices() noexcept;

    ComPtr<SZipStream> newContents(DynamicBuffer&& bytes, const CString& path) const;
    HRESULT addCopy(const SZipArchivePrivate& source, const SZipArchiveItem& item, const CString& sourcePath,
                    const CString& targetPath);
    /// The contents are there only if `isWhole`, whatever the status.
    HRESULT decode(const SZipArchiveItem& item, const CString& path, DynamicBuffer& bytes,
                   bool& isWhole) const;
    HRESULT decodeFolder(const CString& path, unsigned index, DynamicBuffer& bytes, bool& isWhole) const;

    HRESULT describe(Update& update) const;
    HRESULT describe(const CString& path, const SZipArchiveItem& item, Update& update) const;
    HRESULT replaceFile(const wchar_t* temporaryPath);
    HRESULT readBack(const Update& update);
    HRESULT settleForSaving();
    void markAllModified() noexcept;

    HRESULT notOpened_ = S_OK; // why the file could not be opened when it was to be read last
    bool unread_ = false;      // whether the file is newer than the items
};

} // namespace Vexel::Storage
