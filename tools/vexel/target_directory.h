#pragma once

#include "file_handle.h"

#include <string>
#include <string_view>

namespace Vexel::Tool {

/// Where `extract` writes. Paths are relative to the directory, their components as FileNames gives them, so
/// that nothing can lead out of it; a link in the place of a subdirectory is refused, because it could.
/// Members throw Failure.
class TargetDirectory {
public:
    /// Makes the directory when it is missing; the one above it must be there.
    TargetDirectory(const std::wstring& path, bool overwrite);

    /// Makes a subdirectory, or takes the one that is there.
    void makeDirectory(const std::wstring& path) const;

    /// The path as it is shown to the user.
    std::wstring label(const std::wstring& path) const;

private:
    friend class TargetFile;

    std::wstring absolute(const std::wstring& path) const;

    std::wstring root_; // absolute, in the form without a length limit
    std::wstring shown_;
    bool overwrite_;
};

/// A file that appears under its name only when it is complete: until `finish`, it has another name, under
/// which it is deleted when it is given up.
class TargetFile {
public:
    TargetFile(const TargetDirectory& directory, std::wstring path);
    TargetFile(const TargetFile&) = delete;
    TargetFile& operator=(const TargetFile&) = delete;
    ~TargetFile();

    void write(const void* data, std::size_t count);

    /// Fails when there is a file of that name, unless it is to be overwritten.
    void finish();

private:
    const TargetDirectory& directory_;
    std::wstring path_;
    std::wstring temporary_;
    FileHandle file_;
};

} // namespace Vexel::Tool
