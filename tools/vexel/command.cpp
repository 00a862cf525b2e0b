// Commands register themselves before main begins, in a list that needs no memory, so that the program has no
// table of them.

#include "command.h"

#include "console.h"
#include "failure.h"
#include "log.h"
#include "nearest.h"
#include "progress.h"
#include "text.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace Vexel::Tool {
namespace {

constexpr const char* kNodeHelp = "The node's path, its elements joined by \"/\" (%05SummaryInformation)";
constexpr const char* kNodesHelp =
    "Paths of nodes, their elements joined by \"/\"; * and ? stand for parts of names, ** for any storages";

void printHelp(const CLI::App& program, CLI::AppFormatMode mode) {
    StandardOutput output;
    output.text(program.help("", mode));
    output.flush();
}

// The parser would only say that a command is missing.
void checkName(CLI::App& program, const std::vector<std::string>& arguments) {
    const auto name = std::find_if(arguments.begin(), arguments.end(),
                                   [](const std::string& argument) { return !argument.starts_with('-'); });
    if (name == arguments.end()) {
        if (arguments.empty())
            throw UsageError(L"no command is given; the commands are shown by", L"vexel --help");
        return;
    }
    Nearest nearest(toUtf16(*name));
    for (const CLI::App* const command : program.get_subcommands(nullptr)) {
        if (command->get_name() == *name)
            return;
        nearest.offer(toUtf16(command->get_name()));
    }
    const UsageError error(L"there is no command", toUtf16(*name));
    throw nearest.found() ? UsageError(error.message() + didYouMean(*nearest.found())) : error;
}

} // namespace

constinit const CommandRegistration* CommandRegistration::first = nullptr;

CommandRegistration::CommandRegistration(const char* name, const char* help, Add add) noexcept
    : name_(name), help_(help), add_(add), next_(first) {
    first = this;
}

void Command::required(const char* name, std::string& value, const char* help) {
    app_.add_option(name, value, help)->required();
}

void Command::optional(const char* name, std::string& value, const char* help) {
    app_.add_option(name, value, help);
}

void Command::option(const char* names, std::string& value, const char* help) {
    app_.add_option(names, value, help);
}

void Command::flag(const char* name, bool& value, const char* help) { app_.add_flag(name, value, help); }

void Command::file(std::string& file) { required("FILE", file, "The document"); }

void Command::node(std::string& node) { required("NODE", node, kNodeHelp); }

void Command::nodes(std::vector<std::string>& nodes) {
    app_.add_option("NODE", nodes, kNodesHelp)->required()->type_name("");
}

void Command::optionalNodes(std::vector<std::string>& nodes) {
    app_.add_option("NODE", nodes, kNodesHelp)->type_name("");
}

void Command::run(std::function<void()> body) {
    app_.callback([body = std::move(body), name = toUtf16(app_.get_name())] {
        progress().begin(name);
        body();
    });
}

void runCommandLine(const std::vector<std::string>& arguments) {
    CLI::App program("Looks into structured documents and changes them");
    program.name("vexel");
    // "/" begins a path here, not an option.
    program.allow_windows_style_options(false);
    program.require_subcommand(1);
    for (const CommandRegistration* entry = CommandRegistration::first; entry; entry = entry->next_) {
        CLI::App* const app = program.add_subcommand(entry->name_, entry->help_);
        Command command(*app);
        entry->add_(command);
        app->add_flag_callback("--verbose", verboseLog, "Show the library's log on standard error");
    }
    checkName(program, arguments);
    try {
        // The parser takes them last first.
        program.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
    } catch (const CLI::CallForHelp&) {
        printHelp(program, CLI::AppFormatMode::Normal);
    } catch (const CLI::CallForAllHelp&) {
        printHelp(program, CLI::AppFormatMode::All);
    } catch (const CLI::ParseError& error) {
        throw UsageError(toUtf16(error.what()));
    }
}

} // namespace Vexel::Tool
