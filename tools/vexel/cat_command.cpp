#include "command.h"
#include "console.h"
#include "document.h"
#include "text.h"

#include <memory>

namespace Vexel::Tool {
namespace {

struct Arguments {
    std::string file;
    std::string node;
};

void run(const Arguments& arguments) {
    const NodePath path = NodePath::parse(toUtf16(arguments.node));
    const Document document(toUtf16(arguments.file), RootStorageOpenMode::ReadOnlyDenyWrite);
    StreamRef stream = document.openStream(path);
    StandardOutput output;
    document.read(stream, path, [&](std::span<const std::byte> data) { output.bytes(data); });
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.file(arguments->file);
    command.node(arguments->node);
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration kRegistration("cat", "Write a stream's bytes to standard output", add);

} // namespace
} // namespace Vexel::Tool
