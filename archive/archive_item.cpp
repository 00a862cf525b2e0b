// Size and contents are under the item's own lock, because contents come and go while the archive is only
// shared. The times take no lock (archive.h).

#include "archive/archive_private.h"

namespace Vexel::Storage {

SZipArchiveItem::SZipArchiveItem(SZipArchivePrivate& archive, bool isDirectory)
    : archive_(&archive), isDirectory_(isDirectory) {}

SZipArchiveItem::~SZipArchiveItem() = default;

unsigned long long SZipArchiveItem::size() const {
    const RwGuard guard(lock_, RwGuard::Shared);
    return guard && contents_ ? contents_->lockedSize() : size_;
}

unsigned long long SZipArchiveItem::packedSize() const noexcept {
    const int record = archive_->recordOf(*this);
    return record >= 0 && archive_->isPacked(static_cast<unsigned>(record))
               ? archive_->database->packedPart(static_cast<unsigned>(record))
               : 0;
}

void SZipArchiveItem::setCreationTime(const FILETIME& time) noexcept {
    creationTime_ = time;
    *archive_->changed = true;
}

void SZipArchiveItem::setModificationTime(const FILETIME& time) noexcept {
    modificationTime_ = time;
    *archive_->changed = true;
}

void SZipArchiveItem::touch() noexcept {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    setModificationTime(now);
}

void SZipArchiveItem::flush() {
    const RwGuard guard(lock_, RwGuard::Exclusive);
    if (guard && canFlush())
        contents_.Reset();
}

void SZipArchiveItem::flushIfIdle() {
    const RwTryGuard guard(lock_, RwGuard::Exclusive);
    if (guard && canFlush())
        contents_.Reset();
}

bool SZipArchiveItem::canFlush() const noexcept {
    return contents_ && !contents_->isModified() && !contents_->isShared();
}

} // namespace Vexel::Storage
