#include "command.h"
#include "console.h"
#include "document.h"
#include "text.h"

#include <memory>
#include <vector>

namespace Vexel::Tool {
namespace {

struct Arguments {
    std::string file;
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

void run(const Arguments& arguments) {
    const Document document(toUtf16(arguments.file), RootStorageOpenMode::ReadOnlyDenyWrite);
    StandardOutput output;
    output.text(arguments.file + "\n");
    std::vector<bool> open;
    document.walk({}, [&](const Node& node) {
        std::string line = branch(open, node) + toUtf8(NodePath().child(node.path.name()).text());
        line += node.type == StorageType::Storage ? "/" : " (" + std::to_string(node.size) + ")";
        output.text(line + "\n");
    });
    output.flush();
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.file(arguments->file);
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration kRegistration("tree", "Draw the nodes as a tree, streams with their sizes", add);

} // namespace
} // namespace Vexel::Tool
