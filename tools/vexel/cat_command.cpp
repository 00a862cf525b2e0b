#include "command.h"
#include "document.h"
#include "faults.h"
#include "node_selection.h"
#include "output.h"
#include "progress.h"
#include "text.h"

#include <memory>
#include <string>
#include <vector>

namespace Vexel::Tool {
namespace {

struct Arguments {
    std::string file;
    std::vector<std::string> nodes;
    std::string output;
    bool force = false;
};

// A pattern means the streams among what it matches.
std::vector<SelectedNode> streamsOf(const Document& document, const Arguments& arguments, Faults& faults) {
    std::vector<SelectedNode> nodes = selectNodes(document, arguments.nodes, &faults);
    std::erase_if(nodes, [](const SelectedNode& node) {
        return node.isByPattern && node.type == StorageType::Storage;
    });
    return nodes;
}

// What fails is told, and the streams behind it come all the same. A file that is not all that was asked for
// does not appear.
void run(const Arguments& arguments) {
    const std::wstring file = toUtf16(arguments.file);
    Output output(arguments.output, file, arguments.force);
    const Document document(file, RootStorageOpenMode::ReadOnlyDenyWrite);
    Faults faults;
    const std::vector<SelectedNode> nodes = streamsOf(document, arguments, faults);
    progress().expect(amountOf(document, nodes));
    for (const SelectedNode& node : nodes) {
        faults.attempt([&] {
            StreamRef stream = document.openStream(node.path);
            document.read(stream, node.path, [&](std::span<const std::byte> data) { output.bytes(data); });
        });
    }
    faults.finish();
    output.finish();
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.file(arguments->file);
    command.nodes(arguments->nodes);
    command.output(arguments->output, arguments->force);
    command.examples("vexel cat hall.7z Model/Settings -o settings",
                     "vexel cat hall.7z \"Views/*/Settings\"");
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration kRegistration("cat", "Write the bytes of streams to standard output or a file",
                                        add);

} // namespace
} // namespace Vexel::Tool
