// Every call that fails leaves the system's error for GetLastErrorCode; a later success does not clear it, so
// that a caller may look once at the end.

#include "base/flushing.h"
#include "base/last_error.h"
#include "base/platform.h"

#include <vexel/files.h>

#include <algorithm>
#include <utility>

namespace vxio {

using Vexel::Detail::lastError;
using Vexel::Detail::platform;

namespace {

DWORD accessFlags(FileAccess access) noexcept {
    switch (access) {
    case FileAccess::Read:
        return GENERIC_READ;
    case FileAccess::Write:
        return GENERIC_WRITE;
    default:
        return GENERIC_READ | GENERIC_WRITE;
    }
}

DWORD creationFlag(FileCreation creation) noexcept {
    switch (creation) {
    case FileCreation::OpenExisting:
        return OPEN_EXISTING;
    case FileCreation::OpenOrCreate:
        return OPEN_ALWAYS;
    case FileCreation::CreateNew:
        return CREATE_NEW;
    default:
        return CREATE_ALWAYS;
    }
}

DWORD shareFlags(FileStreamProtectedType protection) noexcept {
    switch (protection) {
    case ProtectWriting:
        return FILE_SHARE_READ;
    case ProtectReading:
        return FILE_SHARE_WRITE;
    case ProtectNothing:
        return FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    default:
        return 0;
    }
}

/// Moves `count` bytes in calls that the system can take. To have moved more than was asked for is a failure,
/// and so is to have moved nothing where `nothing` names an error.
template <class Move>
unsigned long long moveAll(unsigned long long count, DWORD nothing, DWORD& error, const Move& move) noexcept {
    constexpr unsigned long long kLargest = 1ULL << 30;
    unsigned long long done = 0;
    while (done < count) {
        const auto size = static_cast<DWORD>((std::min)(count - done, kLargest));
        DWORD moved = 0;
        if (!move(done, size, moved))
            break;
        if (moved > size)
            error = ERROR_IO_DEVICE;
        else if (moved == 0 && nothing != ERROR_SUCCESS)
            error = nothing;
        if (moved == 0 || moved > size)
            break;
        done += moved;
    }
    return done;
}

/// A pipe that its writer has closed ends there, although the system calls that a failure. A file that fails
/// in the same way, as one on a server may, does not.
bool readFrom(HANDLE file, void* bytes, DWORD size, DWORD& moved) noexcept {
    if (platform().readFile(file, bytes, size, &moved, nullptr))
        return true;
    const DWORD error = lastError();
    const bool isEnd = error == ERROR_BROKEN_PIPE && GetFileType(file) == FILE_TYPE_PIPE;
    if (isEnd)
        moved = 0;
    else
        SetLastError(error);
    return isEnd;
}

} // namespace

SimpleFile::SimpleFile(SimpleFile&& other) noexcept
    : handle_(std::exchange(other.handle_, nullptr)), error_(other.error_) {}

SimpleFile& SimpleFile::operator=(SimpleFile&& other) noexcept {
    SimpleFile moved(std::move(other));
    std::swap(handle_, moved.handle_);
    std::swap(error_, moved.error_);
    return *this;
}

SimpleFile::~SimpleFile() { Close(); }

bool SimpleFile::check(bool done) const noexcept {
    if (!done)
        error_ = handle_ ? lastError() : ERROR_INVALID_HANDLE;
    return done;
}

bool SimpleFile::Open(const wchar_t* path, FileAccess access, FileCreation creation,
                      FileStreamProtectedType protection) noexcept {
    Close();
    error_ = 0;
    if (!path || !*path) {
        error_ = ERROR_INVALID_PARAMETER;
        return false;
    }
    const HANDLE opened = platform().createFile(path, accessFlags(access), shareFlags(protection), nullptr,
                                                creationFlag(creation), FILE_ATTRIBUTE_NORMAL, nullptr);
    if (opened == INVALID_HANDLE_VALUE) {
        error_ = lastError();
        return false;
    }
    handle_ = opened;
    return true;
}

void SimpleFile::Close() noexcept {
    if (handle_)
        CloseHandle(std::exchange(handle_, nullptr));
}

unsigned long long SimpleFile::Read(void* buffer, unsigned long long count) noexcept {
    return moveAll(count, ERROR_SUCCESS, error_, [&](unsigned long long at, DWORD size, DWORD& moved) {
        return check(handle_ && readFrom(handle_, static_cast<char*>(buffer) + at, size, moved));
    });
}

unsigned long long SimpleFile::Write(const void* buffer, unsigned long long count) noexcept {
    return moveAll(count, ERROR_DISK_FULL, error_, [&](unsigned long long at, DWORD size, DWORD& moved) {
        return check(handle_ && platform().writeFile(handle_, static_cast<const char*>(buffer) + at, size,
                                                     &moved, nullptr));
    });
}

bool SimpleFile::Seek(long long offset, DWORD origin, unsigned long long* position) noexcept {
    LARGE_INTEGER distance{};
    distance.QuadPart = offset;
    LARGE_INTEGER reached{};
    if (!check(handle_ && platform().setPosition(handle_, distance, &reached, origin)))
        return false;
    if (position)
        *position = static_cast<unsigned long long>(reached.QuadPart);
    return true;
}

unsigned long long SimpleFile::GetPosition() const noexcept {
    LARGE_INTEGER reached{};
    return check(handle_ && platform().setPosition(handle_, {}, &reached, FILE_CURRENT))
               ? static_cast<unsigned long long>(reached.QuadPart)
               : 0;
}

unsigned long long SimpleFile::GetLength() const noexcept {
    LARGE_INTEGER length{};
    return check(handle_ && platform().getFileSize(handle_, &length))
               ? static_cast<unsigned long long>(length.QuadPart)
               : 0;
}

// By the length itself and not by moving the position there: the position stays.
bool SimpleFile::SetLength(unsigned long long length) noexcept {
    FILE_END_OF_FILE_INFO end{};
    end.EndOfFile.QuadPart = static_cast<long long>(length);
    return check(handle_ && platform().setFileInformation(handle_, FileEndOfFileInfo, &end, sizeof end));
}

bool SimpleFile::Flush() noexcept { return check(handle_ && Vexel::Detail::flushed(handle_)); }

} // namespace vxio
