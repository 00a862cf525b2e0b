// Paths beyond 260 characters, and a file that is made under another name and gets its own at the end.

#include "file_paths.h"

#include "failure.h"
#include "node_pattern.h"
#include "stopping.h"

#include <vexel/storage.h>

#include <algorithm>
#include <optional>
#include <string_view>
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

bool isDirectory(DWORD attributes) {
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

[[noreturn]] void failToCreate(const std::wstring& path, const std::wstring& label, HRESULT status) {
    if (isDirectory(GetFileAttributesW(path.c_str())))
        throw Failure(L"cannot create", label, STG_E_FILEALREADYEXISTS, L"a directory has that name");
    throw Failure(L"cannot create", label, status);
}

std::wstring directoryOf(const std::wstring& path) { return path.substr(0, path.find_last_of(L"\\/:") + 1); }

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

// The prefix of paths without a length limit has a "?" that is none.
bool hasFileWildcards(std::wstring_view path) {
    constexpr std::wstring_view kPrefix = L"\\\\?\\";
    return NodePattern::hasWildcards(path.starts_with(kPrefix) ? path.substr(kPrefix.size()) : path);
}

void checkOpened(HRESULT status, const std::wstring& file) {
    if (status == S_OK)
        return;
    if (isDirectory(GetFileAttributesW(file.c_str())))
        throw Failure(L"cannot open", file, status, L"it is a directory");
    if (hasFileWildcards(file))
        throw Failure(L"cannot open", file, status, L"one file is wanted here, not a pattern");
    check(status, L"cannot open", file);
}

void checkFree(const std::wstring& path, const std::wstring& label, bool force) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (isDirectory(attributes) || (!force && attributes != INVALID_FILE_ATTRIBUTES))
        failToCreate(path, label, STG_E_FILEALREADYEXISTS);
}

// The system's search takes short names for matches, too ("*.7z" for "HALL~1.7Z", which is "hall.7zip").
std::vector<std::wstring> expandFiles(const std::wstring& argument) {
    const std::wstring directory = directoryOf(argument);
    const std::wstring pattern = argument.substr(directory.size());
    if (!hasFileWildcards(argument) || GetFileAttributesW(argument.c_str()) != INVALID_FILE_ATTRIBUTES)
        return {argument};
    if (hasFileWildcards(directory))
        throw UsageError(L"only the last part of a file's path can be a pattern:", argument);
    std::vector<std::wstring> files;
    WIN32_FIND_DATAW found;
    const Detail::SearchHandle search(FindFirstFileW((directory + L"*").c_str(), &found));
    const std::wstring_view wanted = pattern == L"*.*" ? std::wstring_view(L"*") : pattern;
    for (bool isThere = static_cast<bool>(search); isThere; isThere = FindNextFileW(search.get(), &found)) {
        if (!isDirectory(found.dwFileAttributes) && NodePattern::matchesFileName(wanted, found.cFileName))
            files.push_back(directory + found.cFileName);
    }
    if (GetLastError() != ERROR_NO_MORE_FILES && GetLastError() != ERROR_FILE_NOT_FOUND)
        throw Failure(L"cannot list", directory.empty() ? L"." : directory, lastErrorStatus());
    if (files.empty())
        throw Failure(L"no file matches", argument, STG_E_FILENOTFOUND);
    std::sort(files.begin(), files.end(), [](const std::wstring& a, const std::wstring& b) {
        return CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_LESS_THAN;
    });
    return files;
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
    // What it replaces is gone then, so that its bytes must be on the disk first. The library's saves see to
    // that.
    if (overwrite && file_ && !FlushFileBuffers(file_.get()))
        throw Failure(L"cannot write", label_, lastErrorStatus());
    const DWORD flags = overwrite ? MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH : 0;
    if (!file_.close())
        throw Failure(L"cannot write", label_, lastErrorStatus());
    if (!MoveFileExW(path_.c_str(), path.c_str(), flags))
        failToCreate(path, label_, lastErrorStatus());
    path_.clear();
}

} // namespace Vexel::Tool
