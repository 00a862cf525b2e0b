// Creating, removing and moving items: all of it in memory.

#include "archive/archive_private.h"
#include "archive/item_paths.h"
#include "base/status_guard.h"

#include <windows.h>

#include <utility>
#include <vector>

namespace Vexel::Storage {

using Detail::withStatus;

namespace {

HRESULT checkChange(const SZipArchivePrivate& archive, std::wstring_view path) noexcept {
    if (archive.readOnly)
        return STG_E_ACCESSDENIED;
    return isItemPath(path) ? S_OK : STG_E_INVALIDNAME;
}

} // namespace

bool SZipArchivePrivate::hasDirectory(std::wstring_view path) const {
    const auto found = items.find(path);
    return found != items.end() && found->second.isDirectory_;
}

void SZipArchivePrivate::eraseDescendants(std::wstring_view path) {
    const auto below = descendants(items, path);
    items.erase(below.begin(), below.end());
}

HRESULT SZipArchivePrivate::createFile(const CString& path, bool failIfExists, bool replace,
                                       IStream** result) {
    ComPtr<SZipStream> contents = newContents({}, path);
    // Even if nothing is ever written into it, the next save has to write the item.
    contents->markModified();
    const auto place = placeOf(StringLess::view(path));
    const bool isNew = !isAt(place, StringLess::view(path));
    SZipArchiveItem& item = items.try_emplace(place, path, *this, false)->second;
    if (!isNew) {
        if (item.isDirectory_ || failIfExists)
            return STG_E_FILEALREADYEXISTS;
        if (!replace)
            return extract(item, path, result);
    }
    const RwGuard guard(item.lock_, RwGuard::Exclusive);
    if (!guard)
        return STG_E_INUSE;
    item.contents_ = contents;
    item.isAnti_ = false; // a mark for a deletion has no contents
    *changed = true;
    *result = contents.Detach();
    return S_OK;
}

HRESULT SZipArchivePrivate::createDirectory(const CString& path, bool failIfExists, bool clear) {
    const auto place = placeOf(StringLess::view(path));
    if (!isAt(place, StringLess::view(path))) {
        items.try_emplace(place, path, *this, true);
    } else {
        if (!place->second.isDirectory_)
            return STG_E_INVALIDFUNCTION;
        if (failIfExists)
            return STG_E_FILEALREADYEXISTS;
        if (!clear)
            return S_OK;
        eraseDescendants(StringLess::view(path));
    }
    *changed = true;
    return S_OK;
}

HRESULT SZipArchivePrivate::move(std::wstring_view from, std::wstring_view to) {
    const auto first = items.find(from);
    if (first == items.end())
        return STG_E_FILENOTFOUND;
    if (items.contains(to))
        return STG_E_FILEALREADYEXISTS;
    if (isInside(from, to))
        return STG_E_ACCESSDENIED;
    if (const HRESULT status = checkNewPath(to); status != S_OK)
        return status;

    // All new keys before the first change, so that exhausted memory leaves all as it was.
    std::vector<std::pair<ItemMap::iterator, CString>> moves;
    moves.emplace_back(first, stringOf(to));
    const auto below = descendants(items, from);
    for (auto item = below.begin(); item != below.end(); ++item) {
        CString key = joined(to, StringLess::view(item->first).substr(from.size()));
        if (items.contains(key))
            return STG_E_FILEALREADYEXISTS;
        moves.emplace_back(item, std::move(key));
    }
    for (auto& [item, key] : moves) {
        auto node = items.extract(item);
        node.key() = std::move(key);
        const auto moved = items.insert(std::move(node)).position;
        if (moved->second.contents_)
            moved->second.contents_->setPath(moved->first);
    }
    *changed = true;
    return S_OK;
}

HRESULT SZipArchive::createFile(IStream** result, const CString& path, bool failIfExists, bool replace) {
    if (!result)
        return STG_E_INVALIDPOINTER;
    *result = nullptr;
    const std::wstring_view text = StringLess::view(path);
    if (const HRESULT status = checkChange(*private_, text); FAILED(status))
        return status;
    return withStatus([&]() -> HRESULT {
        RwGuard guard(private_->lock, RwGuard::Shared);
        if (!guard)
            return STG_E_INUSE;
        // A missing parent makes the name invalid here, while `createDirectory` does not find it: callers
        // tell the two apart.
        if (private_->checkNewPath(text) != S_OK)
            return STG_E_INVALIDNAME;
        if (!guard.upgrade() && private_->checkNewPath(text) != S_OK)
            return STG_E_INVALIDNAME;
        return private_->createFile(path, failIfExists, replace, result);
    });
}

HRESULT SZipArchive::createDirectory(const CString& path, bool failIfExists, bool clear) {
    const std::wstring_view text = StringLess::view(path);
    if (const HRESULT status = checkChange(*private_, text); FAILED(status))
        return status;
    return withStatus([&]() -> HRESULT {
        RwGuard guard(private_->lock, RwGuard::Shared);
        if (!guard)
            return STG_E_INUSE;
        if (const HRESULT status = private_->checkNewPath(text); status != S_OK)
            return status;
        if (const bool isSame = guard.upgrade(); !isSame)
            if (const HRESULT status = private_->checkNewPath(text); status != S_OK)
                return status;
        return private_->createDirectory(path, failIfExists, clear);
    });
}

HRESULT SZipArchive::remove(std::wstring_view path) {
    if (const HRESULT status = checkChange(*private_, path); FAILED(status))
        return status;
    return private_->locked(RwGuard::Exclusive, [&]() -> HRESULT {
        const auto found = private_->items.find(path);
        if (found == private_->items.end())
            return STG_E_FILENOTFOUND;
        private_->eraseDescendants(path);
        private_->items.erase(found);
        *private_->changed = true;
        return S_OK;
    });
}

HRESULT SZipArchive::move(std::wstring_view from, std::wstring_view to) {
    for (const std::wstring_view path : {from, to})
        if (const HRESULT status = checkChange(*private_, path); FAILED(status))
            return status;
    if (!isNewItemPath(to))
        return STG_E_INVALIDNAME;
    return private_->locked(RwGuard::Exclusive, [&]() -> HRESULT { return private_->move(from, to); });
}

HRESULT SZipArchive::clear(std::wstring_view path) {
    if (private_->readOnly)
        return STG_E_ACCESSDENIED;
    if (path.starts_with(L'/'))
        return STG_E_INVALIDNAME;
    return private_->locked(RwGuard::Exclusive, [&]() -> HRESULT {
        if (path.empty() && private_->items.empty())
            return S_OK;
        if (!path.empty()) {
            const auto found = private_->items.find(path);
            if (found == private_->items.end())
                return STG_E_FILENOTFOUND;
            if (!found->second.isDirectory())
                return STG_E_INVALIDFUNCTION;
        }
        private_->eraseDescendants(path);
        *private_->changed = true;
        return S_OK;
    });
}

HRESULT SZipArchive::flush(std::wstring_view path) {
    if (private_->noFile)
        return S_OK;
    if (path.starts_with(L'/'))
        return STG_E_INVALIDNAME;
    return private_->locked(RwGuard::Shared, [&]() -> HRESULT {
        return private_->flush(path, SZipArchivePrivate::Flushing::WaitsForOthers);
    });
}

HRESULT SZipArchive::flushIfIdle(std::wstring_view path) {
    if (private_->noFile)
        return S_OK;
    if (path.starts_with(L'/'))
        return STG_E_INVALIDNAME;
    return withStatus([&]() -> HRESULT {
        const RwTryGuard guard(private_->lock, RwGuard::Shared);
        return guard ? private_->flush(path, SZipArchivePrivate::Flushing::PassesThemOver) : S_FALSE;
    });
}

HRESULT SZipArchivePrivate::flush(std::wstring_view path, Flushing flushing) {
    const auto flushItem = [flushing](SZipArchiveItem& item) {
        if (flushing == Flushing::WaitsForOthers)
            item.flush();
        else
            item.flushIfIdle();
    };
    if (!path.empty()) {
        const auto found = items.find(path);
        if (found == items.end())
            return STG_E_FILENOTFOUND;
        flushItem(found->second);
        if (!found->second.isDirectory_)
            return S_OK;
    }
    for (auto& [key, item] : descendants(items, path))
        flushItem(item);
    return S_OK;
}

} // namespace Vexel::Storage
