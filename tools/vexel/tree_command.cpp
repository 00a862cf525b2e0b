// `vexel tree FILE [NODE...]`. Lines are drawn as nodes are met; the JSON array is printed whole or not at
// all.

#include "command.h"
#include "console.h"
#include "document.h"
#include "node_selection.h"
#include "sizes.h"
#include "text.h"

#include <nlohmann/json.hpp>

#include <memory>
#include <string>
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

// Draws the lines that lead to a node; `open` says for each level above whether siblings follow further down.
std::string branch(std::vector<bool>& open, const Node& node) {
    open.resize(node.depth);
    std::string result;
    for (const bool more : open)
        result += more ? "│   " : "    ";
    open.push_back(!node.last);
    return result + (node.last ? "└── " : "├── ");
}

std::string nameOf(const NodePath& path) { return toUtf8(NodePath().child(path.name()).text()); }

void draw(StandardOutput& output, const Document& document, const NodePath& top, bool exact) {
    std::vector<bool> open;
    document.walk(top, [&](const Node& node) {
        output.text(branch(open, node));
        const bool isStorage = node.type == StorageType::Storage;
        output.text(nameOf(node.path) + (isStorage ? "/" : ""), styleOf(node.type));
        output.text(isStorage ? "\n" : " (" + sizeText(node.size, exact) + ")\n");
    });
}

Json storageOf(const std::string& name) {
    return Json{{"name", name}, {"type", "storage"}, {"children", Json::array()}};
}

Json streamOf(const std::string& name, unsigned long long size) {
    return Json{{"name", name}, {"type", "stream"}, {"size", size}};
}

Json jsonOf(const Document& document, const NodePath& top) {
    // The storages that the walk is in; each is complete when the walk leaves it.
    std::vector<Json> open;
    open.push_back(storageOf(top.isRoot() ? "" : nameOf(top)));
    const auto closeTo = [&open](std::size_t depth) {
        while (open.size() > depth) {
            Json done = std::move(open.back());
            open.pop_back();
            open.back()["children"].push_back(std::move(done));
        }
    };
    document.walk(top, [&](const Node& node) {
        closeTo(node.depth + 1);
        if (node.type == StorageType::Storage)
            open.push_back(storageOf(nameOf(node.path)));
        else
            open.back()["children"].push_back(streamOf(nameOf(node.path), node.size));
    });
    closeTo(1);
    return std::move(open[0]);
}

void drawAll(StandardOutput& output, const Document& document, const Arguments& arguments) {
    if (arguments.nodes.empty()) {
        output.text(arguments.file + "\n");
        draw(output, document, {}, arguments.bytes);
        return;
    }
    for (const SelectedNode& node : selectOutermost(document, arguments.nodes)) {
        const std::string path = node.path.isRoot() ? arguments.file : toUtf8(node.path.text());
        if (node.type == StorageType::Storage) {
            output.text(path + (node.path.isRoot() ? "\n" : "/\n"), Style::Storage);
            draw(output, document, node.path, arguments.bytes);
        } else {
            const StreamRef stream = document.openStream(node.path);
            output.text(path + " (" + sizeText(stream.size(), arguments.bytes) + ")\n");
        }
    }
}

Json allOf(const Document& document, const Arguments& arguments) {
    if (arguments.nodes.empty())
        return jsonOf(document, {})["children"];
    Json trees = Json::array();
    for (const SelectedNode& node : selectOutermost(document, arguments.nodes)) {
        if (node.type == StorageType::Storage)
            trees.push_back(jsonOf(document, node.path));
        else
            trees.push_back(streamOf(nameOf(node.path), document.openStream(node.path).size()));
    }
    return trees;
}

void run(const Arguments& arguments) {
    const Document document(toUtf16(arguments.file), RootStorageOpenMode::ReadOnlyDenyWrite);
    StandardOutput output;
    if (arguments.json)
        output.text(allOf(document, arguments).dump(2) + "\n");
    else
        drawAll(output, document, arguments);
    output.flush();
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.file(arguments->file);
    command.optionalNodes(arguments->nodes);
    command.flag("--bytes", arguments->bytes, "Print sizes to the byte");
    command.flag("--json", arguments->json,
                 "Print an array of {\"name\", \"type\", and \"size\" or \"children\"}");
    command.examples("vexel tree hall.7z", "vexel tree hall.7z Model \"Views/T*\"");
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration kRegistration("tree", "Draw nodes as a tree, streams with their sizes", add);

} // namespace
} // namespace Vexel::Tool
