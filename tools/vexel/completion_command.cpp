#include "command.h"
#include "completion.h"
#include "console.h"
#include "failure.h"
#include "nearest.h"
#include "text.h"

#include <memory>

namespace Vexel::Tool {
namespace {

struct Arguments {
    std::string shell;
};

[[noreturn]] void failAsUnknown(const std::wstring& shell) {
    Nearest nearest(shell);
    for (const std::string& known : completionShells())
        nearest.offer(toUtf16(known));
    const UsageError error(L"there is no completion for the shell", shell);
    throw nearest.found() ? UsageError(error.message() + didYouMean(*nearest.found())) : error;
}

void run(const Arguments& arguments) {
    const auto script = completionScript(arguments.shell, describeCommands());
    if (!script)
        failAsUnknown(toUtf16(arguments.shell));
    StandardOutput output;
    output.text(*script);
    output.flush();
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.required("SHELL", arguments->shell, "bash, zsh, fish or powershell", Takes::Shell);
    command.examples("source <(vexel completion bash)", "vexel completion fish | source");
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration
    kRegistration("completion", "Print what makes a shell complete this program's command lines", add);

} // namespace
} // namespace Vexel::Tool
