#include "command.h"
#include "console.h"
#include "document.h"
#include "progress.h"
#include "text.h"

#include <memory>

namespace Vexel::Tool {
namespace {

struct Arguments {
    std::string file;
};

// Reads everything that is in a document and prints each fault.
class Verification {
public:
    explicit Verification(const Document& document) : document_(document) {}

    unsigned long long faults() {
        document_.walk(
            {},
            [this](const Node& node) {
                if (node.type == StorageType::Stream)
                    read(node);
            },
            [this](const Failure& failure) { print(failure); });
        output_.flush();
        return faults_;
    }

private:
    void read(const Node& node) {
        try {
            StreamRef stream = document_.openStream(node.path, *node.parent);
            document_.read(stream, node.path,
                           [this](std::span<const std::byte> data) { progress_.add(data.size()); });
        } catch (const Failure& failure) {
            print(failure);
        }
    }

    void print(const Failure& failure) {
        output_.text(toUtf8(onOneLine(failure.message())) + "\n");
        ++faults_;
    }

    const Document& document_;
    StandardOutput output_;
    Progress progress_{L"verifying"};
    unsigned long long faults_ = 0;
};

void run(const Arguments& arguments) {
    const std::wstring file = toUtf16(arguments.file);
    const Document document(file, RootStorageOpenMode::ReadOnlyDenyWrite);
    const unsigned long long faults = Verification(document).faults();
    if (faults > 0)
        throw Failure(faults == 1 ? L"1 fault in" : std::to_wstring(faults) + L" faults in", file,
                      STG_E_DOCFILECORRUPT);
}

void add(CLI::App& program) {
    const auto arguments = std::make_shared<Arguments>();
    CLI::App* command =
        program.add_subcommand("verify", "Read every stream wholly and print each fault on a line");
    addFile(*command, arguments->file);
    command->callback([arguments] { run(*arguments); });
}

const CommandRegistration registration(add);

} // namespace
} // namespace Vexel::Tool
