#include "command.h"

#include <memory>
#include <string>

namespace Vexel::Tool {
namespace {

struct Arguments {
    std::string command;
};

void run(const Arguments& arguments) {
    if (arguments.command.empty())
        runCommandLine({"--help"});
    else
        runCommandLine({arguments.command, "--help"});
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.optional("COMMAND", arguments->command, "The command to explain; without it, all are named",
                     Takes::Command);
    command.examples("vexel help extract", "vexel help diff");
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration kRegistration("help", "Explain the program, or a command", add);

} // namespace
} // namespace Vexel::Tool
