#include "command.h"
#include "console.h"
#include "document.h"
#include "node_selection.h"
#include "text.h"

#include <memory>
#include <string>
#include <vector>

namespace Vexel::Tool {
namespace {

struct Arguments {
    std::string file;
    std::vector<std::string> nodes;
};

// A pattern means the streams among what it matches.
void run(const Arguments& arguments) {
    const Document document(toUtf16(arguments.file), RootStorageOpenMode::ReadOnlyDenyWrite);
    StandardOutput output;
    for (const SelectedNode& node : selectNodes(document, arguments.nodes)) {
        if (node.isByPattern && node.type == StorageType::Storage)
            continue;
        StreamRef stream = document.openStream(node.path);
        document.read(stream, node.path, [&](std::span<const std::byte> data) { output.bytes(data); });
    }
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.file(arguments->file);
    command.nodes(arguments->nodes);
    command.examples("vexel cat hall.7z Model/Settings > settings", "vexel cat hall.7z \"Views/*/Settings\"");
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration kRegistration("cat", "Write the bytes of streams to standard output", add);

} // namespace
} // namespace Vexel::Tool
