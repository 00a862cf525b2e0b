#pragma once

#include "base/handles.h"

#include <string>
#include <string_view>
#include <vector>

namespace Vexel::Tool {

/// The form of an absolute path that may be longer than 260 characters and whose components Windows does not
/// interpret. Throws Failure.
std::wstring withoutLengthLimit(const std::wstring& path);

/// Whether both paths lead to one file, by whatever names. False where one leads to none.
bool isSameFile(const std::wstring& path, const std::wstring& other);

/// Whether a path has "*" or "?", which no file's name can have.
bool hasFileWildcards(std::wstring_view path);

/// Throws Failure unless `status`, of opening a file that the command line names, is S_OK. Tells the cause of
/// which the system has only a general status: that it is a directory, or a pattern where one file is due.
void checkOpened(HRESULT status, const std::wstring& file);

/// Throws Failure where something stands at `path` that a command would have to replace: a file unless
/// `force`, and a directory always. `label` is the path as the command line has it.
void checkFree(const std::wstring& path, const std::wstring& label, bool force);

/// The files that an argument of the command line names: itself, or, if its last element has wildcards ("*"
/// for any characters, "?" for one) and there is no file of just that name, all that match, by name. Windows'
/// shells leave this to the program. Throws Failure when none does, and UsageError for wildcards elsewhere.
std::vector<std::wstring> expandFiles(const std::wstring& argument);

/// A new file under a name of its own, deleted again unless it gets the one it is meant for: so that nothing
/// half-made stands under that. A package may be made of it, whose handles must be gone when this object
/// goes. Members throw Failure; when the file cannot be deleted, a line on standard error says so.
class PartialFile {
public:
    /// Makes it in `directory`, which ends with its separator, open for writing. `label` names the file that
    /// it is to become.
    PartialFile(const std::wstring& directory, std::wstring label);
    PartialFile(const PartialFile&) = delete;
    PartialFile& operator=(const PartialFile&) = delete;
    ~PartialFile();

    const std::wstring& path() const noexcept { return path_; }
    void write(const void* data, std::size_t count);
    /// For others to write it.
    void close();
    /// Closes the file and gives it its name. Fails when there is one of that name, unless that is to be
    /// overwritten.
    void finish(const std::wstring& path, bool overwrite);

private:
    void remove(const std::wstring& path) const;

    std::wstring path_; // empty: finished
    std::wstring label_;
    Detail::FileHandle file_;
};

} // namespace Vexel::Tool
