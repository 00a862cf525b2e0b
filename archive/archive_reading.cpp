// Reading an archive's database into items.

#include "archive/archive_private.h"
#include "base/status.h"

#include <vexel/diagnostics.h>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <utility>
#include <vector>

namespace Vexel::Storage {

namespace {

/// Handles lead so deep.
constexpr std::ptrdiff_t kMostLevels = 512;
/// Bytes for directories that are made up: some for all, and some for each item.
constexpr std::size_t kParentsRoom = 0x800000;
constexpr std::size_t kRoomForEach = 512;

std::ptrdiff_t levelsOf(std::wstring_view path) noexcept {
    return std::count(path.begin(), path.end(), L'/');
}

/// Null when there is none.
const SZipArchivePrivate::ItemMap::value_type* entryOf(const SZipArchivePrivate::ItemMap& items,
                                                       std::wstring_view path) {
    const auto found = items.find(path);
    return found == items.end() ? nullptr : &*found;
}

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
    if (ownDatabase_ || !database || !database->isOnStream())
        return Engine::openFile(fileName.GetString(), fresh);
    fresh = std::make_shared<Engine::DatabaseStream>(database->stream());
    database = std::make_shared<Engine::DatabaseStream>(fresh->stream());
    for (auto& [path, item] : items)
        item.databaseIndex_ = -1;
    return Detail::asStatus(fresh->stream()->Seek({}, STREAM_SEEK_SET, nullptr), STG_E_SEEKERROR);
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
            reading.contradictsMemory |= item->isDirectory_ != fresh->database().Files[i].IsDir;
        } else {
            const auto made = added.try_emplace(place, stringOf(path), *this, false);
            item = &made->second;
            place = std::next(made);
        }
        reading.records.emplace_back(item, i);
    }
    reading.database = std::move(fresh);
    addParents(reading);
    return reading;
}

// Directories need no items in other programs' archives. They are made up here, where paths lead through
// them; a save writes them. The text of paths grows with the square of their depth, so that there is a limit.
void SZipArchivePrivate::addParents(Reading& reading) {
    std::size_t room = kParentsRoom;
    const auto add = [&](std::wstring_view directory) {
        const std::size_t cost = sizeof(SZipArchiveItem) + directory.size() * sizeof(wchar_t);
        if (!isNewItemPath(directory) || room < cost)
            return false;
        room -= cost;
        reading.added.try_emplace(stringOf(directory), *this, true);
        return true;
    };
    std::wstring_view last;
    bool isReached = true;
    for (unsigned i = 0; i < reading.database->count(); ++i) {
        const std::wstring_view path = reading.database->path(i);
        room += kRoomForEach + path.size() * sizeof(wchar_t);
        std::wstring_view parent = parentOf(path);
        // Those of one directory mostly follow each other.
        if (parent != last) {
            last = parent;
            isReached = levelsOf(path) <= kMostLevels;
            const ItemMap::value_type* found = nullptr;
            for (; isReached && !found && !parent.empty(); parent = parentOf(parent)) {
                found = entryOf(items, parent);
                reading.contradictsMemory |= found && !found->second.isDirectory_;
                if (!found)
                    found = entryOf(reading.added, parent);
                isReached = found || add(parent);
            }
            if (found)
                reading.parents.emplace_back(&found->first, &found->second);
        }
        if (!isReached || !isNewItemPath(path))
            reading.outOfReach.push_back(i);
    }
}

void SZipArchivePrivate::takeOver(Reading&& reading) noexcept {
    for (auto& [path, item] : items)
        item.databaseIndex_ = -1;
    database = std::move(reading.database);
    ownDatabase_.reset();
    if (items.empty())
        items.swap(reading.added); // merging would look each place up again
    else
        items.merge(reading.added);
    isAmbiguous = false;
    for (const auto& [item, record] : reading.records) {
        if (item->databaseIndex_ >= 0) {
            isAmbiguous = true;
            logRecord(L"Item \"%ls\" in archive \"%ls\" (number %u) is hidden by one of the same path",
                      static_cast<unsigned>(item->databaseIndex_));
        }
        refresh(*item, record);
    }
    tellOfAmbiguities(reading);
    fileState_ = FileState::Read;
    *changed = false;
}

void SZipArchivePrivate::tellOfAmbiguities(const Reading& reading) noexcept {
    for (const unsigned record : reading.outOfReach)
        logRecord(L"Item \"%ls\" in archive \"%ls\" (number %u) has a path that no storage leads to", record);
    for (const auto& [path, item] : reading.parents) {
        if (item->isDirectory_)
            continue;
        isAmbiguous = true;
        VxLog_WriteW(VxLog_Warning, L"Item \"%ls\" in archive \"%ls\" is a file with items below it",
                     path->GetString(), fileName.GetString());
    }
    if (isAmbiguous)
        readOnly = true;
}

void SZipArchivePrivate::logRecord(const wchar_t* format, unsigned record) const noexcept {
    const std::wstring_view path = database->path(record);
    VxLog_WriteW(VxLog_Warning, format, path.empty() ? L"" : path.data(), fileName.GetString(), record);
}

bool SZipArchivePrivate::hasModifiedContents() const noexcept {
    return std::any_of(items.begin(), items.end(), [](const auto& entry) {
        return entry.second.contents_ && entry.second.contents_->isModified();
    });
}

HRESULT SZipArchivePrivate::read(Contradiction contradiction) {
    const bool wasRead = fileState_ == FileState::Read || fileState_ == FileState::Stale;
    fileState_ = wasRead ? FileState::Stale : FileState::Unread;
    Database fresh;
    openingStatus_ = openInput(fresh);
    if (openingStatus_ != S_OK)
        return openingStatus_;
    if (const HRESULT status = fresh->read(fileName.GetString()); status != S_OK)
        return status;
    Reading reading = match(std::move(fresh));
    if (reading.contradictsMemory && contradiction == Contradiction::Refused)
        return STG_E_FILEALREADYEXISTS;
    takeOver(std::move(reading));
    return S_OK;
}

HRESULT SZipArchivePrivate::reload() {
    if (noFile)
        return S_OK;
    const HRESULT status = read(Contradiction::FileHolds);
    if (status == S_OK && hasModifiedContents())
        *changed = true;
    // What has no file is a new archive. What has one that cannot be opened now counts as such, too, but it
    // will not replace what it never read. An error that the system does not name passes for none here.
    const bool isPassedOver = !readOnly || openingStatus_ == Detail::storageStatus(ERROR_SUCCESS);
    return openingStatus_ != S_OK && isPassedOver ? S_OK : status;
}

} // namespace Vexel::Storage
