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
#include <string_view>
#include <utility>

namespace Vexel::Tool {
namespace {

constexpr const char* kNodeHelp = "The node's path, its elements joined by \"/\" (%05SummaryInformation)";
constexpr const char* kNodesHelp =
    "Paths of nodes, their elements joined by \"/\"; * and ? stand for parts of names, ** for any storages";

void describeOption(CommandDescription& description, const CLI::Option* option, bool hasValue) {
    CommandDescription::Option described{{}, option->get_description(), hasValue};
    for (const std::string& name : option->get_snames())
        described.names.push_back("-" + name);
    for (const std::string& name : option->get_lnames())
        described.names.push_back("--" + name);
    description.options.push_back(std::move(described));
}

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

void Command::required(const char* name, std::string& value, const char* help, Takes takes) {
    description_.arguments.push_back({name, takes, false});
    app_.add_option(name, value, help)->required()->type_name("");
}

void Command::optional(const char* name, std::string& value, const char* help, Takes takes) {
    description_.arguments.push_back({name, takes, false});
    app_.add_option(name, value, help)->type_name("");
}

void Command::option(const char* names, std::string& value, const char* help) {
    describeOption(description_, app_.add_option(names, value, help)->type_name("FILE"), true);
}

void Command::flag(const char* name, bool& value, const char* help) {
    describeOption(description_, app_.add_flag(name, value, help), false);
}

void Command::file(std::string& file) { required("FILE", file, "The document"); }

void Command::files(std::vector<std::string>& files) {
    description_.arguments.push_back({"FILE", Takes::File, true});
    app_.add_option("FILE", files, "The documents")->required()->type_name("");
}

void Command::node(std::string& node) { required("NODE", node, kNodeHelp, Takes::Node); }

void Command::nodes(std::vector<std::string>& nodes) {
    description_.arguments.push_back({"NODE", Takes::Node, true});
    app_.add_option("NODE", nodes, kNodesHelp)->required()->type_name("");
}

void Command::optionalNodes(std::vector<std::string>& nodes) {
    description_.arguments.push_back({"NODE", Takes::Node, true});
    app_.add_option("NODE", nodes, kNodesHelp)->type_name("");
}

void Command::examples(const char* first, const char* second) {
    app_.footer(std::string("Examples:\n  ") + first + "\n  " + second);
}

void Command::run(std::function<void()> body) {
    app_.callback([body = std::move(body), name = toUtf16(app_.get_name())] {
        progress().begin(name);
        body();
    });
}

/// The parser with all commands.
class CommandLine {
public:
    CommandLine() {
        program_.name("vexel");
        // "/" begins a path here, not an option.
        program_.allow_windows_style_options(false);
        program_.require_subcommand(1);
        for (const CommandRegistration* entry = CommandRegistration::first; entry; entry = entry->next_)
            entries_.push_back(entry);
        std::sort(entries_.begin(), entries_.end(),
                  [](const auto* a, const auto* b) { return std::string_view(a->name_) < b->name_; });
        program_.set_version_flag("--version", "vexel " VEXEL_VERSION, "Show the version");
        for (const CommandRegistration* const entry : entries_)
            add(*entry);
    }

    CLI::App& program() noexcept { return program_; }
    const std::vector<CommandDescription>& descriptions() const noexcept { return descriptions_; }

private:
    void add(const CommandRegistration& entry) {
        CLI::App* const app = program_.add_subcommand(entry.name_, entry.help_);
        CommandDescription description{entry.name_, entry.help_, {}, {}};
        Command command(*app, description);
        entry.add_(command);
        describeOption(
            description,
            app->add_flag_callback("--verbose", verboseLog, "Show the library's log on standard error"),
            false);
        describeOption(description, app->get_help_ptr(), false);
        descriptions_.push_back(std::move(description));
    }

    CLI::App program_{"Looks into structured documents and changes them"};
    std::vector<const CommandRegistration*> entries_;
    std::vector<CommandDescription> descriptions_;
};

std::vector<CommandDescription> describeCommands() { return CommandLine().descriptions(); }

void runCommandLine(const std::vector<std::string>& arguments) {
    CommandLine line;
    CLI::App& program = line.program();
    checkName(program, arguments);
    try {
        // The parser takes them last first.
        program.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
    } catch (const CLI::CallForHelp&) {
        printHelp(program, CLI::AppFormatMode::Normal);
    } catch (const CLI::CallForAllHelp&) {
        printHelp(program, CLI::AppFormatMode::All);
    } catch (const CLI::CallForVersion& version) {
        StandardOutput output;
        output.text(std::string(version.what()) + "\n");
        output.flush();
    } catch (const CLI::ParseError& error) {
        throw UsageError(toUtf16(error.what()));
    }
}

} // namespace Vexel::Tool
