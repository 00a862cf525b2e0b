#pragma once

#include "document.h"
#include "faults.h"

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
/// that nothing matches. What is damaged goes to `faults`, and the other nodes are selected all the same;
/// with null it is thrown, for those who must have all nodes or none.
std::vector<SelectedNode> selectNodes(const Document& document, const std::vector<std::string>& texts,
                                      Faults* faults);

/// The same, without the nodes in a storage that is among them.
std::vector<SelectedNode> selectOutermost(const Document& document, const std::vector<std::string>& texts,
                                          Faults* faults);

/// The bytes of the streams that are among the nodes, and of those in the storages among them: what progress
/// is told. 0 where nobody sees that.
unsigned long long amountOf(const Document& document, const std::vector<SelectedNode>& nodes);

/// For the path `path` of a node that is to be made, written as `text` on the command line. Throws UsageError
/// where that has wildcards, since then a pattern is more likely to be meant (escaped, they are characters
/// like others), and Failure for a name that the library makes and does not find again.
void checkNewNode(const Document& document, const NodePath& path, const std::string& text);

} // namespace Vexel::Tool
