// Saving: a whole new archive is written beside the old one, brought to the disk, and only then put in its
// place.

#include "archive/archive_private.h"
#include "base/com_pointer.h"
#include "base/platform.h"
#include "base/status.h"
#include "base/status_guard.h"

#include <vexel/diagnostics.h>

#include <cwchar>
#include <utility>

namespace Vexel::Storage {

using Detail::withStatus;

namespace {

bool isAbsent(HRESULT status) noexcept {
    return status == STG_E_FILENOTFOUND || status == STG_E_PATHNOTFOUND;
}

void logFailure(const wchar_t* format, const CString& path, HRESULT status) noexcept {
    VxLog_WriteW(VxLog_Error, format, path.GetString(), static_cast<unsigned>(status));
}

HRESULT refuse(const wchar_t* why, const CString& path, HRESULT status) noexcept {
    logFailure(why, path, status);
    return status;
}

constexpr auto* kUnread =
    L"Not replacing \"%ls\", which could not be read, or has other kinds of items: 0x%08x";
constexpr auto* kOther = L"Not replacing \"%ls\", which is not the file that was read: 0x%08x";
constexpr auto* kAmbiguous = L"Not replacing \"%ls\", which has several items of one path: 0x%08x";

} // namespace

HRESULT SZipArchivePrivate::checkReplaceable() {
    if (fileState_ == FileState::Ignored)
        return S_OK;
    const Database& own = fileDatabase();
    if (!own) {
        // What the file has and memory has not is kept.
        const HRESULT status = read(Contradiction::Refused);
        *changed = true;
        return status == S_OK || isAbsent(openingStatus_) ? S_OK : refuse(kUnread, fileName, status);
    }
    if (own->isOf(StringLess::view(fileName))) {
        const HRESULT status = own->checkFile();
        return status == S_OK || isAbsent(status) ? S_OK : refuse(kOther, fileName, status);
    }
    // The items need the database that they have, so they cannot take that of another file as well.
    Database other;
    const HRESULT status = Engine::openFile(fileName.GetString(), other);
    if (isAbsent(status))
        return S_OK;
    return refuse(kOther, fileName, status == S_OK ? STG_E_FILEALREADYEXISTS : status);
}

HRESULT SZipArchivePrivate::save() {
    if (!*changed || noFile)
        return S_OK;
    if (const HRESULT status = checkReplaceable(); status != S_OK)
        return status;
    if (isAmbiguous) // as has turned out only now
        return refuse(kAmbiguous, fileName, STG_E_ACCESSDENIED);
    Update update;
    if (const HRESULT status = describe(update); status != S_OK)
        return status;
    const CString temporaryPath = fileName + L".7ztmp";
    const auto temporary = Detail::adopt(new Engine::TemporaryFile(temporaryPath.GetString()));
    Reading written;
    if (const HRESULT status = write(update, *temporary.Get(), temporaryPath, written); status != S_OK)
        return status;
    if (const HRESULT status = replaceFile(temporaryPath); status != S_OK)
        return status;
    temporary->keep();
    return finish(update, std::move(written));
}

// The new archive is read before it takes the old one's place, so that the items have a database whatever
// happens afterwards.
HRESULT SZipArchivePrivate::write(const Update& update, Engine::TemporaryFile& temporary, const CString& path,
                                  Reading& written) {
    HRESULT status = temporary.create();
    if (status != S_OK) {
        logFailure(L"Failed to create file \"%ls\": 0x%08x", path, status);
        return status;
    }
    status = Engine::writeArchive(update.entries, database.get(), &temporary, fileName.GetString());
    if (status != S_OK)
        return status;
    status = temporary.finish();
    if (status != S_OK) {
        logFailure(L"Failed to write file \"%ls\": 0x%08x", path, status);
        return status;
    }
    Database fresh;
    status = Engine::openFile(path.GetString(), fresh);
    if (status == S_OK)
        status = fresh->read(path.GetString());
    if (status != S_OK)
        return status;
    if (fresh->count() != update.entries.size())
        return E_FAIL;
    fresh->closeFile(fileName.GetString());
    written = match(std::move(fresh));
    return S_OK;
}

// Nobody can replace a file while we have it open.
HRESULT SZipArchivePrivate::replaceFile(const CString& temporaryPath) {
    const Database& own = fileDatabase();
    const bool closes = own && own.use_count() == 1 && own->isOf(StringLess::view(fileName));
    if (closes)
        own->closeFile();
    constexpr DWORD kFlags = MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED | MOVEFILE_WRITE_THROUGH;
    if (Detail::platform().moveFile(temporaryPath.GetString(), fileName.GetString(), kFlags))
        return S_OK;
    const DWORD error = GetLastError();
    VxLog_WriteW(VxLog_Error, L"Failed to move \"%ls\" to \"%ls\": 0x%08x", temporaryPath.GetString(),
                 fileName.GetString(), static_cast<unsigned>(error));
    // Unless it works now, it is tried again whenever the file is needed.
    if (closes)
        withStatus([&] { return own->open(); });
    markAllModified();
    return Detail::storageStatus(error);
}

HRESULT SZipArchivePrivate::finish(const Update& update, Reading&& written) noexcept {
    const Database fresh = written.database;
    const HRESULT status = withStatus([&] { return fresh->open(); });
    if (status != S_OK) {
        markAllModified(); // before the items are refreshed, which drops contents that the file has
        takeOver(std::move(written));
        *changed = true;
        return status;
    }
    takeOver(std::move(written));
    for (const auto& [contents, changes] : update.written)
        contents->markSaved(changes);
    // What other threads wrote meanwhile is for the next save.
    if (hasModifiedContents())
        *changed = true;
    return S_OK;
}

void SZipArchivePrivate::markAllModified() noexcept {
    for (const auto& [path, item] : items)
        if (item.contents_)
            item.contents_->markModified();
}

HRESULT SZipArchivePrivate::saveTo(IStream* destination) const {
    if (isAmbiguous)
        return STG_E_ACCESSDENIED;
    Update update;
    if (const HRESULT status = describe(update); status != S_OK)
        return status;
    wchar_t name[64];
    std::swprintf(name, std::size(name), L":IStream@0x%p:", static_cast<void*>(destination));
    const auto output = Detail::adopt(new Engine::PassThroughOutStream(destination));
    return Engine::writeArchive(update.entries, database.get(), output.Get(), name);
}

HRESULT SZipArchive::save(bool flushAfterwards) {
    if (private_->readOnly)
        return STG_E_ACCESSDENIED;
    const HRESULT status = private_->locked(RwGuard::Exclusive, [&] { return private_->save(); });
    if (status == S_OK && flushAfterwards)
        flush(std::wstring_view());
    return status;
}

HRESULT SZipArchive::save(IStream* destination) const {
    if (!destination)
        return STG_E_INVALIDPOINTER;
    return private_->locked(RwGuard::Shared, [&] { return private_->saveTo(destination); });
}

} // namespace Vexel::Storage
