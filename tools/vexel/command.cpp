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
#include <array>
#include <string_view>
#include <utility>

namespace Vexel::Tool {
namespace {

constexpr const char* kNodeHelp = "The node's path, its elements joined by \"/\" (%05SummaryInformation)";
constexpr const char* kNodesHelp =
    "Paths of nodes, their elements joined by \"/\"; * and ? stand for parts of names, ** for any storages";

constexpr const char* kStatuses =
    "Exit status:\n"
    "  0    done; of diff: no difference\n"
    "  1    failed, of which a line on standard error tells; of diff: there are differences\n"
    "  2    wrong usage; of diff: something could not be read\n"
    "  3    of verify: nothing is damaged, but not everything could be checked\n"
    "  130  interrupted\n"
    "  141  nobody read the output to its end";

// Words that people know from elsewhere, and the commands that do here what they do there.
struct Synonym {
    std::string_view word;
    std::wstring_view command;
};
constexpr auto kSynonyms = std::to_array<Synonym>({
    {"ls", L"list"},
    {"dir", L"list"},
    {"ren", L"mv"},
    {"rename", L"mv"},
    {"move", L"mv"},
    {"del", L"rm"},
    {"delete", L"rm"},
    {"remove", L"rm"},
    {"erase", L"rm"},
    {"unzip", L"extract"},
    {"unpack", L"extract"},
    {"export", L"extract"},
    {"x", L"extract"},
    {"zip", L"pack"},
    {"create", L"pack"},
    {"import", L"put"},
    {"add", L"put"},
    {"write", L"put"},
    {"type", L"cat"},
    {"show", L"cat"},
    {"print", L"cat"},
    {"read", L"cat"},
    {"check", L"verify"},
    {"test", L"verify"},
    {"compare", L"diff"},
    {"repair", L"salvage"},
    {"rescue", L"salvage"},
    {"recover", L"salvage"},
    {"fix", L"salvage"},
    {"stat", L"info"},
    {"inflate", L"gunzip"},
    {"version", L"--version"},
    {"cp", L"extract\" or \"put"},
    {"copy", L"extract\" or \"put"},
});

void describeOption(CommandDescription& description, const CLI::Option* option, bool hasValue,
                    std::vector<std::string> choices = {}) {
    CommandDescription::Option described{{}, option->get_description(), hasValue, std::move(choices)};
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
    const auto* const synonym = std::find_if(kSynonyms.begin(), kSynonyms.end(),
                                             [&](const Synonym& one) { return one.word == *name; });
    if (synonym != kSynonyms.end())
        throw UsageError(error.message() + didYouMean(synonym->command));
    throw nearest.found() ? UsageError(error.message() + didYouMean(*nearest.found()))
                          : UsageError(error.message() + L"; the commands are shown by \"vexel --help\"");
}

// What a command line has too much.
UsageError unexpected(const CommandDescription& command, const std::string& argument) {
    const std::wstring name = toUtf16(command.name);
    if (!argument.starts_with('-'))
        return {name + L" takes no further argument", toUtf16(argument)};
    Nearest nearest(toUtf16(argument.substr(0, argument.find('='))));
    for (const CommandDescription::Option& option : command.options) {
        for (const std::string& known : option.names)
            nearest.offer(toUtf16(known));
    }
    const UsageError error(name + L" has no option", toUtf16(argument));
    return UsageError(error.message() + (nearest.found() ? didYouMean(*nearest.found())
                                                         : L"; see \"vexel help " + name + L"\""));
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

void Command::output(std::string& file, bool& force) {
    CLI::Option* const option =
        app_.add_option("-o,--output", file,
                        "The file to write, which appears when it is complete; without it, standard output");
    describeOption(description_, option->type_name("FILE"), true);
    flag("--force", force, "Replace a file that is there");
}

void Command::choice(const char* name, std::string& value, std::vector<std::string> choices,
                     const char* help) {
    const std::string all = CLI::detail::join(choices, ", ");
    const auto check = [choices, all](const std::string& text) {
        return std::find(choices.begin(), choices.end(), text) != choices.end()
                   ? std::string()
                   : "\"" + text + "\" is none of " + all;
    };
    CLI::Option* const option =
        app_.add_option(name, value, help)->type_name(CLI::detail::join(choices, "|"));
    describeOption(description_, option->check(check), true, std::move(choices));
}

void Command::flag(const char* name, bool& value, const char* help) {
    describeOption(description_, app_.add_flag(name, value, help), false);
}

void Command::file(std::string& file) { required("FILE", file, "The document"); }

void Command::files(std::vector<std::string>& files) {
    description_.arguments.push_back({"FILE", Takes::File, true});
    app_.add_option("FILE", files, "The documents; * and ? stand for parts of their names")
        ->required()
        ->type_name("");
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

void Command::examples(const char* first, const char* second, const char* more) {
    app_.footer(std::string("Examples:\n  ") + first + "\n  " + second + (*more ? "\n\n" : "") + more);
}

void Command::hide() {
    app_.group("");
    description_.isHidden = true;
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
        const auto formatter = std::dynamic_pointer_cast<CLI::Formatter>(program_.get_formatter());
        formatter->label("SUBCOMMAND", "COMMAND ...");
        formatter->label("Positionals", "Arguments");
        formatter->label("REQUIRED", "");
        program_.set_help_flag("-h,--help", "Show this text");
        program_.footer(std::string("vexel help COMMAND explains a command.\n\n") + kStatuses);
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

    /// The error that the parser has found, in words that say where the command line is wrong.
    UsageError explain(const CLI::ParseError& error) const {
        const auto parsed = program_.get_subcommands();
        const std::vector<std::string> before = program_.remaining();
        if (!before.empty() && !parsed.empty())
            return {L"options stand behind the command:", toUtf16(before.front())};
        if (!before.empty()) {
            const UsageError unknown(L"there is no option", toUtf16(before.front()));
            return UsageError(unknown.message() + L"; see \"vexel --help\"");
        }
        if (parsed.empty())
            return UsageError(toUtf16(error.what()));
        const auto command = std::find_if(descriptions_.begin(), descriptions_.end(), [&](const auto& one) {
            return one.name == parsed.front()->get_name();
        });
        const std::vector<std::string> behind = parsed.front()->remaining();
        if (!behind.empty() && command != descriptions_.end())
            return unexpected(*command, behind.front());
        const std::wstring name = toUtf16(parsed.front()->get_name());
        return UsageError(name + L": " + toUtf16(error.what()) + L"; see \"vexel help " + name + L"\"");
    }

private:
    void add(const CommandRegistration& entry) {
        CLI::App* const app = program_.add_subcommand(entry.name_, entry.help_);
        app->group("Commands");
        CommandDescription description{entry.name_, entry.help_, {}, {}, false};
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

std::vector<CommandDescription> describeCommands() {
    std::vector<CommandDescription> commands = CommandLine().descriptions();
    std::erase_if(commands, [](const CommandDescription& command) { return command.isHidden; });
    return commands;
}

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
        throw line.explain(error);
    }
}

} // namespace Vexel::Tool
