#include "storage/platform_storage.h"

#include "paths/file_handle.h"

namespace Vexel::Detail {

namespace {

DWORD probeForWriting(const wchar_t* path) {
    // Some systems let a privileged user write to such a file.
    const DWORD attributes = GetFileAttributesW(path);
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_READONLY))
        return ERROR_ACCESS_DENIED;
    const FileHandle file(
        CreateFileW(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    return file ? ERROR_SUCCESS : GetLastError();
}

DWORD readStart(const wchar_t* path, std::span<std::byte> target, std::size_t& done) {
    constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    done = 0;
    const FileHandle file(CreateFileW(path, GENERIC_READ, shareAll, nullptr, OPEN_EXISTING, 0, nullptr));
    DWORD read = 0;
    if (!file || !ReadFile(file.get(), target.data(), static_cast<DWORD>(target.size()), &read, nullptr))
        return GetLastError();
    done = read;
    return ERROR_SUCCESS;
}

} // namespace

PlatformStorage& StoragePlatform() noexcept {
    static PlatformStorage calls{::StgOpenStorageEx, ::StgIsStorageFile, probeForWriting, readStart};
    return calls;
}

} // namespace Vexel::Detail
