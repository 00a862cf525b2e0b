// Taking items over from another archive.

#include "archive/archive_private.h"
#include "base/status_guard.h"

#include <windows.h>

#include <functional>

namespace Vexel::Storage {

using Detail::withStatus;

namespace {

/// Holds the target exclusively and a share of the source. Always in the order of their addresses, or two
/// archives that copy from each other would wait for ever.
class CopyGuard {
public:
    CopyGuard(RwLockWord& target, RwLockWord& source) noexcept
        : first_(lower(target, source), modeOf(lower(target, source), target)),
          second_(upper(target, source), modeOf(upper(target, source), target)) {}

    explicit operator bool() const noexcept { return first_ && second_; }

private:
    static RwLockWord& lower(RwLockWord& a, RwLockWord& b) noexcept { return std::less<>()(&a, &b) ? a : b; }
    static RwLockWord& upper(RwLockWord& a, RwLockWord& b) noexcept { return std::less<>()(&a, &b) ? b : a; }
    static RwGuard::Mode modeOf(const RwLockWord& word, const RwLockWord& target) noexcept {
        return &word == &target ? RwGuard::Exclusive : RwGuard::Shared;
    }

    RwGuard first_;
    RwGuard second_;
};

} // namespace

HRESULT SZipArchivePrivate::borrowPackedData(const SZipArchivePrivate& source) {
    for (const auto& [path, item] : items)
        if (item.databaseIndex_ >= 0)
            return STG_E_INVALIDFUNCTION;
    if (database == source.database)
        return S_OK;
    // The file that was read is still the one to be replaced.
    if (!ownDatabase_ && database && database->isOf(StringLess::view(fileName)))
        ownDatabase_ = std::move(database);
    database = source.database;
    return S_OK;
}

HRESULT SZipArchivePrivate::addCopy(const SZipArchivePrivate& source, const SZipArchiveItem& item,
                                    const CString& sourcePath, const CString& targetPath) {
    const RwGuard itemGuard(item.lock_, RwGuard::Shared);
    if (!itemGuard)
        return STG_E_INUSE;
    const auto place = placeOf(StringLess::view(targetPath));
    if (isAt(place, StringLess::view(targetPath)))
        return item.isDirectory_ && place->second.isDirectory_ ? S_OK : STG_E_FILEALREADYEXISTS;
    if (const HRESULT status = checkNewPath(StringLess::view(targetPath)); status != S_OK)
        return status;

    // An index means something only in the database that it was read from.
    const bool staysPacked = !item.isDirectory_ && source.recordOf(item) >= 0 &&
                             database == source.database &&
                             (!item.contents_ || !item.contents_->isModified());
    ComPtr<SZipStream> contents;
    if (!item.isDirectory_ && !staysPacked) {
        DynamicBuffer bytes;
        if (const HRESULT status = source.copyContents(item, sourcePath, bytes); status != S_OK)
            return status;
        contents = newContents(std::move(bytes), targetPath);
        contents->markModified();
    }
    SZipArchiveItem& copy = items.try_emplace(place, targetPath, *this, item.isDirectory_)->second;
    copy.contents_ = contents;
    copy.size_ = item.size_;
    copy.creationTime_ = item.creationTime_;
    copy.modificationTime_ = item.modificationTime_;
    copy.crc_ = item.crc_;
    copy.isAnti_ = item.isAnti_;
    copy.databaseIndex_ = staysPacked ? item.databaseIndex_ : -1;
    *changed = true;
    return S_OK;
}

HRESULT SZipArchive::borrowPackedData(const SZipArchive& source) {
    if (&source == this)
        return S_OK;
    return withStatus([&] {
        const CopyGuard guard(private_->lock, source.private_->lock);
        return guard ? private_->borrowPackedData(*source.private_) : STG_E_INUSE;
    });
}

HRESULT SZipArchivePrivate::addTree(const SZipArchivePrivate& source, std::wstring_view sourcePath,
                                    std::wstring_view targetPath) {
    if (!sourcePath.empty()) {
        const auto top = source.items.find(sourcePath);
        if (top == source.items.end())
            return STG_E_FILENOTFOUND;
        const HRESULT status = addCopy(source, top->second, top->first, stringOf(targetPath));
        if (FAILED(status) || !top->second.isDirectory_)
            return status;
    }
    for (const auto& [key, item] : descendants(source.items, sourcePath)) {
        CString path = joined(targetPath, StringLess::view(key).substr(sourcePath.size()));
        if (const HRESULT status = addCopy(source, item, key, path); FAILED(status))
            return status;
    }
    *changed = true;
    return S_OK;
}

HRESULT SZipArchive::addItem(const SZipArchive& source, std::wstring_view sourcePath,
                             const CString& targetPath) {
    if (private_->readOnly)
        return STG_E_ACCESSDENIED;
    if (&source == this)
        return STG_E_INVALIDFUNCTION;
    if (!isItemPath(sourcePath) || !isItemPath(StringLess::view(targetPath)))
        return STG_E_INVALIDNAME;
    return withStatus([&] {
        const CopyGuard guard(private_->lock, source.private_->lock);
        return guard ? private_->addTree(*source.private_, sourcePath, StringLess::view(targetPath))
                     : STG_E_INUSE;
    });
}

HRESULT SZipArchive::addItems(const SZipArchive& source, const CString& path) {
    const std::wstring_view text = StringLess::view(path);
    if (private_->readOnly)
        return STG_E_ACCESSDENIED;
    if (text.starts_with(L'/'))
        return STG_E_INVALIDNAME;
    if (&source == this)
        return STG_E_INVALIDFUNCTION;
    return withStatus([&] {
        const CopyGuard guard(private_->lock, source.private_->lock);
        return guard ? private_->addTree(*source.private_, text, text) : STG_E_INUSE;
    });
}

} // namespace Vexel::Storage
