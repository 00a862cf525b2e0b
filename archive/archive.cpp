#include "archive/archive_private.h"
#include "archive/engine.h"
#include "paths/status_guard.h"

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
    private_->fileName = toString(path);
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
    return Detail::withStatus([&] {
        const RwGuard guard(private_->lock, RwGuard::Exclusive);
        return private_->reload();
    });
}

HRESULT SZipArchive::openingStatus() const {
    const RwGuard guard(private_->lock, RwGuard::Shared);
    return private_->openingStatus();
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

void SZipArchive::visitDescendants(
    std::wstring_view path,
    const std::function<void(std::wstring_view pathBelow, const SZipArchiveItem& item)>& visit) const {
    const RwGuard guard(private_->lock, RwGuard::Shared);
    const std::size_t start = path.empty() ? 0 : path.size() + 1;
    for (auto item = SZipArchivePrivate::descendantsBegin(private_->items, path);
         item != private_->items.end() && SZipArchivePrivate::isDescendant(path, item->first);) {
        const std::wstring_view key = StringLess::view(item->first);
        visit(key.substr(start), item->second);
        // Nested storages are listed level by level: with all below each, the time would grow with the
        // square.
        const std::size_t end = key.find(L'/', start);
        item = end == std::wstring_view::npos
                   ? std::next(item)
                   : private_->items.lower_bound(std::wstring(key.substr(0, end)) + wchar_t{L'/' + 1});
    }
}

bool SZipArchive::hasDirectory(const CString& path) const {
    const RwGuard guard(private_->lock, RwGuard::Shared);
    return private_->hasDirectory(StringLess::view(path));
}

void SZipArchive::itemTimes(const CString& path, FILETIME& creation, FILETIME& modification) const {
    const RwGuard guard(private_->lock, RwGuard::Shared);
    const auto found = private_->items.find(path);
    if (found == private_->items.end())
        return;
    creation = found->second.creationFileTime();
    modification = found->second.modificationFileTime();
}

bool SZipArchive::isEmpty() const {
    const RwGuard guard(private_->lock, RwGuard::Shared);
    return private_->items.empty();
}

bool SZipArchive::isChanged() const noexcept { return *private_->changed; }

bool SZipArchive::fileTimes(FILETIME* creation, FILETIME* lastWrite, FILETIME* lastAccess) const {
    const RwGuard guard(private_->lock, RwGuard::Shared);
    return private_->database && private_->database->fileTimes(creation, lastWrite, lastAccess);
}

} // namespace Vexel::Storage
