#pragma once

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
    explicit Command(CLI::App& app) noexcept : app_(app) {}

    void required(const char* name, std::string& value, const char* help);
    void optional(const char* name, std::string& value, const char* help);
    /// An option with a value, as "-o,--output".
    void option(const char* names, std::string& value, const char* help);
    void flag(const char* name, bool& value, const char* help);
    /// The arguments that most commands take.
    void file(std::string& file);
    void node(std::string& node);
    /// One or more nodes, or none; each may be a pattern.
    void nodes(std::vector<std::string>& nodes);
    void optionalNodes(std::vector<std::string>& nodes);
    /// What the command does.
    void run(std::function<void()> body);

private:
    CLI::App& app_;
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
    friend void runCommandLine(const std::vector<std::string>& arguments);

    const char* name_;
    const char* help_;
    Add add_;
    const CommandRegistration* next_;
    static const CommandRegistration* first;
};

/// Runs the command that the arguments name, or prints the help text. Throws UsageError for arguments that
/// make no command, and what the command throws.
void runCommandLine(const std::vector<std::string>& arguments);

} // namespace Vexel::Tool
