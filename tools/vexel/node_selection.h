#pragma once

#include "document.h"

#include <cstddef>
#include <string>
#include <vector>

namespace Vexel::Tool {

/// A node that a command line names.
struct SelectedNode {
    NodePath path;
    StorageType type = StorageType::Stream;
    /// How many of its elements stood on the command line without a wildcard, before the first one with such;
    /// all but the last one of a path without wildcards.
    std::size_t fixed = 0;
    bool isByPattern = false;
};

/// The nodes that `texts` name, in UTF-8: a path, or a pattern (NodePattern) unless a node has just that
/// name. Each node comes once, in the order of the texts and then of the document. Of a compound file's names
/// case does not count. Throws Failure for a path that is not there, with the nearest one, and for a pattern
/// that nothing matches.
std::vector<SelectedNode> selectNodes(const Document& document, const std::vector<std::string>& texts);

/// The same, without the nodes in a storage that is among them.
std::vector<SelectedNode> selectOutermost(const Document& document, const std::vector<std::string>& texts);

} // namespace Vexel::Tool
