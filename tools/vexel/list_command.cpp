// `vexel list FILE [NODE...]`. Unless they are to be sorted, lines are printed as nodes are met.

#include "command.h"
#include "console.h"
#include "document.h"
#include "faults.h"
#include "node_selection.h"
#include "sizes.h"
#include "text.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace Vexel::Tool {
namespace {

struct Arguments {
    std::string file;
    std::vector<std::string> nodes;
    std::string sort;
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
void visitNodes(const Document& document, const std::vector<std::string>& named, Faults& faults,
                const Document::Visitor& visit) {
    std::set<std::wstring> wanted;
    for (const SelectedNode& node : selectNodes(document, named, &faults))
        wanted.insert(node.path.text());
    document.walk(
        {},
        [&](const Node& node) {
            if (named.empty() || wanted.contains(node.path.text()))
                visit(node);
        },
        faults.handler());
}

bool isLarger(const Node& a, const Node& b) {
    return a.type == b.type ? a.size > b.size : a.type == StorageType::Stream;
}

bool isEarlierByName(const Node& a, const Node& b) {
    return CompareStringOrdinal(a.path.text().c_str(), -1, b.path.text().c_str(), -1, TRUE) == CSTR_LESS_THAN;
}

bool isNewer(const Node& a, const Node& b) { return CompareFileTime(&a.modified, &b.modified) > 0; }

/// Of nodes that the order does not tell apart, the document's stays.
void sortNodes(std::vector<Node>& nodes, std::string_view order) {
    if (order == "size")
        std::stable_sort(nodes.begin(), nodes.end(), isLarger);
    else if (order == "time")
        std::stable_sort(nodes.begin(), nodes.end(), isNewer);
    else
        std::stable_sort(nodes.begin(), nodes.end(), isEarlierByName);
}

void visitInOrder(const Document& document, const Arguments& arguments, Faults& faults,
                  const Document::Visitor& visit) {
    if (arguments.sort.empty()) {
        visitNodes(document, arguments.nodes, faults, visit);
        return;
    }
    std::vector<Node> nodes;
    visitNodes(document, arguments.nodes, faults, [&nodes](const Node& node) { nodes.push_back(node); });
    sortNodes(nodes, arguments.sort);
    std::for_each(nodes.begin(), nodes.end(), visit);
}

void run(const Arguments& arguments) {
    const Document document(toUtf16(arguments.file), RootStorageOpenMode::ReadOnlyDenyWrite);
    StandardOutput output;
    Faults faults;
    if (arguments.json) {
        auto nodes = nlohmann::ordered_json::array();
        visitInOrder(document, arguments, faults, [&](const Node& node) { nodes.push_back(jsonOf(node)); });
        output.text(nodes.dump(2) + "\n");
    } else {
        visitInOrder(document, arguments, faults,
                     [&](const Node& node) { print(output, node, arguments.bytes); });
    }
    output.flush();
    faults.finish();
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.file(arguments->file);
    command.optionalNodes(arguments->nodes);
    command.flag("--bytes", arguments->bytes, "Print sizes to the byte");
    command.flag("--json", arguments->json,
                 "Print an array of {\"path\", \"type\", \"size\", \"created\", \"modified\"}");
    command.choice("--sort", arguments->sort, {"size", "name", "time"},
                   "The largest, the first by name, or the newest first");
    command.examples("vexel list hall.7z \"Views/*\"", "vexel list --sort size hall.7z | more");
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration kRegistration("list",
                                        "List nodes, depth first: type, size, modification time, path", add);

} // namespace
} // namespace Vexel::Tool
