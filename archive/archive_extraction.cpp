// Contents of items, decoded into memory.

#include "archive/archive_private.h"
#include "archive/folder_decoder.h"
#include "io/com_pointer.h"
#include "io/memory_blocks.h"
#include "paths/status_guard.h"

#include <vexel/diagnostics.h>

#include <utility>

namespace Vexel::Storage {

namespace {

bool reserve(DynamicBuffer& bytes, unsigned long long size) noexcept {
    bytes.data = static_cast<unsigned char*>(Detail::memorySource.reallocate(nullptr, size));
    bytes.capacity = bytes.data ? size : 0;
    return bytes.data != nullptr;
}

HRESULT hand(const ComPtr<SZipStream>& contents, IStream** result) {
    *result = new SZipStream(*contents.Get());
    return (*result)->Seek({}, STREAM_SEEK_SET, nullptr);
}

} // namespace

ComPtr<SZipStream> SZipArchivePrivate::newContents(DynamicBuffer&& bytes, const CString& path) const {
    return Detail::adopt(new SZipStream(std::move(bytes), {changed, path, readOnly}));
}

HRESULT SZipArchivePrivate::decode(const SZipArchiveItem& item, const CString& path, DynamicBuffer& bytes,
                                   bool& isWhole) const {
    isWhole = false;
    if (item.databaseIndex_ < 0 || !database ||
        static_cast<unsigned>(item.databaseIndex_) >= database->count())
        return STG_E_FILENOTFOUND;
    const auto index = static_cast<unsigned>(item.databaseIndex_);
    const auto& record = database->database().Files[index];
    isWhole = !record.HasStream || record.Size == 0;
    return isWhole ? S_OK : decodeFolder(path, index, bytes, isWhole);
}

HRESULT SZipArchivePrivate::decodeFolder(const CString& path, unsigned index, DynamicBuffer& bytes,
                                         bool& isWhole) const {
    const auto& records = database->database();
    const auto& record = records.Files[index];
    const auto folder = database->folderOf(index);
    if (folder.isShared) {
        VxLog_WriteW(VxLog_Error, L"File \"%ls\" in archive \"%ls\" belongs to a multi-file solid block",
                     path.GetString(), fileName.GetString());
        return STG_E_INVALIDFUNCTION;
    }
    Engine::DecodedFolder decoded{STG_E_READFAULT, true};
    if (folder.index != NArchive::N7z::kNumNoIndex && Engine::isPlausible(records, folder.index)) {
        if (!reserve(bytes, record.Size)) {
            VxLog_WriteW(
                VxLog_Error,
                L"Not enough memory for decompressed contents of the file \"%ls\" (%llu byte(s)) in archive "
                L"\"%ls\"",
                path.GetString(), record.Size, fileName.GetString());
            return STG_E_INSUFFICIENTMEMORY;
        }
        decoded = Engine::decodeFolder(*database, folder.index, bytes);
    }
    if (!decoded.isStarted)
        return decoded.status;
    // The decoder calls it a success when data are left over. So do we, but there is nothing to have.
    if (decoded.status != S_OK || decoded.dataAfterEnd) {
        VxLog_WriteW(VxLog_Error, L"Failed to decompress the file \"%ls\" in archive \"%ls\": 0x%08x",
                     path.GetString(), fileName.GetString(), static_cast<unsigned>(decoded.status));
        return decoded.status;
    }
    isWhole = bytes.size == record.Size && (!record.CrcDefined || decoded.crc == record.Crc);
    if (isWhole)
        return S_OK;
    if (record.CrcDefined) {
        VxLog_WriteW(
            VxLog_Error,
            L"Decompressed version of the file \"%ls\" in archive \"%ls\" has not met the expectations: size "
            L"%llu/%llu, CRC 0x%08x/0x%08x",
            path.GetString(), fileName.GetString(), bytes.size, record.Size, decoded.crc, record.Crc);
    } else {
        VxLog_WriteW(
            VxLog_Error,
            L"Decompressed version of the file \"%ls\" in archive \"%ls\" has not met the expectations: size "
            L"%llu/%llu",
            path.GetString(), fileName.GetString(), bytes.size, record.Size);
    }
    return STG_E_READFAULT;
}

HRESULT SZipArchivePrivate::extract(SZipArchiveItem& item, const CString& path, IStream** result) {
    if (item.isDirectory_)
        return STG_E_FILENOTFOUND;
    RwGuard guard(item.lock_, RwGuard::Shared);
    if (item.contents_)
        return hand(item.contents_, result);
    DynamicBuffer bytes;
    bool isWhole = false;
    const HRESULT status = decode(item, path, bytes, isWhole);
    if (!isWhole)
        return status;
    ComPtr<SZipStream> contents = newContents(std::move(bytes), path);
    // Another thread may have been faster, and its stream be changed already.
    if (!guard.upgrade() && item.contents_)
        return hand(item.contents_, result);
    item.contents_ = contents;
    *result = contents.Detach();
    return S_OK;
}

HRESULT SZipArchive::extractFile(IStream** result, std::wstring_view path) {
    if (!result)
        return STG_E_INVALIDPOINTER;
    *result = nullptr;
    if (!isItemPath(path))
        return STG_E_INVALIDNAME;
    return Detail::withStatus([&]() -> HRESULT {
        RwGuard guard(private_->lock, RwGuard::Shared);
        if (!private_->isSettled()) {
            guard.upgrade();
            if (const HRESULT status = private_->settle(); FAILED(status))
                return status;
        }
        const auto found = private_->items.find(path);
        return found == private_->items.end() ? STG_E_FILENOTFOUND
                                              : private_->extract(found->second, found->first, result);
    });
}

} // namespace Vexel::Storage
