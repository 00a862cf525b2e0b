#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace Vexel::Tool {

/// A command of the program: a source file of its own that ends in one line,
///
///     const CommandRegistration registration(add);
///
/// where `add` adds a subcommand to the application given, with its help text, arguments and what it runs.
/// Arguments arrive in UTF-8. A command reports what goes wrong by throwing Failure or UsageError. The help
/// text shows the commands by name.
class CommandRegistration {
public:
    using Add = void (*)(CLI::App& program);

    explicit CommandRegistration(Add add) noexcept;

    /// Adds every registered command.
    static void addAll(CLI::App& program);

private:
    Add add_;
    const CommandRegistration* next_;
    static const CommandRegistration* first_;
};

/// The arguments that most commands take.
void addFile(CLI::App& command, std::string& file);
CLI::Option* addNode(CLI::App& command, std::string& node);

} // namespace Vexel::Tool
