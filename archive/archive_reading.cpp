// Reading an archive's database into items.

#include "archive/archive_private.h"

#include <algorithm>
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
    item.databaseIndex_ = static_cast<int>(index);
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
    for (auto& [path, item] : items)
        item.databaseIndex_ = -1;
    return Engine::asStatus(fresh->stream()->Seek({}, STREAM_SEEK_SET, nullptr), STG_E_SEEKERROR);
}

SZipArchivePrivate::Reading SZipArchivePrivate::match(Database fresh) {
    Reading reading;
    ItemMap& added = reading.added;
    reading.records.reserve(fresh->count());
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
        reading.records.emplace_back(item, i);
    }
    reading.database = std::move(fresh);
    return reading;
}

void SZipArchivePrivate::takeOver(Reading&& reading) noexcept {
    for (auto& [path, item] : items)
        item.databaseIndex_ = -1;
    database = std::move(reading.database);
    if (items.empty())
        items.swap(reading.added); // merging would look each place up again
    else
        items.merge(reading.added);
    for (const auto& [item, record] : reading.records)
        refresh(*item, record);
    fileState_ = FileState::Read;
    *changed = false;
}

bool SZipArchivePrivate::hasModifiedContents() const noexcept {
    return std::any_of(items.begin(), items.end(), [](const auto& entry) {
        return entry.second.contents_ && entry.second.contents_->isModified();
    });
}

HRESULT SZipArchivePrivate::read() {
    const bool wasRead = fileState_ == FileState::Read || fileState_ == FileState::Stale;
    fileState_ = wasRead ? FileState::Stale : FileState::Unread;
    Database fresh;
    openingStatus_ = openInput(fresh);
    if (openingStatus_ != S_OK)
        return openingStatus_;
    if (const HRESULT status = fresh->read(fileName.GetString()); status != S_OK)
        return status;
    takeOver(match(std::move(fresh)));
    return S_OK;
}

HRESULT SZipArchivePrivate::reload() {
    if (noFile)
        return S_OK;
    const HRESULT status = read();
    if (status == S_OK && hasModifiedContents())
        *changed = true;
    // What has no file is a new archive. What has one that cannot be opened now counts as such, too, but it
    // will not replace what it never read. An error that the system does not name passes for none here.
    const bool isPassedOver = !readOnly || openingStatus_ == Engine::storageStatus(ERROR_SUCCESS);
    return openingStatus_ != S_OK && isPassedOver ? S_OK : status;
}

} // namespace Vexel::Storage
