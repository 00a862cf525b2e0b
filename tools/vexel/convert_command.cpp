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

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.required("IN", arguments->from, "The document");
    command.required("OUT", arguments->to, "The package to make");
    command.flag("--force", arguments->force, "Replace a file that is there");
    command.examples("vexel convert hall.cfb hall.7z", "vexel convert --force hall.cfb hall.7z");
    command.run(
        [arguments] { convertDocument(toUtf16(arguments->from), toUtf16(arguments->to), arguments->force); });
}

const CommandRegistration
    kRegistration("convert", "Make a package of a document and compare it with what it was made of", add);

} // namespace
} // namespace Vexel::Tool
