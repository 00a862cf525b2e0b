// Reading an archive's database into items.

#include "archive/archive_private.h"
#include "archive/name_pool.h"
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

void SZipArchivePrivate::describeBy(const Engine::DatabaseStream& source, unsigned index,
                                    SZipArchiveItem& item) noexcept {
    const auto& records = source.database();
    const auto& record = records.Files[index];
    item.size_ = record.Size;
    item.creationTime_ = timeAt(records.CTime, index);
    item.modificationTime_ = timeAt(records.MTime, index);
    item.crc_ = record.CrcDefined ? record.Crc : 0;
    item.databaseIndex_ = static_cast<int>(index);
    item.isDirectory_ = record.IsDir;
    item.isAnti_ = records.IsItemAnti(index);
}

void SZipArchivePrivate::refresh(SZipArchiveItem& item, unsigned index) const noexcept {
    const RwGuard guard(item.lock_, RwGuard::Exclusive); // its size is read without the archive's
    describeBy(*database, index, item);
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
    NamePool names;
    // Archives list their items in our order, or directory by directory: the next one is most likely the one
    // that is wanted, and a new one belongs behind the last.
    auto next = items.begin();
    auto place = added.end();
    for (unsigned i = 0; i < fresh->count(); ++i) {
        const std::wstring_view path = fresh->path(i);
        if (next == items.end() || StringLess::view(next->first) != path)
            next = items.find(path);
        if (next != items.end()) {
            reading.contradictsMemory |= next->second.isDirectory_ != fresh->database().Files[i].IsDir;
            reading.records.emplace_back(&next->second, i);
            ++next;
            continue;
        }
        const auto made = added.try_emplace(place, names.make(path), *this, false);
        // The step from the last item to the end would climb the whole tree.
        place = made == std::prev(added.end()) ? added.end() : std::next(made);
        if (made->second.databaseIndex_ >= 0)
            reading.hidden.push_back(static_cast<unsigned>(made->second.databaseIndex_));
        describeBy(*fresh, i, made->second);
    }
    reading.database = std::move(fresh);
    addParents(reading);
    return reading;
}

// Directories need no items in other programs' archives. They are made up here, where paths lead through
// them; a save writes them. The text of paths grows with the square of their depth, so that there is a limit.
void SZipArchivePrivate::addParents(Reading& reading) {
    reading.room = kParentsRoom;
    std::wstring_view directory;
    bool isReached = true;
    for (unsigned i = 0; i < reading.database->count(); ++i) {
        const std::wstring_view path = reading.database->path(i);
        reading.room += kRoomForEach + path.size() * sizeof(wchar_t);
        // Those of one directory mostly follow each other.
        if (!isChild(directory, path)) {
            directory = parentOf(path);
            isReached = addParents(reading, directory);
        }
        // Of a path whose directory is reached, only the last element may still be wrong.
        if (!isReached || !isItemPath(path) || path.ends_with(L'/'))
            reading.outOfReach.push_back(i);
    }
}

bool SZipArchivePrivate::addParents(Reading& reading, std::wstring_view directory) {
    if (directory.empty())
        return true;
    if (levelsOf(directory) >= kMostLevels)
        return false;
    for (std::wstring_view parent = directory; !parent.empty(); parent = parentOf(parent)) {
        const ItemMap::value_type* found = entryOf(items, parent);
        reading.contradictsMemory |= found && !found->second.isDirectory_;
        if (!found)
            found = entryOf(reading.added, parent);
        if (found) {
            reading.parents.emplace_back(&found->first, &found->second);
            break;
        }
        const std::size_t cost = sizeof(SZipArchiveItem) + parent.size() * sizeof(wchar_t);
        if (!isNewItemPath(parent) || reading.room < cost)
            return false;
        reading.room -= cost;
        reading.added.try_emplace(stringOf(parent), *this, true);
    }
    return isNewItemPath(directory);
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
        if (item->databaseIndex_ >= 0)
            noteHidden(static_cast<unsigned>(item->databaseIndex_));
        refresh(*item, record);
    }
    for (const unsigned record : reading.hidden)
        noteHidden(record);
    reportAmbiguities(reading);
    fileState_ = FileState::Read;
    *changed = false;
}

void SZipArchivePrivate::noteHidden(unsigned record) noexcept {
    isAmbiguous = true;
    logRecord(L"Item \"%ls\" in archive \"%ls\" (number %u) is hidden by one of the same path", record);
}

void SZipArchivePrivate::reportAmbiguities(const Reading& reading) noexcept {
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
    const bool hadItems = !items.empty();
    const HRESULT status = read(Contradiction::FileHolds);
    if (status == S_OK && hadItems && hasModifiedContents())
        *changed = true;
    // What has no file is a new archive. What has one that cannot be opened now counts as such, too, but it
    // will not replace what it never read. An error that the system does not name passes for none here.
    const bool isPassedOver = !readOnly || openingStatus_ == Detail::storageStatus(ERROR_SUCCESS);
    return openingStatus_ != S_OK && isPassedOver ? S_OK : status;
}

} // namespace Vexel::Storage
