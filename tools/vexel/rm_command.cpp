#include "command.h"
#include "document.h"
#include "failure.h"
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
    if (path.isRoot())
        throw UsageError(L"the root cannot be removed from", toUtf16(arguments.file));
    const Document document(toUtf16(arguments.file), RootStorageOpenMode::ReadWrite);
    std::vector<StorageRef> storages = document.openForWriting(path.parent(), false);
    check(storages.back().destroy(elementName(path.name())), L"cannot remove", document.label(path));
    document.commit(storages, path.parent());
}

void add(CLI::App& program) {
    const auto arguments = std::make_shared<Arguments>();
    CLI::App* command = program.add_subcommand("rm", "Remove a node with everything in it");
    addFile(*command, arguments->file);
    addNode(*command, arguments->node)->required();
    command->callback([arguments] { run(*arguments); });
}

const CommandRegistration registration(add);

} // namespace
} // namespace Vexel::Tool
