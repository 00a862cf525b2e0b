// The engine delivers a folder's bytes without telling where one file ends and the next begins; the database
// says that. The same file may be wanted several times, and files that are not wanted are passed over.

#include "archive/folder_splitter.h"

#include <7zCrc.h>

#include <algorithm>
#include <cstring>

namespace Vexel::Storage::Engine {

FolderSplitter::FolderSplitter(const NArchive::N7z::CDbEx& database, unsigned folder,
                               std::vector<Part>& parts) noexcept
    : database_(database), parts_(parts), first_(parts.begin()),
      record_(database.FolderStartFileIndex[folder] - 1),
      filesLeft_(database.NumUnpackStreamsVector[folder]) {}

bool FolderSplitter::nextFile() noexcept {
    if (filesLeft_ == 0)
        return false;
    --filesLeft_;
    do
        ++record_;
    while (!database_.Files[record_].HasStream); // such ones may stand in between
    left_ = database_.Files[record_].Size;
    while (first_ != parts_.end() && first_->record < record_)
        ++first_;
    return true;
}

void FolderSplitter::append(const std::byte* data, std::uint32_t size) noexcept {
    for (auto part = first_; part != parts_.end() && part->record == record_; ++part) {
        std::memcpy(part->bytes.data + part->bytes.size, data, size);
        part->bytes.size += size;
        part->crc = ~CrcUpdate(~part->crc, data, size);
    }
}

HRESULT FolderSplitter::Write(const void* data, UInt32 size, UInt32* processed) noexcept {
    if (processed)
        *processed = 0;
    const auto* bytes = static_cast<const std::byte*>(data);
    for (UInt32 done = 0; done < size;) {
        while (left_ == 0)
            if (!nextFile())
                return E_FAIL;
        const auto count = static_cast<UInt32>((std::min)(left_, std::uint64_t{size - done}));
        append(bytes + done, count);
        left_ -= count;
        done += count;
    }
    if (processed)
        *processed = size;
    return S_OK;
}

} // namespace Vexel::Storage::Engine
