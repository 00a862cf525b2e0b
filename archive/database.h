#pragma once

#include "archive/engine_api.h"
#include "archive/engine_inputs.h"
#include "archive/header_check.h"
#include "base/handles.h"

#include <windows.h>

#include <objidl.h>
#include <wrl/client.h>

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace Vexel::Storage::Engine {

/// A folder's checksum is that of its only file. Without a list of the parts of folders the engine does not
/// take it for that; a save would hand it on all the same, and the file could not be read any more if it were
/// wrong.
void adoptFolderDigests(NArchive::N7z::CDbEx& database);

/// An archive's database and the input that it was read from: a file of ours or a caller's stream. Once it is
/// read, it does not change but by `closeFile`, and may be used from many threads.
class DatabaseStream {
public:
    /// On a caller's stream, on which it takes a reference.
    explicit DatabaseStream(::IStream* stream) noexcept : stream_(stream) { database_.Clear(); }
    DatabaseStream(const wchar_t* path, Detail::FileHandle file, std::uint64_t size)
        : path_(path), file_(std::move(file)), fileSize_(size) {
        database_.Clear();
    }

    bool isOnStream() const noexcept { return stream_ != nullptr; }
    ::IStream* stream() const noexcept { return stream_.Get(); }
    /// Whether it is of the file at this path.
    bool isOf(std::wstring_view path) const noexcept { return !isOnStream() && path_ == path; }
    bool fileTimes(FILETIME* creation, FILETIME* lastWrite, FILETIME* lastAccess) const noexcept;

    /// Reads the database. Failures are logged with the archive's name.
    ///  - STG_E_INVALIDHEADER, HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED), E_FAIL, the engine's and the input's
    ///  codes.
    HRESULT read(const wchar_t* archiveName);

    /// Lets go of the file, so that it can be replaced; the database stays. Not while others use it.
    void closeFile() noexcept { file_.close(); }
    /// The same for a file that is to be found at another path from then on.
    void closeFile(const wchar_t* newPath) {
        path_ = newPath;
        closeFile();
    }
    /// Opens the file again if it was closed. Failures are logged. STG_E_INVALIDHEADER when it is not the one
    /// that the database was read from.
    HRESULT open() const;
    /// Whether that file is still at its path. Beside an open one, another may have come there: on a server,
    /// or under systems that let an open file be replaced. The statuses are those of `open`.
    HRESULT checkFile() const;

    /// An input with a position of its own; opens the file if need be. A stream that cannot be cloned is
    /// logged, and gives its code.
    HRESULT openCursor(ComPtr<InStreamBase>& cursor) const;

    const NArchive::N7z::CDbEx& database() const noexcept { return database_; }
    unsigned count() const noexcept { return database_.Files.Size(); }
    std::wstring_view path(unsigned index) const noexcept;
    /// The folder that holds the file's contents, and whether that holds others, too.
    struct Folder {
        unsigned index;
        bool isShared;
    };
    /// For files with contents only.
    Folder folderOf(unsigned index) const noexcept;
    /// Whether any folder holds several files.
    bool hasSharedFolders() const noexcept;
    std::optional<std::uint32_t> attributes(unsigned index) const noexcept;
    /// The bytes of the folder of any item; 0 without one.
    std::uint64_t packedSize(unsigned index) const noexcept;
    /// Of these, the part that the file's size is of the folder's contents; for files with contents only.
    std::uint64_t packedPart(unsigned index) const noexcept;

private:
    using StartHeader = std::array<std::byte, NArchive::N7z::kHeaderSize>;

    HRESULT readStart(StartHeader& start) const;
    HRESULT openAgain(std::shared_ptr<DatabaseStream>& again) const;
    HRESULT readDatabase(const wchar_t* archiveName);
    HRESULT checkHeader(const wchar_t* archiveName, PlainHeader& header) const;
    HRESULT readHeader(const wchar_t* archiveName, PlainHeader&& header);

    NArchive::N7z::CDbEx database_;
    StartHeader start_{};
    std::wstring path_;
    mutable std::mutex opening_;
    mutable SharedFile file_;
    std::uint64_t fileSize_ = 0;
    ComPtr<::IStream> stream_;
};

/// Opens an archive's file for reading. A failure is logged, and gives its Win32 error in the storage
/// facility.
HRESULT openFile(const wchar_t* path, std::shared_ptr<DatabaseStream>& opened);

} // namespace Vexel::Storage::Engine
