#include "command.h"
#include "document.h"
#include "failure.h"
#include "node_selection.h"
#include "stopping.h"
#include "text.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Vexel::Tool {
namespace {

struct Arguments {
    std::string file;
    std::vector<std::string> nodes;
};

/// The storages from the root to the one that a node is in, open for writing.
struct Way {
    NodePath path;
    std::vector<StorageRef> storages;
};

// Everything is removed before anything is committed, and the roots' commit, which brings it into a compound
// file, is the last: what fails leaves the document as it was.
void removeAll(const Document& document, const std::vector<SelectedNode>& nodes) {
    std::map<std::wstring, Way> ways;
    for (const SelectedNode& node : nodes) {
        const NodePath parent = node.path.parent();
        Way& way = ways[parent.text()];
        if (way.storages.empty())
            way = {parent, document.openForWriting(parent, false)};
        checkStop();
        check(way.storages.back().destroy(node.path.name().c_str()), L"cannot remove",
              document.label(node.path));
    }
    for (const auto& [text, way] : ways)
        document.commit(way.storages, way.path, 1);
    document.commit({document.root()}, {});
}

void run(const Arguments& arguments) {
    const Document document(toUtf16(arguments.file), RootStorageOpenMode::ReadWrite);
    std::vector<SelectedNode> nodes = selectOutermost(document, arguments.nodes, nullptr);
    // A package's storage keeps its class in a stream, a compound file's does not: with a pattern, both are
    // left with it.
    std::erase_if(nodes,
                  [&](const SelectedNode& node) { return node.isByPattern && document.isClass(node.path); });
    if (nodes.empty())
        return;
    if (nodes.front().path.isRoot())
        throw UsageError(L"the root cannot be removed from", toUtf16(arguments.file));
    removeAll(document, nodes);
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.file(arguments->file);
    command.nodes(arguments->nodes);
    command.examples("vexel rm hall.7z Preview", "vexel rm hall.7z \"Views/*/Thumbnail\" \"Old/**\"");
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration kRegistration("rm", "Remove nodes with everything in them", add);

} // namespace
} // namespace Vexel::Tool
