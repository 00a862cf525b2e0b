// A file counts as the one that was read if it has the same size and the same first 32 bytes: those tell the
// place, the size and the checksum of the header, which lists everything else. So a file can be closed, for
// others or to be replaced, and opened again later without being read again.

#include "archive/database.h"

#include "archive/engine.h"
#include "archive/engine_status.h"
#include "archive/header_stream.h"
#include "base/com_pointer.h"
#include "base/handles.h"
#include "base/platform.h"
#include "base/status.h"

#include <vexel/diagnostics.h>

#include <7zip/Common/StreamUtils.h>

#include <algorithm>
#include <iterator>

namespace Vexel::Storage::Engine {

namespace {

constexpr DWORD kNotThere[] = {ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND, ERROR_INVALID_DRIVE,
                               ERROR_NOT_READY,      ERROR_BAD_NETPATH,    ERROR_BAD_NET_NAME,
                               ERROR_NOT_FOUND};

constexpr auto* kOpenFailure = L"Failed to open \"%ls\" as an archive: 0x%08x";
constexpr auto* kReadFailure = L"Failed to read the archive database for \"%ls\": 0x%08x";

bool isNotThere(DWORD error) noexcept {
    return std::find(std::begin(kNotThere), std::end(kNotThere), error) != std::end(kNotThere);
}

Detail::FileHandle openForReading(const wchar_t* path) noexcept {
    return Detail::FileHandle(Detail::platform().createFile(path, GENERIC_READ, FILE_SHARE_READ, nullptr,
                                                            OPEN_EXISTING, 0, nullptr));
}

/// What reading a database came to. The engine raises its flags beside any status, S_OK included. Its
/// warnings, of properties that it does not know and the like, are none.
HRESULT verdictOn(const NArchive::N7z::CDbEx& database, HRESULT status) noexcept {
    if (FAILED(status))
        return status;
    if (database.ThereIsHeaderError || database.UnexpectedEnd)
        return STG_E_INVALIDHEADER;
    if (database.UnsupportedFeatureError)
        return HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);
    return status == S_OK ? S_OK : E_FAIL;
}

void logFailure(int level, const wchar_t* format, const wchar_t* name, HRESULT status) noexcept {
    VxLog_WriteW(level, format, name, static_cast<unsigned>(status));
}

} // namespace

HRESULT openFile(const wchar_t* path, std::shared_ptr<DatabaseStream>& opened) {
    Detail::FileHandle file = openForReading(path);
    if (!file) {
        const DWORD error = GetLastError();
        VxLog_WriteW(isNotThere(error) ? VxLog_Minor : VxLog_Error, L"Failed to open file \"%ls\": 0x%08x",
                     path, static_cast<unsigned>(error));
        return Detail::storageStatus(error);
    }
    LARGE_INTEGER size{};
    if (!Detail::platform().getFileSize(file.get(), &size)) {
        VxLog_WriteW(VxLog_Error, L"Failed to get the size of the file \"%ls\": 0x%08x", path,
                     static_cast<unsigned>(GetLastError()));
        size.QuadPart = 0;
    }
    opened =
        std::make_shared<DatabaseStream>(path, std::move(file), static_cast<std::uint64_t>(size.QuadPart));
    return S_OK;
}

void adoptFolderDigests(NArchive::N7z::CDbEx& database) {
    for (unsigned i = 0; i < database.Files.Size(); ++i) {
        auto& file = database.Files[i];
        const unsigned folder = database.FileIndexToFolderIndexMap[i];
        if (!file.HasStream || folder == NArchive::N7z::kNumNoIndex ||
            database.NumUnpackStreamsVector[folder] != 1 || !database.FolderCRCs.ValidAndDefined(folder))
            continue;
        file.CrcDefined = true;
        file.Crc = database.FolderCRCs.Vals[folder];
    }
}

bool DatabaseStream::fileTimes(FILETIME* creation, FILETIME* lastWrite, FILETIME* lastAccess) const noexcept {
    // The caller's order differs from the system's.
    return file_.times(creation, lastAccess, lastWrite);
}

HRESULT DatabaseStream::openCursor(ComPtr<InStreamBase>& cursor) const {
    if (!isOnStream()) {
        if (const HRESULT status = open(); status != S_OK)
            return status;
        cursor = Detail::adopt<InStreamBase>(new FileInStream(file_, fileSize_));
        return S_OK;
    }
    ComPtr<::IStream> clone;
    HRESULT status = Detail::asStatus(stream_->Clone(&clone));
    if (status == S_OK && !clone)
        status = E_FAIL;
    if (status != S_OK) {
        VxLog_WriteW(VxLog_Error, L"Failed to clone an IStream: 0x%08x", static_cast<unsigned>(status));
        return status;
    }
    cursor = Detail::adopt<InStreamBase>(new IStreamInStream(std::move(clone)));
    return S_OK;
}

HRESULT DatabaseStream::readStart(StartHeader& start) const {
    FileInStream input(file_, fileSize_);
    const HRESULT status = ReadStream_FALSE(&input, start.data(), start.size());
    return status == S_FALSE ? STG_E_INVALIDHEADER : status;
}

// The start header holds a checksum of itself and of all that the database was read from.
HRESULT DatabaseStream::openAgain(std::shared_ptr<DatabaseStream>& again) const {
    HRESULT status = openFile(path_.c_str(), again);
    if (status != S_OK)
        return status;
    StartHeader start{};
    status = again->readStart(start);
    if (status == S_OK && (again->fileSize_ != fileSize_ || start != start_))
        status = STG_E_INVALIDHEADER;
    if (status != S_OK)
        logFailure(VxLog_Error, kOpenFailure, path_.c_str(), status);
    return status;
}

HRESULT DatabaseStream::open() const {
    const auto lock = lockUnlessEnding(opening_);
    if (!lock)
        return STG_E_INUSE;
    if (isOnStream() || file_.isOpen())
        return S_OK;
    std::shared_ptr<DatabaseStream> again;
    const HRESULT status = openAgain(again);
    if (status == S_OK)
        file_.takeOver(again->file_);
    return status;
}

HRESULT DatabaseStream::checkFile() const {
    std::shared_ptr<DatabaseStream> again;
    return openAgain(again);
}

HRESULT DatabaseStream::read(const wchar_t* archiveName) {
    return Detail::asStatus(withEngine(E_FAIL, [&] { return readDatabase(archiveName); }));
}

HRESULT DatabaseStream::readDatabase(const wchar_t* archiveName) {
    PlainHeader header;
    if (const HRESULT status = checkHeader(archiveName, header); status != S_OK)
        return status;
    if (const HRESULT status = readHeader(archiveName, std::move(header)); status != S_OK)
        return status;
    if (isOnStream())
        return S_OK;
    const HRESULT status = readStart(start_);
    if (status != S_OK)
        logFailure(VxLog_Error, kReadFailure, archiveName, status);
    return status;
}

HRESULT DatabaseStream::checkHeader(const wchar_t* archiveName, PlainHeader& header) const {
    ComPtr<IInStream> input;
    if (isOnStream())
        input = Detail::adopt<IInStream>(new IStreamInStream(stream_));
    else
        input = Detail::adopt<IInStream>(new FileInStream(file_, fileSize_));
    UInt64 size = 0;
    if (const HRESULT status = input->Seek(0, STREAM_SEEK_END, &size); status != S_OK) {
        logFailure(VxLog_Error, kOpenFailure, archiveName, status);
        return Detail::asStatus(status);
    }
    InStreamSource source(*input.Get(), size);
    HeaderVerdict verdict;
    const HRESULT status = withEngine(E_FAIL, [&] {
        verdict = checkHeaders(source, &header);
        return S_OK;
    });
    if (status != S_OK) { // for want of memory
        logFailure(VxLog_Error, kReadFailure, archiveName, status);
        return Detail::asStatus(status);
    }
    if (verdict.fault == HeaderFault::None)
        return S_OK;

    // The engine calls all faults S_FALSE.
    const bool isInput = verdict.fault == HeaderFault::Input;
    const bool isOpening =
        verdict.fault == HeaderFault::NotAnArchive || (isInput && verdict.where < start_.size());
    logFailure(verdict.fault == HeaderFault::NotAnArchive ? VxLog_Trace : VxLog_Error,
               isOpening ? kOpenFailure : kReadFailure, archiveName, isInput ? verdict.status : S_FALSE);
    VxLog_WriteW(VxLog_Trace, L"Header of \"%ls\", byte %llu: %hs", archiveName, verdict.where, verdict.what);
    return verdict.status;
}

// What the check let through may still be more than the engine knows.
HRESULT DatabaseStream::readHeader(const wchar_t* archiveName, PlainHeader&& header) {
    const auto input = Detail::adopt<IInStream>(new HeaderStream(std::move(header)));
    NArchive::N7z::CInArchive archive(threadCount() > 1);
    // An archive begins where the file does: nobody looks for one in gigabytes of something else.
    const UInt64 searchLimit = 0;
    HRESULT status = withEngine(S_FALSE, [&] { return archive.Open(input.Get(), &searchLimit); });
    if (status != S_OK) {
        logFailure(status == S_FALSE ? VxLog_Trace : VxLog_Error, kOpenFailure, archiveName, status);
        return status == S_FALSE ? STG_E_INVALIDHEADER : Detail::asStatus(status);
    }
    status = withEngine(S_FALSE, [&] { return archive.ReadDatabase(database_); });
    const HRESULT verdict = verdictOn(database_, status);
    if (verdict == S_OK) {
        adoptFolderDigests(database_);
        return S_OK;
    }
    // What it only flags, it calls a success.
    logFailure(VxLog_Error, kReadFailure, archiveName, status == S_OK ? verdict : status);
    archive.Close();
    return verdict;
}

std::wstring_view DatabaseStream::path(unsigned index) const noexcept {
    if (!database_.NameOffsets || !database_.NamesBuf)
        return {};
    const auto* names = reinterpret_cast<const wchar_t*>(static_cast<const Byte*>(database_.NamesBuf));
    const std::size_t begin = database_.NameOffsets[index];
    return {names + begin, database_.NameOffsets[index + 1] - begin - 1}; // without the terminating zero
}

DatabaseStream::Folder DatabaseStream::folderOf(unsigned index) const noexcept {
    const unsigned folder = database_.FileIndexToFolderIndexMap[index];
    return {folder, folder != NArchive::N7z::kNumNoIndex && database_.NumUnpackStreamsVector[folder] > 1};
}

bool DatabaseStream::hasSharedFolders() const noexcept {
    const auto& counts = database_.NumUnpackStreamsVector;
    return std::any_of(&counts[0], &counts[0] + database_.NumFolders,
                       [](NArchive::N7z::CNum count) { return count > 1; });
}

std::optional<std::uint32_t> DatabaseStream::attributes(unsigned index) const noexcept {
    UInt32 attributes = 0;
    return database_.Attrib.GetItem(index, attributes) ? std::optional<std::uint32_t>(attributes)
                                                       : std::nullopt;
}

std::uint64_t DatabaseStream::packedSize(unsigned index) const noexcept {
    const unsigned folder = database_.FileIndexToFolderIndexMap[index];
    return folder == NArchive::N7z::kNumNoIndex ? 0 : database_.GetFolderFullPackSize(folder);
}

std::uint64_t DatabaseStream::packedPart(unsigned index) const noexcept {
    const std::uint64_t packed = packedSize(index);
    const Folder folder = folderOf(index);
    const std::uint64_t contents = folder.isShared ? database_.GetFolderUnpackSize(folder.index) : 0;
    if (contents == 0)
        return packed;
    const double part = static_cast<double>(database_.Files[index].Size) / static_cast<double>(contents);
    return static_cast<std::uint64_t>(static_cast<double>(packed) * part);
}

} // namespace Vexel::Storage::Engine
