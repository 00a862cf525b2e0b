#include "command.h"
#include "document.h"
#include "failure.h"
#include "stopping.h"
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
    checkStop();
    check(storages.back().destroy(path.name().c_str()), L"cannot remove", document.label(path));
    document.commit(storages, path.parent());
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.file(arguments->file);
    command.node(arguments->node);
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration kRegistration("rm", "Remove a node with everything in it", add);

} // namespace
} // namespace Vexel::Tool
