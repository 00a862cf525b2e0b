// Paths beyond 260 characters, and a file that is made under another name and gets its own at the end.

#include "file_paths.h"

#include "failure.h"
#include "stopping.h"

#include <vexel/storage.h>

#include <optional>
#include <utility>
#include <vector>

namespace Vexel::Tool {

std::wstring withoutLengthLimit(const std::wstring& path) {
    std::vector<wchar_t> buffer(GetFullPathNameW(path.c_str(), 0, nullptr, nullptr));
    const DWORD length =
        GetFullPathNameW(path.c_str(), static_cast<DWORD>(buffer.size()), buffer.data(), nullptr);
    if (length == 0 || length >= buffer.size())
        throw Failure(L"cannot find", path, lastErrorStatus());
    std::wstring full(buffer.data(), length);
    if (full.starts_with(L"\\\\?\\") || full.starts_with(L"\\\\.\\"))
        return full;
    if (full.starts_with(L"\\\\"))
        return L"\\\\?\\UNC\\" + full.substr(2);
    return L"\\\\?\\" + full;
}

namespace {

struct FileIdentity {
    DWORD volume;
    ULARGE_INTEGER number;
};

// Nothing where there is no file.
std::optional<FileIdentity> identityOf(const std::wstring& path) {
    const Detail::FileHandle file(CreateFileW(withoutLengthLimit(path).c_str(), FILE_READ_ATTRIBUTES,
                                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                              OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    BY_HANDLE_FILE_INFORMATION about;
    if (!file || !GetFileInformationByHandle(file.get(), &about))
        return std::nullopt;
    return FileIdentity{about.dwVolumeSerialNumber,
                        {.u = {.LowPart = about.nFileIndexLow, .HighPart = about.nFileIndexHigh}}};
}

} // namespace

bool isSameFile(const std::wstring& path, const std::wstring& other) {
    const auto one = identityOf(path);
    const auto two = identityOf(other);
    return one && two && one->volume == two->volume && one->number.QuadPart == two->number.QuadPart;
}

PartialFile::PartialFile(const std::wstring& directory, std::wstring label) : label_(std::move(label)) {
    const std::wstring stem = directory + L"vexel-" + std::to_wstring(GetCurrentProcessId()) + L"-";
    for (unsigned number = 0; !file_; ++number) {
        path_ = stem + std::to_wstring(number) + L".part";
        file_ = Detail::FileHandle(CreateFileW(path_.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                               FILE_ATTRIBUTE_NORMAL, nullptr));
        if (!file_ && GetLastError() != ERROR_FILE_EXISTS)
            throw Failure(L"cannot create", label_, lastErrorStatus());
    }
}

PartialFile::~PartialFile() {
    file_.close();
    if (path_.empty())
        return;
    // The library keeps a package's file open until it is told to let go.
    StorageContainer::Instance().deleteUnusedObjects();
    remove(path_ + L".7ztmp");
    remove(path_);
}

void PartialFile::remove(const std::wstring& path) const {
    if (!DeleteFileW(path.c_str()) && GetLastError() != ERROR_FILE_NOT_FOUND)
        report(Failure(L"cannot delete", path, lastErrorStatus()).message());
}

void PartialFile::write(const void* data, std::size_t count) {
    DWORD written = 0;
    if (!WriteFile(file_.get(), data, static_cast<DWORD>(count), &written, nullptr) || written != count)
        throw Failure(L"cannot write", label_, lastErrorStatus());
}

void PartialFile::close() {
    if (!file_.close())
        throw Failure(L"cannot write", label_, lastErrorStatus());
}

void PartialFile::finish(const std::wstring& path, bool overwrite) {
    checkStop();
    const DWORD flags = overwrite ? MOVEFILE_REPLACE_EXISTING : 0;
    if (!file_.close() || !MoveFileExW(path_.c_str(), path.c_str(), flags))
        throw Failure(L"cannot create", label_, lastErrorStatus());
    path_.clear();
}

} // namespace Vexel::Tool
