#include "command.h"
#include "conversion.h"
#include "text.h"

#include <memory>

namespace Vexel::Tool {
namespace {

struct Arguments {
    std::string from;
    std::string to;
    bool force = false;
};

void add(CLI::App& program) {
    const auto arguments = std::make_shared<Arguments>();
    CLI::App* command = program.add_subcommand(
        "convert", "Make a package of a document and compare it with what it was made of");
    command->add_option("IN", arguments->from, "The document")->required();
    command->add_option("OUT", arguments->to, "The package to make")->required();
    command->add_flag("--force", arguments->force, "Replace a file that is there");
    command->callback(
        [arguments] { convertDocument(toUtf16(arguments->from), toUtf16(arguments->to), arguments->force); });
}

const CommandRegistration registration(add);

} // namespace
} // namespace Vexel::Tool
