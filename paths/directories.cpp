// A chain of directories is made from below: the last one first, and only where the system says that its
// parent is missing, the parent. So the usual case, all there but the last, is one call, and no directory is
// asked for that the caller may not look at.

#include "base/last_error.h"
#include "base/platform.h"
#include "base/task_memory.h"

#include <vexel/paths.h>

#include <objbase.h>
#include <shlobj.h>

#include <vector>

namespace Vexel {

namespace {

// {F1B32785-6FBA-4FCF-9D55-7B8E7F157091}, here by value so that no import library of identifiers is needed.
constexpr GUID kLocalAppData{0xF1B32785, 0x6FBA, 0x4FCF, {0x9D, 0x55, 0x7B, 0x8E, 0x7F, 0x15, 0x70, 0x91}};

/// The folder's path, or null. The shell may hand out a buffer even when it fails.
Detail::TaskText findKnownFolder(const GUID& folderId, DWORD flags) {
    wchar_t* buffer = nullptr;
    const HRESULT result = Detail::platform().getKnownFolder(folderId, flags, nullptr, &buffer);
    Detail::TaskText path(buffer);
    if (result != S_OK)
        path.reset();
    return path;
}

/// Makes one directory whose parent is there. 0 also for a directory that already is.
DWORD createOneDirectory(const std::wstring& path) {
    if (CreateDirectoryW(path.c_str(), nullptr))
        return ERROR_SUCCESS;
    const DWORD error = Detail::lastError();
    // The code for a directory that exists differs (a drive is "access denied"), so look for oneself.
    Detail::EntryInfo info;
    if (Detail::platform().readEntry(path.c_str(), true, info) != ERROR_SUCCESS)
        return error;
    return (info.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? ERROR_SUCCESS : ERROR_ALREADY_EXISTS;
}

std::wstring_view parentOf(std::wstring_view path) {
    return RemoveTrailingPathSeparators(path.substr(0, FindFileName(path, false)));
}

/// Goes up to the first directory that exists or can be made, then down again.
DWORD createDirectoryChain(std::wstring_view path) {
    std::vector<std::wstring_view> missing;
    for (;;) {
        const DWORD error = createOneDirectory(std::wstring(path));
        if (error == ERROR_SUCCESS)
            break;
        const std::wstring_view parent = parentOf(path);
        if (error != ERROR_PATH_NOT_FOUND || parent.empty() || parent.size() == path.size())
            return error;
        missing.push_back(path);
        path = parent;
    }
    while (!missing.empty()) {
        if (const DWORD error = createOneDirectory(std::wstring(missing.back())))
            return error;
        missing.pop_back();
    }
    return ERROR_SUCCESS;
}

} // namespace

bool CreateDirectories(std::wstring_view path, std::error_code* error, int /*reserved*/) {
    const std::wstring_view directory = RemoveTrailingPathSeparators(path);
    const std::error_code result =
        directory.empty()
            ? std::make_error_code(std::errc::invalid_argument)
            : std::error_code(static_cast<int>(createDirectoryChain(directory)), std::system_category());
    if (error)
        *error = result;
    return !result;
}

CString GetKnownFolderPath(const GUID& folderId, bool create) {
    const Detail::TaskText path = findKnownFolder(folderId, create ? DWORD{KF_FLAG_CREATE} : 0);
    return path ? CString(path.get()) : CString();
}

bool GetUserDataFolderPath(CString* path) {
    const Detail::TaskText found = findKnownFolder(kLocalAppData, 0);
    if (found)
        *path = found.get();
    return found != nullptr;
}

bool GetUserDataFolderPath(std::wstring* path) {
    const Detail::TaskText found = findKnownFolder(kLocalAppData, 0);
    if (found)
        *path = found.get();
    return found != nullptr;
}

} // namespace Vexel
