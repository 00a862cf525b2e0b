// What a save is to write: new contents, and packed data that are copied as they are.
//
// The engine would pack what is left of a folder that several items share into a new one of that kind, whose
// items could not be read one by one. So a folder of which something is gone is taken apart: it is decoded
// once, and its items are written as new. One of which all items stay is copied whole.

#include "archive/archive_private.h"
#include "archive/folder_decoder.h"
#include "base/com_pointer.h"

#include <vexel/diagnostics.h>

#include <algorithm>
#include <utility>

namespace Vexel::Storage {

HRESULT SZipArchivePrivate::describe(Update& update) const {
    update.entries.reserve(items.size());
    if (database) {
        update.taken.resize(database->count());
        update.sourceStatus = database->open();
    }
    for (const auto& [path, item] : items)
        if (const HRESULT status = describe(path, item, update); status != S_OK)
            return status;
    takeFoldersApart(update);
    return decodeWanted(update);
}

HRESULT SZipArchivePrivate::describe(const CString& path, const SZipArchiveItem& item, Update& update) const {
    const RwGuard guard(item.lock_, RwGuard::Shared);
    if (!guard)
        return STG_E_INUSE;
    const SZipStream* const contents = item.contents_.Get();
    // The number comes before the size: what is written after it was asked for is left to the next save. An
    // entry of size 0 is written without contents, whatever its stream has by then.
    const std::uint64_t changes = contents ? contents->changes() : 0;
    Engine::UpdateEntry entry;
    entry.name = path;
    entry.size = contents ? contents->lockedSize() : item.size_;
    entry.creation = item.creationTime_;
    entry.modification = item.modificationTime_;
    entry.isDirectory = item.isDirectory_;
    entry.isAnti = item.isAnti_ && entry.size == 0; // what was written into it since counts

    const int record = recordOf(item);
    const bool isUnchanged = record >= 0 && !(contents && contents->isModified());
    if (isUnchanged)
        entry.attributes = database->attributes(static_cast<unsigned>(record));

    HRESULT status = S_OK;
    if (!isUnchanged || !claimPackedData(record, entry, update)) {
        if (contents) {
            update.written.push_back({item.contents_, changes});
            entry.hasNewData = true;
            status = item.contents_->Clone(&entry.contents);
        } else if (!item.isDirectory_) {
            status = requestDecoding(record, path, update);
        }
    }
    if (status == S_OK)
        update.entries.push_back(std::move(entry));
    return status;
}

// True: the packed data of the record become those of the entry. The engine takes each record over once; of
// two copies of one item, the second is compressed anew.
bool SZipArchivePrivate::claimPackedData(int record, Engine::UpdateEntry& entry, Update& update) const {
    const auto index = static_cast<std::size_t>(record);
    if (update.sourceStatus != S_OK || !isPacked(static_cast<unsigned>(record)) || update.taken[index])
        return false;
    update.taken[index] = true;
    entry.databaseIndex = record;
    return true;
}

// For contents that are only in the database's file and cannot be copied: the entry that comes next gets them
// decoded.
HRESULT SZipArchivePrivate::requestDecoding(int record, const CString& path, Update& update) const {
    if (record >= 0 && !isPacked(static_cast<unsigned>(record)))
        return S_OK; // there are none
    if (record < 0 || update.sourceStatus != S_OK) {
        // They were in a file that has gone. Better no new file than one without them.
        VxLog_WriteW(VxLog_Error, L"Contents of the file \"%ls\" are missing for archive \"%ls\"",
                     path.GetString(), fileName.GetString());
        return FAILED(update.sourceStatus) ? update.sourceStatus : STG_E_FILENOTFOUND;
    }
    update.wanted.push_back({static_cast<unsigned>(record), update.entries.size()});
    return S_OK;
}

void SZipArchivePrivate::takeFoldersApart(Update& update) const {
    if (!database || !database->hasSharedFolders())
        return;
    const auto& records = database->database();
    std::vector<unsigned> kept(records.NumFolders);
    const auto folderOf = [&](const Engine::UpdateEntry& entry) {
        return database->folderOf(static_cast<unsigned>(entry.databaseIndex)).index;
    };
    for (const Engine::UpdateEntry& entry : update.entries)
        if (entry.databaseIndex >= 0)
            ++kept[folderOf(entry)];
    for (std::size_t i = 0; i < update.entries.size(); ++i) {
        Engine::UpdateEntry& entry = update.entries[i];
        if (entry.databaseIndex < 0)
            continue;
        if (const unsigned folder = folderOf(entry); kept[folder] != records.NumUnpackStreamsVector[folder])
            update.wanted.push_back({static_cast<unsigned>(std::exchange(entry.databaseIndex, -1)), i});
    }
}

HRESULT SZipArchivePrivate::decodeWanted(Update& update) const {
    std::vector<Wanted> wanted = std::move(update.wanted);
    std::sort(wanted.begin(), wanted.end(),
              [](const Wanted& a, const Wanted& b) { return a.record < b.record; });
    // A folder's records follow each other.
    for (auto first = wanted.cbegin(); first != wanted.cend();) {
        const unsigned folder = database->folderOf(first->record).index;
        const auto last = std::find_if(first, wanted.cend(), [&](const Wanted& other) {
            return database->folderOf(other.record).index != folder;
        });
        if (const HRESULT status = decodeWanted({first, last}, update); status != S_OK)
            return status;
        first = last;
    }
    return S_OK;
}

// `wanted`: all of one folder.
HRESULT SZipArchivePrivate::decodeWanted(std::span<const Wanted> wanted, Update& update) const {
    const unsigned folder = database->folderOf(wanted.front().record).index;
    const CString& firstPath = update.entries[wanted.front().entry].name;
    if (const HRESULT status = Engine::checkFolder(database->database(), folder); status != S_OK) {
        logDecodingFailure(firstPath, status);
        return status;
    }
    std::vector<Engine::FolderSplitter::Part> parts(wanted.size());
    for (std::size_t i = 0; i < parts.size(); ++i) {
        parts[i].record = wanted[i].record;
        const CString& path = update.entries[wanted[i].entry].name;
        if (const HRESULT status = reserve(parts[i].bytes, path, parts[i].record); status != S_OK)
            return status;
    }
    const auto splitter = Detail::adopt(new Engine::FolderSplitter(database->database(), folder, parts));
    ComPtr<Engine::InStreamBase> input;
    if (const HRESULT status = database->openCursor(input); status != S_OK)
        return status;
    const auto decoded = Engine::decodeFolder(database->database(), folder, *input.Get(), splitter.Get());
    if (!decoded.isWhole() && !areVerified(parts)) {
        logDecodingFailure(firstPath, decoded.status);
        return FAILED(decoded.status) ? decoded.status : STG_E_READFAULT;
    }
    for (std::size_t i = 0; i < parts.size(); ++i) {
        Engine::UpdateEntry& entry = update.entries[wanted[i].entry];
        if (!isAsStored(entry.name, parts[i].record, parts[i].bytes, parts[i].crc))
            return STG_E_READFAULT;
        entry.contents = newContents(std::move(parts[i].bytes), entry.name);
        entry.hasNewData = true;
    }
    return S_OK;
}

// Damage behind the last file that is wanted does no harm to those before it.
bool SZipArchivePrivate::areVerified(std::span<const Engine::FolderSplitter::Part> parts) const noexcept {
    return std::all_of(parts.begin(), parts.end(), [this](const Engine::FolderSplitter::Part& part) {
        const auto& file = database->database().Files[part.record];
        return file.CrcDefined && part.bytes.size == file.Size && part.crc == file.Crc;
    });
}

} // namespace Vexel::Storage
