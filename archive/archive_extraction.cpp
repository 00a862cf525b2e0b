// Contents of items, decoded into memory.

#include "archive/archive_private.h"
#include "archive/folder_decoder.h"
#include "base/com_pointer.h"
#include "base/platform.h"
#include "base/status_guard.h"

#include <vexel/diagnostics.h>

#include <cwchar>
#include <iterator>
#include <utility>

namespace Vexel::Storage {

namespace {

/// Gives the caller a stream of its own over the contents, at their beginning.
HRESULT openStreamOn(const ComPtr<SZipStream>& contents, IStream** result) {
    *result = new SZipStream(*contents.Get());
    return (*result)->Seek({}, STREAM_SEEK_SET, nullptr);
}

} // namespace

ComPtr<SZipStream> SZipArchivePrivate::newContents(DynamicBuffer&& bytes, const CString& path) const {
    return Detail::adopt(new SZipStream(std::move(bytes), {changed, path, readOnly.load()}));
}

int SZipArchivePrivate::recordOf(const SZipArchiveItem& item) const noexcept {
    const int index = item.databaseIndex_;
    return index >= 0 && database && static_cast<unsigned>(index) < database->count() ? index : -1;
}

bool SZipArchivePrivate::isPacked(unsigned record) const noexcept {
    const auto& file = database->database().Files[record];
    return file.HasStream && file.Size > 0;
}

SZipArchivePrivate::Decoded SZipArchivePrivate::decode(const SZipArchiveItem& item,
                                                       const CString& path) const {
    const int index = recordOf(item);
    if (index < 0 || fileState_ == FileState::Stale)
        return {STG_E_FILENOTFOUND, std::nullopt};
    const auto record = static_cast<unsigned>(index);
    return isPacked(record) ? decodePacked(path, record) : Decoded{S_OK, DynamicBuffer()};
}

SZipArchivePrivate::Decoded SZipArchivePrivate::decodePacked(const CString& path, unsigned record) const {
    const auto folder = database->folderOf(record);
    if (folder.isShared) {
        VxLog_WriteW(VxLog_Error, L"File \"%ls\" in archive \"%ls\" belongs to a multi-file solid block",
                     path.GetString(), fileName.GetString());
        return {STG_E_INVALIDFUNCTION, std::nullopt};
    }
    if (const HRESULT status = Engine::checkFolder(database->database(), folder.index); status != S_OK) {
        logDecodingFailure(path, status);
        return {status, std::nullopt};
    }
    DynamicBuffer bytes;
    if (const HRESULT status = reserve(bytes, path, record); status != S_OK)
        return {status, std::nullopt};
    ComPtr<Engine::InStreamBase> input;
    if (const HRESULT status = database->openCursor(input); status != S_OK)
        return {status, std::nullopt};
    const auto decoded = Engine::decodeFolder(database->database(), folder.index, *input.Get(), bytes);
    if (!decoded.isWhole()) {
        logDecodingFailure(path, decoded.status);
        return {decoded.status, std::nullopt};
    }
    if (!isAsStored(path, record, bytes, decoded.crc))
        return {STG_E_READFAULT, std::nullopt};
    return {S_OK, std::move(bytes)};
}

HRESULT SZipArchivePrivate::reserve(DynamicBuffer& bytes, const CString& path, unsigned record) const {
    const UInt64 size = database->database().Files[record].Size;
    bytes.data = static_cast<unsigned char*>(Detail::platform().reallocate(nullptr, size));
    if (bytes.data) {
        bytes.capacity = size;
        return S_OK;
    }
    VxLog_WriteW(VxLog_Error,
                 L"Not enough memory for decompressed contents of the file \"%ls\" (%llu byte(s)) in archive "
                 L"\"%ls\"",
                 path.GetString(), size, fileName.GetString());
    return STG_E_INSUFFICIENTMEMORY;
}

bool SZipArchivePrivate::isAsStored(const CString& path, unsigned record, const DynamicBuffer& bytes,
                                    std::uint32_t crc) const {
    const auto& file = database->database().Files[record];
    if (bytes.size == file.Size && (!file.CrcDefined || crc == file.Crc))
        return true;
    wchar_t crcs[32] = L"";
    if (file.CrcDefined)
        std::swprintf(crcs, std::size(crcs), L", CRC 0x%08x/0x%08x", crc, file.Crc);
    VxLog_WriteW(VxLog_Error,
                 L"Decompressed version of the file \"%ls\" in archive \"%ls\" has not met the expectations: "
                 L"size %llu/%llu%ls",
                 path.GetString(), fileName.GetString(), bytes.size, file.Size, crcs);
    return false;
}

void SZipArchivePrivate::logDecodingFailure(const CString& path, HRESULT status) const noexcept {
    VxLog_WriteW(VxLog_Error, L"Failed to decompress the file \"%ls\" in archive \"%ls\": 0x%08x",
                 path.GetString(), fileName.GetString(), static_cast<unsigned>(status));
}

HRESULT SZipArchivePrivate::copyContents(const SZipArchiveItem& item, const CString& path,
                                         DynamicBuffer& bytes) const {
    if (item.contents_) {
        bytes = item.contents_->copyBytes();
        return S_OK;
    }
    Decoded decoded = decode(item, path);
    if (!decoded.contents)
        return FAILED(decoded.status) ? decoded.status : STG_E_READFAULT;
    bytes = std::move(*decoded.contents);
    return S_OK;
}

HRESULT SZipArchivePrivate::extract(SZipArchiveItem& item, const CString& path, IStream** result) {
    if (item.isDirectory_)
        return STG_E_FILENOTFOUND;
    RwGuard guard(item.lock_, RwGuard::Shared);
    if (!guard)
        return STG_E_INUSE;
    if (item.contents_)
        return openStreamOn(item.contents_, result);
    Decoded decoded = decode(item, path);
    if (!decoded.contents)
        return decoded.status;
    ComPtr<SZipStream> contents = newContents(std::move(*decoded.contents), path);
    // Another thread may have been faster, and its stream be changed already.
    if (!guard.upgrade() && item.contents_)
        return openStreamOn(item.contents_, result);
    item.contents_ = contents;
    *result = contents.Detach();
    return S_OK;
}

/// Nothing fails for want of memory once the old contents are gone.
HRESULT SZipArchivePrivate::openEmptied(SZipArchiveItem& item, const CString& path,
                                        const std::shared_ptr<const void>& keeper, IStream** result) {
    if (readOnly)
        return STG_E_ACCESSDENIED;
    if (item.isDirectory_)
        return STG_E_FILENOTFOUND;
    const ComPtr<SZipStream> contents = newContents({}, path);
    contents->markModified(); // even if nothing is ever written: they are not those in the file
    ComPtr<SZipStream> stream = Detail::adopt(new SZipStream(*contents.Get(), keeper));
    const RwGuard guard(item.lock_, RwGuard::Exclusive);
    if (!guard)
        return STG_E_INUSE;
    if (item.contents_) {
        stream = Detail::adopt(new SZipStream(*item.contents_.Get(), keeper));
        HRESULT status = stream->Seek({}, STREAM_SEEK_SET, nullptr);
        if (status == S_OK)
            status = stream->SetSize({});
        if (status != S_OK)
            return status;
    } else if (recordOf(item) < 0 || fileState_ == FileState::Stale) {
        return STG_E_FILENOTFOUND;
    } else {
        item.contents_ = contents;
        *changed = true;
    }
    *result = stream.Detach();
    return S_OK;
}

template <class Open>
HRESULT SZipArchivePrivate::openFile(std::wstring_view path, IStream** result, Open open) {
    if (!result)
        return STG_E_INVALIDPOINTER;
    *result = nullptr;
    if (!isItemPath(path))
        return STG_E_INVALIDNAME;
    return locked(RwGuard::Shared, [&]() -> HRESULT {
        const auto found = items.find(path);
        return found == items.end() ? STG_E_FILENOTFOUND : open(found->second, found->first);
    });
}

HRESULT SZipArchive::extractFile(IStream** result, std::wstring_view path) {
    return private_->openFile(path, result, [&](SZipArchiveItem& item, const CString& key) {
        return private_->extract(item, key, result);
    });
}

HRESULT SZipArchive::openEmptied(IStream** result, const CString& path,
                                 const std::shared_ptr<const void>& keeper) {
    return private_->openFile(StringLess::view(path), result, [&](SZipArchiveItem& item, const CString& key) {
        return private_->openEmptied(item, key, keeper, result);
    });
}

} // namespace Vexel::Storage
