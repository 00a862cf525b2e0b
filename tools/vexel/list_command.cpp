// `vexel list FILE [NODE...]`. Lines are printed as nodes are met; the JSON array is printed whole or not at
// all.

#include "command.h"
#include "console.h"
#include "document.h"
#include "node_selection.h"
#include "sizes.h"
#include "text.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace Vexel::Tool {
namespace {

struct Arguments {
    std::string file;
    std::vector<std::string> nodes;
    bool json = false;
    bool bytes = false;
};

const char* typeName(StorageType type) { return type == StorageType::Storage ? "storage" : "stream"; }

void print(StandardOutput& output, const Node& node, bool exact) {
    const std::string size = node.type == StorageType::Stream ? sizeText(node.size, exact) : "-";
    std::string modified = toIso8601(node.modified);
    constexpr std::size_t kToSeconds = 19;
    if (modified.size() > kToSeconds) {
        modified.resize(kToSeconds);
        modified += 'Z';
    }
    char columns[80];
    std::snprintf(columns, sizeof columns, "%-7s %*s  %-20s  ", typeName(node.type), exact ? 14 : 9,
                  size.c_str(), modified.empty() ? "-" : modified.c_str());
    output.text(columns);
    output.text(toUtf8(node.path.text()) + "\n", styleOf(node.type));
}

nlohmann::ordered_json jsonOf(const Node& node) {
    const auto timeOrNull = [](const FILETIME& time) -> nlohmann::ordered_json {
        std::string text = toIso8601(time);
        return text.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(std::move(text));
    };
    nlohmann::ordered_json object;
    object["path"] = toUtf8(node.path.text());
    object["type"] = typeName(node.type);
    object["size"] = node.type == StorageType::Stream ? nlohmann::ordered_json(node.size) : nullptr;
    object["created"] = timeOrNull(node.created);
    object["modified"] = timeOrNull(node.modified);
    return object;
}

/// Calls `visit` for the nodes that are to be listed: all, or those that were named.
void visitNodes(const Document& document, const std::vector<std::string>& named,
                const Document::Visitor& visit) {
    if (named.empty()) {
        document.walk({}, visit);
        return;
    }
    std::set<std::wstring> wanted;
    for (const SelectedNode& node : selectNodes(document, named))
        wanted.insert(node.path.text());
    document.walk({}, [&](const Node& node) {
        if (wanted.contains(node.path.text()))
            visit(node);
    });
}

void run(const Arguments& arguments) {
    const Document document(toUtf16(arguments.file), RootStorageOpenMode::ReadOnlyDenyWrite);
    StandardOutput output;
    if (!arguments.json) {
        visitNodes(document, arguments.nodes,
                   [&](const Node& node) { print(output, node, arguments.bytes); });
        output.flush();
        return;
    }
    auto nodes = nlohmann::ordered_json::array();
    visitNodes(document, arguments.nodes, [&](const Node& node) { nodes.push_back(jsonOf(node)); });
    output.text(nodes.dump(2) + "\n");
    output.flush();
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.file(arguments->file);
    command.optionalNodes(arguments->nodes);
    command.flag("--bytes", arguments->bytes, "Print sizes to the byte");
    command.flag("--json", arguments->json,
                 "Print an array of {\"path\", \"type\", \"size\", \"created\", \"modified\"}");
    command.examples("vexel list hall.7z", "vexel list --bytes hall.7z \"Views/*\"");
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration kRegistration("list",
                                        "List nodes, depth first: type, size, modification time, path", add);

} // namespace
} // namespace Vexel::Tool
