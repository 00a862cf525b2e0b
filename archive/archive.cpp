// What an archive is asked and told that needs no file. The public class holds nothing but its private part
// and takes that one's lock; what is done under the lock is in the sources beside this one, by subject:
// archive_reading, _extraction, _changes, _copying, _describing and _saving.

#include "archive/archive_private.h"
#include "archive/engine.h"
#include "base/status_guard.h"

#include <vexel/diagnostics.h>

#include <iterator>
#include <utility>

namespace Vexel::Storage {

SZipArchive::SZipArchive(IStream* stream) : private_(std::make_unique<SZipArchivePrivate>()) {
    Engine::start();
    private_->readOnly = true;
    private_->database = std::make_shared<Engine::DatabaseStream>(stream);
}

SZipArchive::SZipArchive(std::wstring_view path, bool readOnly, bool silentDiscard)
    : private_(std::make_unique<SZipArchivePrivate>()) {
    Engine::start();
    private_->fileName = stringOf(path);
    private_->noFile = path.empty();
    private_->readOnly = readOnly;
    private_->silentDiscard = silentDiscard || path.empty();
}

SZipArchive::SZipArchive(SZipArchive&& other) noexcept = default;

SZipArchive& SZipArchive::operator=(SZipArchive&& other) noexcept {
    swap(other);
    return *this;
}

SZipArchive::~SZipArchive() {
    if (private_ && *private_->changed && !private_->noFile && !private_->silentDiscard)
        VxLog_WriteW(VxLog_Warning, L"Destroying unsaved archive \"%ls\"", private_->fileName.GetString());
}

HRESULT SZipArchive::reload() {
    return private_->locked(RwGuard::Exclusive, [&] { return private_->reload(); });
}

HRESULT SZipArchive::openingStatus() const {
    const RwGuard guard(private_->lock, RwGuard::Shared);
    return guard ? private_->openingStatus() : STG_E_INUSE;
}

const CString& SZipArchive::fileName() const noexcept { return private_->fileName; }

void SZipArchive::setFileName(const CString& name) { private_->fileName = name; }

bool SZipArchive::readOnly() const noexcept { return private_->readOnly; }

const std::map<CString, SZipArchiveItem, StringLess>& SZipArchive::items() const noexcept {
    return private_->items;
}

SZipArchiveItem* SZipArchive::item(std::wstring_view path) const {
    const auto found = private_->items.find(path);
    return path.empty() || found == private_->items.end() ? nullptr : &found->second;
}

bool SZipArchive::hasDirectory(const CString& path) const {
    const RwGuard guard(private_->lock, RwGuard::Shared);
    return guard && private_->hasDirectory(StringLess::view(path));
}

void SZipArchive::itemTimes(const CString& path, FILETIME& creation, FILETIME& modification) const {
    const RwGuard guard(private_->lock, RwGuard::Shared);
    if (!guard)
        return;
    const auto found = private_->items.find(path);
    if (found == private_->items.end())
        return;
    creation = found->second.creationFileTime();
    modification = found->second.modificationFileTime();
}

bool SZipArchive::isEmpty() const {
    const RwGuard guard(private_->lock, RwGuard::Shared);
    return !guard || private_->items.empty();
}

bool SZipArchive::isChanged() const noexcept { return *private_->changed; }

bool SZipArchive::fileTimes(FILETIME* creation, FILETIME* lastWrite, FILETIME* lastAccess) const {
    const RwGuard guard(private_->lock, RwGuard::Shared);
    return guard && private_->database && private_->database->fileTimes(creation, lastWrite, lastAccess);
}

} // namespace Vexel::Storage
