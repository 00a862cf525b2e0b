#include "command.h"
#include "document.h"
#include "file_names.h"
#include "target_directory.h"
#include "text.h"

#include <memory>
#include <vector>

namespace Vexel::Tool {
namespace {

struct Arguments {
    std::string file;
    std::string directory;
    std::string node;
    bool force = false;
};

void extractStream(const Document& document, StreamRef stream, const NodePath& path,
                   const TargetDirectory& directory, const std::wstring& file) {
    TargetFile target(directory, file);
    document.read(stream, path,
                  [&](std::span<const std::byte> data) { target.write(data.data(), data.size()); });
    target.finish();
}

// A storage that files are being made for.
struct Level {
    std::wstring prefix; // of the paths in it
    FileNames names;
};

void extractBelow(const Document& document, const NodePath& start, const TargetDirectory& directory,
                  std::wstring prefix) {
    std::vector<Level> levels(1);
    levels[0].prefix = std::move(prefix);
    document.walk(start, [&](const Node& node) {
        levels.resize(node.depth + 1);
        const std::wstring path = levels.back().prefix + levels.back().names.unique(node.path.name());
        if (node.type == StorageType::Storage) {
            directory.makeDirectory(path);
            levels.push_back({path + L"\\", {}});
        } else {
            extractStream(document, document.openStream(node.path, *node.parent), node.path, directory, path);
        }
    });
}

void run(const Arguments& arguments) {
    const NodePath start = NodePath::parse(toUtf16(arguments.node));
    const Document document(toUtf16(arguments.file), RootStorageOpenMode::ReadOnlyDenyWrite);
    if (start.isRoot()) {
        extractBelow(document, start, TargetDirectory(toUtf16(arguments.directory), arguments.force), {});
        return;
    }
    const std::wstring name = fileNameOf(start.name());
    if (document.typeOf(start) == StorageType::Storage) {
        const TargetDirectory directory(toUtf16(arguments.directory), arguments.force);
        directory.makeDirectory(name);
        extractBelow(document, start, directory, name + L"\\");
        return;
    }
    StreamRef stream = document.openStream(start);
    extractStream(document, std::move(stream), start,
                  TargetDirectory(toUtf16(arguments.directory), arguments.force), name);
}

void add(CLI::App& program) {
    const auto arguments = std::make_shared<Arguments>();
    CLI::App* command = program.add_subcommand(
        "extract", "Write nodes as files and directories; names that Windows cannot hold are encoded");
    addFile(*command, arguments->file);
    command->add_option("DIR", arguments->directory, "The directory to write into, made when it is missing")
        ->required();
    addNode(*command, arguments->node);
    command->add_flag("--force", arguments->force, "Replace files that are there");
    command->callback([arguments] { run(*arguments); });
}

const CommandRegistration registration(add);

} // namespace
} // namespace Vexel::Tool
