#include "base/handles.h"
#include "base/last_error.h"
#include "base/platform.h"
#include "paths/path_text.h"

#include <vexel/paths.h>

#include <array>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <vector>

// The standard library's copy, written out: on this platform some libraries take two files for the same one
// and then refuse to overwrite, or stop at paths of 260 characters.

namespace Vexel {

namespace {

using Identity = std::array<DWORD, 3>;

constexpr std::size_t kNoParent = static_cast<std::size_t>(-1);

struct CopyJob {
    std::wstring source;
    std::wstring target;
    std::size_t parent = kNoParent; ///< the job of the directory this was found in
    bool directory = false;
    bool copied = true; ///< false for a directory that is looked at but left alone
    std::optional<Identity> identity = std::nullopt; ///< of a directory, where it can be had
};

struct Entry {
    bool exists = false;
    bool directory = false;
};

std::error_code systemError(DWORD code) { return {static_cast<int>(code), std::system_category()}; }

std::error_code readTarget(const std::wstring& path, Entry& entry) {
    Detail::EntryInfo info;
    const DWORD error = Detail::platform().readEntry(path.c_str(), true, info);
    entry = {error == ERROR_SUCCESS, (info.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0}; // none on failure
    if (error == ERROR_SUCCESS || error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND)
        return {};
    return systemError(error);
}

/// What tells an entry from all others, links followed; none where it cannot be examined.
std::optional<Identity> readIdentity(const std::wstring& path) {
    constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    const Detail::FileHandle entry(CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES, kShareAll, nullptr,
                                               OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    BY_HANDLE_FILE_INFORMATION info{};
    // File systems without indices give 0 for every file.
    if (!entry || !GetFileInformationByHandle(entry.get(), &info) ||
        (info.nFileIndexHigh == 0 && info.nFileIndexLow == 0))
        return std::nullopt;
    return Identity{info.dwVolumeSerialNumber, info.nFileIndexHigh, info.nFileIndexLow};
}

bool isSameEntry(const std::wstring& a, const std::wstring& b) {
    const auto first = readIdentity(a);
    return first && first == readIdentity(b);
}

/// As the standard joins them: behind a bare drive no separator, which would make its root of the current
/// directory there.
std::wstring join(std::wstring_view directory, std::wstring_view name) {
    return (std::filesystem::path(directory) / name).native();
}

std::error_code listDirectory(const std::wstring& directory, std::vector<std::wstring>& names) {
    WIN32_FIND_DATAW found{};
    const Detail::SearchHandle search(FindFirstFileW(join(directory, L"*").c_str(), &found));
    if (search.get() == INVALID_HANDLE_VALUE) {
        const DWORD error = Detail::lastError();
        return error == ERROR_FILE_NOT_FOUND ? std::error_code() : systemError(error); // an empty drive root
    }
    do {
        const std::wstring_view name(found.cFileName);
        if (name != L"." && name != L"..")
            names.emplace_back(name);
    } while (FindNextFileW(search.get(), &found));
    const DWORD error = Detail::lastError();
    return error == ERROR_NO_MORE_FILES ? std::error_code() : systemError(error);
}

std::error_code copyOneFile(const CopyJob& job, const Entry& target, FlagSet<CopyingFlag> flags) {
    const bool overwrite = flags.has(CopyingFlag::Overwrite);
    // The system would truncate or lock a file that it copies onto itself.
    if (target.exists && (!overwrite || isSameEntry(job.source, job.target)))
        return std::make_error_code(std::errc::file_exists);
    if (!Detail::platform().copyFile(job.source.c_str(), job.target.c_str(), overwrite ? FALSE : TRUE))
        return systemError(Detail::lastError());
    return {};
}

std::error_code copyDirectory(const CopyJob& job, const Entry& target) {
    if (target.exists && !target.directory)
        return std::make_error_code(std::errc::is_a_directory);
    if (target.exists && isSameEntry(job.source, job.target))
        return std::make_error_code(std::errc::file_exists);
    if (!target.exists && job.copied && !CreateDirectoryW(job.target.c_str(), nullptr))
        return systemError(Detail::lastError());
    return {};
}

std::error_code copyOne(CopyJob job, FlagSet<CopyingFlag> flags) {
    Entry target;
    if (const std::error_code error = readTarget(job.target, target))
        return error;
    if (job.directory)
        return copyDirectory(job, target);

    if (target.directory) {
        job.target = join(job.target, GetFileName(job.source, true));
        if (const std::error_code error = readTarget(job.target, target))
            return error;
    }
    return copyOneFile(job, target, flags);
}

/// Whether a directory is one of those it was found in, by way of a link: the listing would go round for
/// ever.
bool leadsBack(const std::vector<CopyJob>& jobs, const CopyJob& job) {
    for (std::size_t above = job.parent; job.identity && above != kNoParent; above = jobs[above].parent) {
        if (jobs[above].identity == job.identity)
            return true;
    }
    return false;
}

/// Examines the source of `jobs[index]` and adds a job for each entry of a directory to be copied.
std::error_code planOne(std::vector<CopyJob>& jobs, std::size_t index, FlagSet<CopyingFlag> flags) {
    const CopyJob parent = jobs[index];
    Detail::EntryInfo source;
    if (const DWORD error = Detail::platform().readEntry(parent.source.c_str(), true, source))
        return systemError(error);
    if ((source.attributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
        return {};

    jobs[index].directory = true;
    jobs[index].identity = readIdentity(parent.source);
    if (leadsBack(jobs, jobs[index]))
        return std::make_error_code(std::errc::too_many_symbolic_link_levels);
    // As the standard has it: without recursion only the directory named by the caller is copied, with its
    // files, and only when no other option is given.
    const bool copied =
        flags.has(CopyingFlag::Recursive) || (index == 0 && !flags.has(CopyingFlag::Overwrite));
    jobs[index].copied = copied;
    std::vector<std::wstring> names;
    if (!copied)
        return {};
    const std::error_code error = listDirectory(parent.source, names);
    for (const std::wstring& name : names)
        jobs.push_back({join(parent.source, name), join(parent.target, name), index});
    return error;
}

/// The whole tree is listed before anything is made: a target inside the source would else be found there and
/// copied on and on.
std::error_code copyTree(std::wstring_view source, std::wstring_view target, FlagSet<CopyingFlag> flags) {
    std::vector<CopyJob> jobs;
    jobs.push_back({std::wstring(source), std::wstring(target)});
    for (std::size_t index = 0; index < jobs.size(); ++index) {
        if (const std::error_code error = planOne(jobs, index, flags))
            return error;
    }
    for (const CopyJob& job : jobs) {
        if (const std::error_code error = copyOne(job, flags))
            return error;
    }
    return {};
}

std::error_code clearReadOnly(const std::wstring& path) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return systemError(Detail::lastError());
    if ((attributes & FILE_ATTRIBUTE_READONLY) == 0)
        return {};
    const DWORD writable = attributes & ~static_cast<DWORD>(FILE_ATTRIBUTE_READONLY);
    return Detail::platform().setAttributes(path.c_str(), writable) ? std::error_code()
                                                                    : systemError(Detail::lastError());
}

} // namespace

bool CopyFileSystemEntry(std::wstring_view source, std::wstring_view target, FlagSet<CopyingFlag> flags,
                         std::error_code* error) {
    const bool empty = source.empty() || target.empty();
    std::error_code result =
        empty ? std::make_error_code(std::errc::invalid_argument) : copyTree(source, target, flags);
    const bool copied = !result;
    // The copy is there: an attribute that stays is reported but makes no failure.
    if (copied && flags.has(CopyingFlag::ClearReadOnly))
        result = clearReadOnly(std::wstring(target));
    if (error)
        *error = result;
    return copied;
}

} // namespace Vexel
