// Whether there is an entry and of what type. Errors of the system are sorted into those that say that there
// is none and those that say nothing: what is there but cannot be examined must not pass for missing.

#include "base/platform.h"

#include <vexel/paths.h>

namespace Vexel {

namespace {

/// Errors by which the system says that there is no entry of this name, rather than that it cannot tell.
bool meansNotFound(DWORD error) noexcept {
    switch (error) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_BAD_NETPATH:
    case ERROR_NETNAME_DELETED:
    case ERROR_INVALID_NAME:
    case ERROR_DIRECTORY:
        return true;
    default:
        return false;
    }
}

} // namespace

// The questions go to the system directly: some standard libraries neither follow links on this platform nor
// find a bare drive.
bool FileSystemEntryExists(std::wstring_view path) {
    if (path.empty())
        return false;
    const std::wstring text(path);
    Detail::EntryInfo info;
    const DWORD error = Detail::platform().readEntry(text.c_str(), false, info);
    if (error != ERROR_SUCCESS)
        return error == ERROR_SHARING_VIOLATION; // somebody keeps the entry to himself, so there is one
    if ((info.attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0)
        return true;
    return !meansNotFound(Detail::platform().readEntry(text.c_str(), true, info));
}

std::filesystem::file_type GetFileSystemEntryType(std::wstring_view path) {
    using std::filesystem::file_type;
    if (path.empty())
        return file_type::none;
    Detail::EntryInfo info;
    const DWORD error = Detail::platform().readEntry(std::wstring(path).c_str(), false, info);
    if (error != ERROR_SUCCESS)
        return meansNotFound(error) ? file_type::not_found : file_type::none;

    if ((info.attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        if (info.reparseTag == IO_REPARSE_TAG_SYMLINK)
            return file_type::symlink;
        if (info.reparseTag == IO_REPARSE_TAG_MOUNT_POINT)
            return JunctionFileType;
    }
    return (info.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? file_type::directory : file_type::regular;
}

} // namespace Vexel
