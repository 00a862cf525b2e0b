// Saving: a whole new archive is written beside the old one, brought to the disk, and only then put in its
// place.

#include "archive/archive_private.h"
#include "archive/platform.h"
#include "io/com_pointer.h"
#include "paths/status_guard.h"

#include <vexel/diagnostics.h>

#include <cwchar>
#include <utility>

namespace Vexel::Storage {

using Detail::withStatus;
using Engine::platform;
using Engine::storageStatus;

HRESULT SZipArchivePrivate::describe(const CString& path, const SZipArchiveItem& item, Update& update) const {
    const RwGuard guard(item.lock_, RwGuard::Shared);
    const int index = item.databaseIndex_ >= 0 ? item.databaseIndex_ : item.oldIndex_;
    const bool isInDatabase = index >= 0 && database && static_cast<unsigned>(index) < database->count();
    Engine::UpdateEntry entry;
    entry.databaseIndex = isInDatabase ? index : -1;
    entry.name = path;
    entry.size = item.size_;
    entry.creation = item.creationTime_;
    entry.modification = item.modificationTime_;
    entry.isDirectory = item.isDirectory_;
    entry.isAnti = item.isAnti_;
    // The engine takes each record over once. Of two copies of one item, the second is compressed anew.
    const bool isTaken = isInDatabase && update.taken[static_cast<std::size_t>(index)];
    if (isInDatabase)
        update.taken[static_cast<std::size_t>(index)] = true;
    if (item.contents_) {
        const std::uint64_t changes = item.contents_->changes();
        entry.size = item.contents_->lockedSize();
        entry.hasNewData = item.contents_->isModified() || !isInDatabase || isTaken;
        if (const HRESULT status = item.contents_->Clone(&entry.contents); FAILED(status))
            return status;
        if (entry.hasNewData)
            update.written.push_back({item.contents_, changes});
    } else if (!item.isDirectory_ && !isInDatabase) {
        // Its contents were in a file that has gone. Better no new file than one without them.
        VxLog_WriteW(VxLog_Error, L"Contents of the file \"%ls\" are missing for archive \"%ls\"",
                     path.GetString(), fileName.GetString());
        return STG_E_FILENOTFOUND;
    } else if (isTaken && !item.isDirectory_) {
        DynamicBuffer bytes;
        bool isWhole = false;
        const HRESULT status = decode(item, path, bytes, isWhole);
        if (!isWhole)
            return FAILED(status) ? status : STG_E_READFAULT;
        entry.contents = newContents(std::move(bytes), path);
        entry.hasNewData = true;
    }
    if (isTaken)
        entry.databaseIndex = -1;
    update.entries.push_back(std::move(entry));
    return S_OK;
}

HRESULT SZipArchivePrivate::describe(Update& update) const {
    update.entries.reserve(items.size());
    update.taken.resize(database ? database->count() : 0);
    for (const auto& [path, item] : items)
        if (const HRESULT status = describe(path, item, update); FAILED(status))
            return status;
    return S_OK;
}

HRESULT SZipArchivePrivate::save() {
    if (!*changed || noFile)
        return S_OK;
    if (const HRESULT status = settleForSaving(); FAILED(status))
        return status;
    Update update;
    if (const HRESULT status = describe(update); FAILED(status))
        return status;

    const CString temporaryPath = fileName + L".7ztmp";
    const ComPtr<Engine::TemporaryFile> temporary =
        Detail::adopt(new Engine::TemporaryFile(temporaryPath.GetString()));
    HRESULT status = temporary->create();
    if (FAILED(status)) {
        VxLog_WriteW(VxLog_Error, L"Failed to create file \"%ls\": 0x%08x", temporaryPath.GetString(),
                     static_cast<unsigned>(status));
        return status;
    }
    status = Engine::writeArchive(update.entries, database.get(), temporary.Get(), fileName.GetString());
    if (FAILED(status))
        return status;
    status = temporary->finish();
    if (FAILED(status)) {
        VxLog_WriteW(VxLog_Error, L"Failed to write file \"%ls\": 0x%08x", temporaryPath.GetString(),
                     static_cast<unsigned>(status));
        return status;
    }
    status = replaceFile(temporaryPath.GetString());
    if (FAILED(status))
        return status;
    temporary->keep();
    return readBack(update);
}

HRESULT SZipArchivePrivate::settleForSaving() {
    if (const HRESULT status = settle(); FAILED(status))
        return status;
    // A file that could not be opened is tried again: it must not be replaced unread.
    if (SUCCEEDED(notOpened_) || Engine::isNotThere(notOpened_))
        return S_OK;
    const HRESULT status = read();
    *changed = true;
    return Engine::isNotThere(status) ? S_OK : status;
}

// Nobody can replace a file while we have it open.
HRESULT SZipArchivePrivate::replaceFile(const wchar_t* temporaryPath) {
    Database old = std::move(database);
    if (old && old.use_count() == 1)
        old->closeFile();
    constexpr DWORD flags = MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED | MOVEFILE_WRITE_THROUGH;
    if (platform().moveFile(temporaryPath, fileName.GetString(), flags))
        return S_OK;
    const DWORD error = GetLastError();
    VxLog_WriteW(VxLog_Error, L"Failed to move \"%ls\" to \"%ls\": 0x%08x", temporaryPath,
                 fileName.GetString(), static_cast<unsigned>(error));
    database = std::move(old);
    // Unless it works now, it is tried again whenever the file is needed.
    withStatus([&] { return settle(); });
    markAllModified();
    return storageStatus(error);
}

HRESULT SZipArchivePrivate::readBack(const Update& update) {
    unread_ = true;
    forgetOldIndices();
    const HRESULT status = withStatus([&] { return read(); });
    if (FAILED(status)) {
        markAllModified();
        return status;
    }
    for (const auto& [contents, changes] : update.written)
        contents->markSaved(changes);
    // What other threads wrote meanwhile is for the next save.
    for (const auto& [path, item] : items)
        if (item.contents_ && item.contents_->isModified())
            *changed = true;
    return S_OK;
}

void SZipArchivePrivate::markAllModified() noexcept {
    for (const auto& [path, item] : items)
        if (item.contents_)
            item.contents_->markModified();
}

HRESULT SZipArchivePrivate::saveTo(IStream* destination) const {
    Update update;
    if (const HRESULT status = describe(update); FAILED(status))
        return status;
    wchar_t name[64];
    std::swprintf(name, std::size(name), L":IStream@0x%p:", static_cast<void*>(destination));
    const auto output = Detail::adopt(new Engine::PassThroughOutStream(destination));
    return Engine::writeArchive(update.entries, database.get(), output.Get(), name);
}

HRESULT SZipArchive::save(bool flushAfterwards) {
    if (private_->readOnly)
        return STG_E_ACCESSDENIED;
    const HRESULT status = withStatus([&] {
        const RwGuard guard(private_->lock, RwGuard::Exclusive);
        return private_->save();
    });
    if (SUCCEEDED(status) && flushAfterwards)
        flush(std::wstring_view());
    return status;
}

HRESULT SZipArchive::save(IStream* destination) const {
    if (!destination)
        return STG_E_INVALIDPOINTER;
    return withStatus([&]() -> HRESULT {
        RwGuard guard(private_->lock, RwGuard::Shared);
        if (!private_->isSettled()) {
            guard.upgrade();
            if (const HRESULT status = private_->settle(); FAILED(status))
                return status;
        }
        return private_->saveTo(destination);
    });
}

} // namespace Vexel::Storage
