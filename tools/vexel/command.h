#pragma once

#include "command_description.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
} // namespace CLI

namespace Vexel::Tool {

/// What a command takes on the command line. The texts arrive in UTF-8, and live as long as `run` keeps them.
class Command {
public:
    Command(CLI::App& app, CommandDescription& description) noexcept : app_(app), description_(description) {}

    void required(const char* name, std::string& value, const char* help, Takes takes = Takes::File);
    void optional(const char* name, std::string& value, const char* help, Takes takes = Takes::File);
    /// The option that names the file to write instead of standard output, and the one that lets it be
    /// replaced.
    void output(std::string& file, bool& force);
    /// An option whose value is one of some words.
    void choice(const char* name, std::string& value, std::vector<std::string> choices, const char* help);
    void flag(const char* name, bool& value, const char* help);
    /// The arguments that most commands take.
    void file(std::string& file);
    void files(std::vector<std::string>& files);
    void node(std::string& node);
    /// One or more nodes, or none; each may be a pattern.
    void nodes(std::vector<std::string>& nodes);
    void optionalNodes(std::vector<std::string>& nodes);
    /// Command lines that the help shows, and what it says behind them, if anything.
    void examples(const char* first, const char* second, const char* more = "");
    /// Leaves the command out of the help text.
    void hide();
    /// What the command does.
    void run(std::function<void()> body);

private:
    CLI::App& app_;
    CommandDescription& description_;
};

/// A command of the program: a source file of its own that ends in one line,
///
///     const CommandRegistration kRegistration("name", "What it does", add);
///
/// where `add` tells its arguments and what it runs. A command reports what goes wrong by throwing Failure or
/// UsageError. The help text shows the name and the help of each.
class CommandRegistration {
public:
    using Add = void (*)(Command& command);

    CommandRegistration(const char* name, const char* help, Add add) noexcept;

private:
    friend class CommandLine;

    const char* name_;
    const char* help_;
    Add add_;
    const CommandRegistration* next_;
    static const CommandRegistration* first;
};

/// All commands that the help text shows, by name.
std::vector<CommandDescription> describeCommands();

/// Runs the command that the arguments name, or prints the help text. Throws UsageError for arguments that
/// make no command, and what the command throws.
void runCommandLine(const std::vector<std::string>& arguments);

} // namespace Vexel::Tool
