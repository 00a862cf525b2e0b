// Nothing is written outside the directory: names are encoded before they come here, and a link in the place
// of a subdirectory is refused.

#include "target_directory.h"

#include "failure.h"

namespace Vexel::Tool {
namespace {

bool isDirectory(DWORD attributes) {
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

[[noreturn]] void failAsNoDirectory(const std::wstring& label, HRESULT status, DWORD attributes) {
    if (attributes != INVALID_FILE_ATTRIBUTES)
        throw Failure(L"cannot create", label, status, L"a file has that name, and a directory is needed");
    throw Failure(L"cannot create", label, status);
}

} // namespace

TargetDirectory::TargetDirectory(const std::wstring& path, bool overwrite)
    : root_(withoutLengthLimit(path)), shown_(path), overwrite_(overwrite) {
    if (CreateDirectoryW(root_.c_str(), nullptr))
        return;
    const HRESULT status = lastErrorStatus();
    const DWORD attributes = GetFileAttributesW(root_.c_str());
    if (!isDirectory(attributes))
        failAsNoDirectory(shown_, status, attributes);
}

void TargetDirectory::makeDirectory(const std::wstring& path) const {
    const std::wstring directory = absolute(path);
    if (CreateDirectoryW(directory.c_str(), nullptr))
        return;
    const HRESULT status = lastErrorStatus();
    const DWORD attributes = GetFileAttributesW(directory.c_str());
    if (!isDirectory(attributes))
        failAsNoDirectory(label(path), status, attributes);
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
        throw Failure(L"cannot use", label(path), STG_E_ACCESSDENIED, L"it is a link to another directory");
}

std::wstring TargetDirectory::label(const std::wstring& path) const { return shown_ + L"\\" + path; }

std::wstring TargetDirectory::absolute(const std::wstring& path) const {
    return root_.ends_with(L'\\') ? root_ + path : root_ + L"\\" + path;
}

} // namespace Vexel::Tool
