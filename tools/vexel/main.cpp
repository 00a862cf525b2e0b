#include "command.h"
#include "console.h"
#include "failure.h"
#include "text.h"

#include <vexel/diagnostics.h>

#include <exception>
#include <string>
#include <vector>

namespace Vexel::Tool {
namespace {

enum ExitStatus { kDone = 0, kFailed = 1, kWrongUsage = 2 };

void report(std::wstring_view message) { printError(L"vexel: " + onOneLine(std::wstring(message))); }

int printHelp(const CLI::App& program, CLI::AppFormatMode mode) {
    StandardOutput output;
    output.text(program.help("", mode));
    output.flush();
    return kDone;
}

// The library's log is for the application's developers; a command's own error line says what a user needs.
void quietLog() {
    VxLog_SetSink([](int, const wchar_t*, void*) {}, nullptr);
}

void verboseLog() {
    const auto print = [](int level, const wchar_t* message, void*) {
        printError(L"log " + std::to_wstring(level) + L": " + onOneLine(message));
    };
    VxLog_SetSink(print, nullptr);
}

void addCommands(CLI::App& program) {
    program.name("vexel");
    // "/" begins a path here, not an option.
    program.allow_windows_style_options(false);
    program.require_subcommand(1);
    CommandRegistration::addAll(program);
    for (CLI::App* command : program.get_subcommands({}))
        command->add_flag_callback("--verbose", verboseLog, "Show the library's log on standard error");
}

int run(std::vector<std::string> arguments) {
    CLI::App program("Looks into structured documents and changes them");
    addCommands(program);
    try {
        program.parse(std::move(arguments));
        return kDone;
    } catch (const CLI::CallForHelp&) {
        return printHelp(program, CLI::AppFormatMode::Normal);
    } catch (const CLI::CallForAllHelp&) {
        return printHelp(program, CLI::AppFormatMode::All);
    } catch (const CLI::ParseError& error) {
        report(toUtf16(error.what()));
    } catch (const UsageError& error) {
        report(error.message());
    }
    return kWrongUsage;
}

// CLI11 takes the arguments last first, without the program's name.
std::vector<std::string> reversed(int count, wchar_t** values) {
    std::vector<std::string> arguments;
    for (int i = count - 1; i > 0; --i)
        arguments.push_back(toUtf8(values[i]));
    return arguments;
}

} // namespace
} // namespace Vexel::Tool

// NOLINTNEXTLINE(misc-use-internal-linkage): the entry point is called from outside.
int wmain(int count, wchar_t** values) {
    using namespace Vexel::Tool;
    try {
        quietLog();
        return run(reversed(count, values));
    } catch (const Failure& failure) {
        report(failure.message());
    } catch (const std::exception& error) {
        report(toUtf16(error.what()));
    }
    return kFailed;
}
