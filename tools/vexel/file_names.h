#pragma once

#include <set>
#include <string>
#include <string_view>

namespace Vexel::Tool {

/// A node's name as one component of a file's path, which Windows can hold and which leads nowhere else.
///
/// Written as "%" and two hexadecimal digits: characters below U+0020, < > : " | ? * \ / and %, the last
/// character when it is a dot or a blank ("." and ".." included), and the first letter of a reserved device
/// name with or without extension ("%43ON", "%6eul.txt"). Half a surrogate pair becomes "%u" and four digits.
std::wstring fileNameOf(std::wstring_view nodeName);

/// The other way: the node that `fileNameOf` or FileNames made the name for. What looks like no escape of
/// theirs stands for itself.
std::wstring nodeNameOf(std::wstring_view fileName);

/// The file names given out in one directory.
class FileNames {
public:
    /// `fileNameOf`, with "%~2", "%~3" … at the end where the file system would take the name for one given
    /// out before. No node's own name can look so.
    std::wstring unique(std::wstring_view nodeName);

private:
    struct IgnoringCase {
        bool operator()(const std::wstring& left, const std::wstring& right) const noexcept;
    };
    std::set<std::wstring, IgnoringCase> taken_;
};

} // namespace Vexel::Tool
