// Reading an archive's database into items.

#include "archive/archive_private.h"

#include <iterator>
#include <utility>
#include <vector>

namespace Vexel::Storage {

namespace {

FILETIME timeAt(const NArchive::N7z::CUInt64DefVector& times, unsigned index) noexcept {
    UInt64 time = 0;
    times.GetItem(index, time);
    return {static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
}

} // namespace

void SZipArchivePrivate::refresh(SZipArchiveItem& item, unsigned index) const noexcept {
    const auto& records = database->database();
    const auto& record = records.Files[index];
    const RwGuard guard(item.lock_, RwGuard::Exclusive); // its size is read without the archive's
    item.size_ = record.Size;
    item.creationTime_ = timeAt(records.CTime, index);
    item.modificationTime_ = timeAt(records.MTime, index);
    item.crc_ = record.CrcDefined ? record.Crc : 0;
    item.databaseIndex_ = item.oldIndex_ = static_cast<int>(index);
    item.isDirectory_ = record.IsDir;
    item.isAnti_ = records.IsItemAnti(index);
    if (item.isDirectory_ || item.canFlush())
        item.contents_.Reset();
}

HRESULT SZipArchivePrivate::openInput(Database& fresh) {
    if (!database || !database->isOnStream())
        return Engine::openFile(fileName.GetString(), fresh);
    fresh = std::make_shared<Engine::DatabaseStream>(database->stream());
    database = std::make_shared<Engine::DatabaseStream>(fresh->stream());
    forgetOldIndices();
    return fresh->stream()->Seek({}, STREAM_SEEK_SET, nullptr);
}

// All that needs memory comes before the first change.
void SZipArchivePrivate::takeOver(Database fresh) {
    ItemMap added;
    std::vector<std::pair<SZipArchiveItem*, unsigned>> records;
    records.reserve(fresh->count());
    // Archives list their items in our order, or directory by directory: the next one is most likely the one
    // that is wanted, and a new one belongs behind the last.
    auto next = items.begin();
    auto place = added.end();
    for (unsigned i = 0; i < fresh->count(); ++i) {
        const std::wstring_view path = fresh->path(i);
        if (next == items.end() || StringLess::view(next->first) != path)
            next = items.find(path);
        SZipArchiveItem* item = nullptr;
        if (next != items.end()) {
            item = &next++->second;
        } else {
            const auto made = added.try_emplace(place, toString(path), *this, false);
            item = &made->second;
            place = std::next(made);
        }
        records.emplace_back(item, i);
    }
    forgetOldIndices();
    database = std::move(fresh);
    if (items.empty())
        items.swap(added); // merging would look each place up again
    else
        items.merge(added);
    for (const auto& [item, index] : records)
        refresh(*item, index);
    *changed = false;
}

void SZipArchivePrivate::forgetOldIndices() noexcept {
    for (auto& [path, item] : items)
        item.oldIndex_ = -1;
}

HRESULT SZipArchivePrivate::read() {
    for (auto& [path, item] : items)
        item.databaseIndex_ = -1;
    Database fresh;
    notOpened_ = openInput(fresh);
    if (FAILED(notOpened_) || !fresh) // or without an error that the system would tell of
        return notOpened_;
    if (const HRESULT status = fresh->read(fileName.GetString()); FAILED(status))
        return status;
    takeOver(std::move(fresh));
    unread_ = false;
    return S_OK;
}

HRESULT SZipArchivePrivate::reload() {
    if (noFile)
        return S_OK;
    const HRESULT status = read();
    // What has no file is a new archive. What has one that cannot be opened now counts as such, too, but it
    // will not replace what it never read.
    return FAILED(notOpened_) && !readOnly ? S_OK : status;
}

HRESULT SZipArchivePrivate::settle() {
    if (unread_) {
        const HRESULT status = read();
        *changed = true; // something may have been written since the file was
        return status;
    }
    return isSettled() ? S_OK : database->reopenFile(fileName.GetString());
}

} // namespace Vexel::Storage
