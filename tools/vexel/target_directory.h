#pragma once

#include "file_paths.h"

#include <string>

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

/// A file that appears under its name only when it is complete.
class TargetFile {
public:
    TargetFile(const TargetDirectory& directory, const std::wstring& path)
        : file_(directory.absolute({}), directory.label(path)), path_(directory.absolute(path)),
          overwrite_(directory.overwrite_) {}

    void write(const void* data, std::size_t count) { file_.write(data, count); }

    /// Fails when there is a file of that name, unless it is to be overwritten.
    void finish() { file_.finish(path_, overwrite_); }

private:
    PartialFile file_;
    std::wstring path_;
    bool overwrite_;
};

} // namespace Vexel::Tool
