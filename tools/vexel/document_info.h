#pragma once

#include "document.h"

#include <vexel/storage.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Vexel::Tool {

/// A document's title and the like, by the names that the output gives them.
using Summary = std::vector<std::pair<const char*, std::string>>;

/// What is in a document.
struct Contents {
    unsigned long long storages = 0;
    unsigned long long streams = 0;
    unsigned long long bytes = 0;
    std::optional<unsigned long long> packed;                        // of packages
    std::vector<std::pair<std::string, unsigned long long>> largest; // streams by path, the largest first
    Summary summary;
};

/// What a file is, and what is in it.
struct Info {
    StorageFormat format = StorageFormat::None;
    BY_HANDLE_FILE_INFORMATION file{};
    std::optional<Contents> contents; // of documents
};

/// What the document says of itself; nothing when it has no such property set.
Summary summaryOf(const StorageRef& root);

/// Looks at a file without opening it as a document. Throws Failure when it cannot be read.
Info outsideOf(const std::wstring& file);

/// The same, and what is in it. One that is no document has a format of None and no contents. Nodes that
/// cannot be listed go to `onFault`. Throws Failure when it cannot be read.
Info infoOf(const std::wstring& file, const Document::FaultHandler& onFault);

/// The size of the file, in bytes.
unsigned long long sizeOf(const Info& info);

/// Packed bytes for each byte of the contents.
std::optional<double> ratioOf(const Contents& contents);

/// "compound file", "package", or that it is neither.
const char* formatName(StorageFormat format);

} // namespace Vexel::Tool
