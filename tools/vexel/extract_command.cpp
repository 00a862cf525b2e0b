// `vexel extract FILE DIR [NODE]`. A node that fails is reported and left out; only what the next node would
// meet as well, a full disk, ends the command.

#include "command.h"
#include "document.h"
#include "file_names.h"
#include "progress.h"
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

// A storage that files are being made for.
struct Level {
    std::wstring prefix; // of the paths in it
    FileNames names;
};

// What the next file would meet as well.
bool isFull(HRESULT status) {
    return status == HRESULT_FROM_WIN32(ERROR_DISK_FULL) ||
           status == HRESULT_FROM_WIN32(ERROR_HANDLE_DISK_FULL);
}

// A node that cannot be extracted is told on standard error, and the others follow.
class Extraction {
public:
    Extraction(const Document& document, const Arguments& arguments)
        : document_(document), directory_(toUtf16(arguments.directory), arguments.force) {}

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
            [this](const Failure& failure) {
                if (isFull(failure.status()))
                    throw Failure(failure);
                const Progress::Hidden hidden(progress());
                report(failure.message());
                failed_ = true;
            });
        if (failed_)
            throw SilentFailure(1);
    }

private:
    const Document& document_;
    TargetDirectory directory_;
    bool failed_ = false;
};

void run(const Arguments& arguments) {
    const NodePath start = NodePath::parse(toUtf16(arguments.node));
    const Document document(toUtf16(arguments.file), RootStorageOpenMode::ReadOnlyDenyWrite);
    // The directory is made when it is sure that there is something to extract.
    if (start.isRoot()) {
        Extraction(document, arguments).below(start, {});
    } else if (document.typeOf(start) == StorageType::Storage) {
        Extraction(document, arguments).storage(start, fileNameOf(start.name()));
    } else {
        StreamRef stream = document.openStream(start);
        Extraction(document, arguments).stream(std::move(stream), start, fileNameOf(start.name()));
    }
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.file(arguments->file);
    command.required("DIR", arguments->directory, "The directory to write into, made when it is missing");
    command.optionalNode(arguments->node);
    command.flag("--force", arguments->force, "Replace files that are there");
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration
    kRegistration("extract",
                  "Write nodes as files and directories; names that Windows cannot hold are encoded", add);

} // namespace
} // namespace Vexel::Tool
