// `vexel tree FILE [NODE...]`. A storage's line says how much is in it, so all nodes are met before any is
// drawn.

#include "command.h"
#include "console.h"
#include "document.h"
#include "faults.h"
#include "node_selection.h"
#include "sizes.h"
#include "text.h"

#include <nlohmann/json.hpp>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Vexel::Tool {
namespace {

using Json = nlohmann::ordered_json;

struct Arguments {
    std::string file;
    std::vector<std::string> nodes;
    bool json = false;
    bool bytes = false;
};

// Without any named, the root.
std::vector<SelectedNode> nodesOf(const Document& document, const Arguments& arguments, Faults& faults) {
    const std::vector<std::string> root{""};
    return selectOutermost(document, arguments.nodes.empty() ? root : arguments.nodes, &faults);
}

std::string nameOf(const NodePath& path) { return toUtf8(NodePath().child(path.name()).text()); }

/// A storage with all that is in it.
struct Branch {
    NodePath top;
    std::vector<Node> nodes;      // as they were met; a storage's size is that of all streams in it
    unsigned long long bytes = 0; // of all
};

// Backwards, so that each storage's sum is whole before it is added to the one above.
void addUp(Branch& branch) {
    std::vector<unsigned long long> below; // what was met of each level and is in no storage yet
    for (std::size_t i = branch.nodes.size(); i-- > 0;) {
        Node& node = branch.nodes[i];
        if (below.size() < node.depth + 2)
            below.resize(node.depth + 2);
        if (node.type == StorageType::Storage)
            node.size = std::exchange(below[node.depth + 1], 0);
        below[node.depth] += node.size;
    }
    branch.bytes = below.empty() ? 0 : below[0];
}

// What was met before the walk ended is shown in any case.
Branch branchOf(const Document& document, const NodePath& top, Faults& faults) {
    Branch branch{top, {}, 0};
    faults.attempt([&] {
        document.walk(
            top, [&branch](const Node& node) { branch.nodes.push_back(node); }, faults.handler());
    });
    addUp(branch);
    return branch;
}

// Draws the lines that lead to a node; `open` says for each level above whether siblings follow further down.
std::string linesTo(const Node& node, std::vector<bool>& open) {
    open.resize(node.depth);
    std::string result;
    for (const bool more : open)
        result += more ? "│   " : "    ";
    open.push_back(!node.last);
    return result + (node.last ? "└── " : "├── ");
}

void draw(StandardOutput& output, const std::string& title, const Branch& branch, bool exact) {
    output.text(title, Style::Storage);
    output.text(" (" + sizeText(branch.bytes, exact) + ")\n");
    std::vector<bool> open;
    for (const Node& node : branch.nodes) {
        output.text(linesTo(node, open));
        output.text(nameOf(node.path) + (node.type == StorageType::Storage ? "/" : ""), styleOf(node.type));
        output.text(" (" + sizeText(node.size, exact) + ")\n");
    }
}

Json storageOf(const std::string& name, unsigned long long bytes) {
    return Json{{"name", name}, {"type", "storage"}, {"bytes", bytes}, {"children", Json::array()}};
}

Json streamOf(const std::string& name, unsigned long long size) {
    return Json{{"name", name}, {"type", "stream"}, {"size", size}};
}

Json jsonOf(const Branch& branch) {
    // The storages that the node at hand is in; each is complete when it is left.
    std::vector<Json> open;
    open.push_back(storageOf(branch.top.isRoot() ? "" : nameOf(branch.top), branch.bytes));
    const auto closeTo = [&open](std::size_t depth) {
        while (open.size() > depth) {
            Json done = std::move(open.back());
            open.pop_back();
            open.back()["children"].push_back(std::move(done));
        }
    };
    for (const Node& node : branch.nodes) {
        closeTo(node.depth + 1);
        if (node.type == StorageType::Storage)
            open.push_back(storageOf(nameOf(node.path), node.size));
        else
            open.back()["children"].push_back(streamOf(nameOf(node.path), node.size));
    }
    closeTo(1);
    return std::move(open[0]);
}

void drawAll(StandardOutput& output, const Document& document, const Arguments& arguments, Faults& faults) {
    for (const SelectedNode& node : nodesOf(document, arguments, faults)) {
        const std::string path = node.path.isRoot() ? arguments.file : toUtf8(node.path.text());
        faults.attempt([&] {
            if (node.type == StorageType::Storage)
                draw(output, path + (node.path.isRoot() ? "" : "/"), branchOf(document, node.path, faults),
                     arguments.bytes);
            else
                output.text(path + " (" + sizeText(document.openStream(node.path).size(), arguments.bytes) +
                            ")\n");
        });
    }
}

Json allOf(const Document& document, const Arguments& arguments, Faults& faults) {
    if (arguments.nodes.empty())
        return jsonOf(branchOf(document, {}, faults))["children"];
    Json trees = Json::array();
    for (const SelectedNode& node : nodesOf(document, arguments, faults)) {
        faults.attempt([&] {
            if (node.type == StorageType::Storage)
                trees.push_back(jsonOf(branchOf(document, node.path, faults)));
            else
                trees.push_back(streamOf(nameOf(node.path), document.openStream(node.path).size()));
        });
    }
    return trees;
}

void run(const Arguments& arguments) {
    const Document document(toUtf16(arguments.file), RootStorageOpenMode::ReadOnlyDenyWrite);
    StandardOutput output;
    Faults faults;
    if (arguments.json)
        output.text(allOf(document, arguments, faults).dump(2) + "\n");
    else
        drawAll(output, document, arguments, faults);
    output.flush();
    faults.finish();
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.file(arguments->file);
    command.optionalNodes(arguments->nodes);
    command.flag("--bytes", arguments->bytes, "Print sizes to the byte");
    command.flag("--json", arguments->json,
                 "Print an array of {\"name\", \"type\", and \"size\", or \"bytes\" and \"children\"}");
    command.examples("vexel tree hall.7z", "vexel tree hall.7z Model \"Views/T*\"");
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration kRegistration("tree", "Draw nodes as a tree, with their sizes", add);

} // namespace
} // namespace Vexel::Tool
