// `vexel list FILE [--json]`. Lines are printed as nodes are met; the JSON array is printed whole or not at
// all.

#include "command.h"
#include "console.h"
#include "document.h"
#include "text.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <memory>

namespace Vexel::Tool {
namespace {

struct Arguments {
    std::string file;
    bool json = false;
};

const char* typeName(StorageType type) { return type == StorageType::Storage ? "storage" : "stream"; }

std::string lineOf(const Node& node) {
    const std::string size = node.type == StorageType::Stream ? std::to_string(node.size) : "-";
    std::string modified = toIso8601(node.modified);
    constexpr std::size_t kToSeconds = 19;
    if (modified.size() > kToSeconds) {
        modified.resize(kToSeconds);
        modified += 'Z';
    }
    char columns[80];
    std::snprintf(columns, sizeof columns, "%-7s %12s %-20s ", typeName(node.type), size.c_str(),
                  modified.empty() ? "-" : modified.c_str());
    return columns + toUtf8(node.path.text()) + "\n";
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

void run(const Arguments& arguments) {
    const Document document(toUtf16(arguments.file), RootStorageOpenMode::ReadOnlyDenyWrite);
    StandardOutput output;
    if (!arguments.json) {
        document.walk({}, [&](const Node& node) { output.text(lineOf(node)); });
        output.flush();
        return;
    }
    auto nodes = nlohmann::ordered_json::array();
    document.walk({}, [&](const Node& node) { nodes.push_back(jsonOf(node)); });
    output.text(nodes.dump(2) + "\n");
    output.flush();
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.file(arguments->file);
    command.flag("--json", arguments->json,
                 "Print an array of {\"path\", \"type\", \"size\", \"created\", \"modified\"}");
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration
    kRegistration("list", "List every node, depth first: type, size, modification time, path", add);

} // namespace
} // namespace Vexel::Tool
