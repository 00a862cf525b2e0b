#pragma once

#include "document_info.h"

#include <cstddef>
#include <string>
#include <vector>

namespace Vexel::Tool {

/// A node as the report shows it. Texts are UTF-8.
struct ReportNode {
    std::string path;       ///< empty: the root
    std::size_t parent = 0; ///< the root's own is itself
    bool isStorage = false;
    unsigned long long size = 0;   ///< of a storage: of all that is in it
    unsigned long long packed = 0; ///< the same, where it is known
    std::size_t streams = 0;       ///< in a storage, at any depth
    std::string modified;          ///< as toIso8601
    std::string fault;             ///< empty: it could be read wholly
};

/// Everything that is told of a document.
struct DocumentReport {
    std::string file; ///< its name, without the way to it
    Info info;        ///< without contents
    Summary summary;
    std::vector<ReportNode> nodes; ///< the root first, each storage before what is in it
    bool hasPacked = false;        ///< whether packed sizes are known
    std::size_t faults = 0;
    std::size_t notReadable = 0; ///< nodes that may be sound, but that this program cannot read
};

/// Reads a document wholly. What cannot be read has a fault at its node, or at the storage that it stands in.
/// Throws Failure when the file cannot be opened as a document at all.
DocumentReport reportOn(const std::wstring& file);

} // namespace Vexel::Tool
