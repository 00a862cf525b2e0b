// `vexel extract FILE DIR [NODE...]`. A node that fails is reported and left out; only what the next node
// would meet as well, a full disk, ends the command.

#include "command.h"
#include "document.h"
#include "faults.h"
#include "file_names.h"
#include "file_paths.h"
#include "node_selection.h"
#include "progress.h"
#include "target_directory.h"
#include "text.h"

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Vexel::Tool {
namespace {

struct Arguments {
    std::string file;
    std::string directory;
    std::vector<std::string> nodes;
    bool force = false;
};

// A storage that files are being made for.
struct Level {
    std::wstring prefix; // of the paths in it
    FileNames names;
};

// A node that cannot be extracted is told on standard error, and the others follow.
class Extraction {
public:
    Extraction(const Document& document, const Arguments& arguments, Faults& faults)
        : document_(document), directory_(toUtf16(arguments.directory), arguments.force), faults_(faults) {}

    void stream(StreamRef stream, const NodePath& path, const std::wstring& file) {
        TargetFile target(directory_, file);
        document_.read(stream, path,
                       [&](std::span<const std::byte> data) { target.write(data.data(), data.size()); });
        target.finish();
    }

    void storage(const NodePath& start, const std::wstring& file) {
        directory_.makeDirectory(file);
        below(start, file + L"\\");
    }

    void below(const NodePath& start, std::wstring prefix) {
        std::vector<Level> levels(1);
        levels[0].prefix = std::move(prefix);
        document_.walk(
            start,
            [&](const Node& node) {
                levels.resize(node.depth + 1);
                const std::wstring path = levels.back().prefix + levels.back().names.unique(node.path.name());
                if (node.type == StorageType::Storage) {
                    directory_.makeDirectory(path);
                    levels.push_back({path + L"\\", {}});
                } else {
                    stream(document_.openStream(node.path, *node.parent), node.path, path);
                }
            },
            faults_.handler());
    }

    /// A node under the way to it from where its pattern begins.
    void selected(const SelectedNode& node) {
        faults_.attempt([&] {
            std::wstring directory;
            for (std::size_t i = node.fixed; i + 1 < node.path.elements().size(); ++i) {
                const std::wstring way = fileFor(directory, node.path.first(i + 1));
                directory_.makeDirectory(way);
                directory = way + L'\\';
            }
            const std::wstring file = fileFor(directory, node.path);
            if (node.type == StorageType::Storage)
                storage(node.path, file);
            else
                stream(document_.openStream(node.path), node.path, file);
        });
    }

private:
    /// The same for a node each time, and never that of another.
    std::wstring fileFor(const std::wstring& directory, const NodePath& node) {
        const auto [place, isNew] = files_.try_emplace({directory, node.text()});
        if (isNew)
            place->second = directory + names_[directory].unique(node.name());
        return place->second;
    }

    const Document& document_;
    TargetDirectory directory_;
    Faults& faults_;
    // Of what was selected, and of the storages on the way to it:
    std::map<std::wstring, FileNames> names_;                             // by directory
    std::map<std::pair<std::wstring, std::wstring>, std::wstring> files_; // by directory and node
};

void run(const Arguments& arguments) {
    // Who puts the nodes first is told so.
    if (const std::wstring directory = toUtf16(arguments.directory); hasFileWildcards(directory))
        throw UsageError(L"the directory stands in front of the nodes, and is no pattern:", directory);
    const Document document(toUtf16(arguments.file), RootStorageOpenMode::ReadOnlyDenyWrite);
    Faults faults;
    // The directory is made when it is sure that there is something to extract.
    const std::vector<SelectedNode> nodes = selectOutermost(
        document, arguments.nodes.empty() ? std::vector<std::string>{""} : arguments.nodes, &faults);
    Extraction extraction(document, arguments, faults);
    progress().expect(amountOf(document, nodes));
    for (const SelectedNode& node : nodes) {
        if (node.path.isRoot())
            extraction.below({}, {});
        else
            extraction.selected(node);
    }
    faults.finish();
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.file(arguments->file);
    command.required("DIR", arguments->directory, "The directory to write into, made when it is missing",
                     Takes::Directory);
    command.optionalNodes(arguments->nodes);
    command.flag("--force", arguments->force, "Replace files that are there");
    command.examples("vexel extract hall.7z out", "vexel extract hall.7z out \"Views/**\" Preview");
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration
    kRegistration("extract",
                  "Write nodes as files and directories; names that Windows cannot hold are encoded", add);

} // namespace
} // namespace Vexel::Tool
