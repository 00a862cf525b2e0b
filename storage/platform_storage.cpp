#include "storage/platform_storage.h"

#include "base/last_error.h"
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
    return file ? ERROR_SUCCESS : lastError();
}

} // namespace

PlatformStorage& StoragePlatform() noexcept {
    static PlatformStorage calls{::StgOpenStorageEx, ::StgIsStorageFile, probeForWriting, ::CreateFileW};
    return calls;
}

} // namespace Vexel::Detail
