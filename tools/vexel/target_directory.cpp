#include "target_directory.h"

#include "failure.h"

#include <utility>
#include <vector>

namespace Vexel::Tool {
namespace {

// The form of an absolute path that may be longer than 260 characters and whose components Windows does not
// interpret.
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

bool isDirectory(DWORD attributes) {
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

} // namespace

TargetDirectory::TargetDirectory(const std::wstring& path, bool overwrite)
    : root_(withoutLengthLimit(path)), shown_(path), overwrite_(overwrite) {
    if (CreateDirectoryW(root_.c_str(), nullptr))
        return;
    const HRESULT status = lastErrorStatus();
    if (!isDirectory(GetFileAttributesW(root_.c_str())))
        throw Failure(L"cannot create", shown_, status);
}

void TargetDirectory::makeDirectory(const std::wstring& path) const {
    const std::wstring directory = absolute(path);
    if (CreateDirectoryW(directory.c_str(), nullptr))
        return;
    const HRESULT status = lastErrorStatus();
    const DWORD attributes = GetFileAttributesW(directory.c_str());
    if (!isDirectory(attributes))
        throw Failure(L"cannot create", label(path), status);
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
        throw Failure(L"a link stands in the place of", label(path), status);
}

std::wstring TargetDirectory::label(const std::wstring& path) const { return shown_ + L"\\" + path; }

std::wstring TargetDirectory::absolute(const std::wstring& path) const {
    return root_.ends_with(L'\\') ? root_ + path : root_ + L"\\" + path;
}

TargetFile::TargetFile(const TargetDirectory& directory, std::wstring path)
    : directory_(directory), path_(std::move(path)) {
    const std::wstring stem = directory.absolute(L"vexel-" + std::to_wstring(GetCurrentProcessId()) + L"-");
    for (unsigned number = 0; !file_; ++number) {
        temporary_ = stem + std::to_wstring(number) + L".part";
        file_ = FileHandle(CreateFileW(temporary_.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                       FILE_ATTRIBUTE_NORMAL, nullptr));
        if (!file_ && GetLastError() != ERROR_FILE_EXISTS)
            throw Failure(L"cannot create", directory_.label(path_), lastErrorStatus());
    }
}

TargetFile::~TargetFile() {
    file_.close();
    if (!temporary_.empty())
        DeleteFileW(temporary_.c_str());
}

void TargetFile::write(const void* data, std::size_t count) {
    DWORD written = 0;
    if (!WriteFile(file_.get(), data, static_cast<DWORD>(count), &written, nullptr) || written != count)
        throw Failure(L"cannot write", directory_.label(path_), lastErrorStatus());
}

void TargetFile::finish() {
    const DWORD flags = directory_.overwrite_ ? MOVEFILE_REPLACE_EXISTING : 0;
    if (!file_.close() || !MoveFileExW(temporary_.c_str(), directory_.absolute(path_).c_str(), flags))
        throw Failure(L"cannot create", directory_.label(path_), lastErrorStatus());
    temporary_.clear();
}

} // namespace Vexel::Tool
