#pragma once

#include "console.h"
#include "file_paths.h"

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace Vexel::Tool {

/// Where a command writes what it makes: standard output, or a file that appears under its name when it is
/// complete. Members throw Failure.
class Output {
public:
    /// `file` in UTF-8; empty: standard output. Fails where a file would be replaced that must not be: any
    /// unless `force`, and the document that is read always.
    Output(const std::string& file, const std::wstring& document, bool force);

    void bytes(std::span<const std::byte> data);
    void text(std::string_view utf8);
    /// Without it, the file does not appear.
    void finish();

private:
    struct File {
        File(std::wstring fullPath, const std::wstring& label, bool isForced);

        std::wstring path;
        PartialFile partial;
        bool force;
    };

    std::optional<File> file_;
    std::optional<StandardOutput> output_;
};

} // namespace Vexel::Tool
