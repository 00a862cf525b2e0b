// Each script is a frame with a table of what the commands take. Where an argument is a node, nothing is
// offered: that would need the document.

#include "completion.h"

#include <algorithm>
#include <array>

namespace Vexel::Tool {
namespace {

using Commands = std::vector<CommandDescription>;
using Maker = std::string (*)(const Commands&);

std::string joined(const std::vector<std::string>& words, const char* between) {
    std::string result;
    for (const std::string& word : words)
        result += (result.empty() ? "" : between) + word;
    return result;
}

/// Within single quotes, which `escaped` stands for.
std::string quoted(std::string_view text, std::string_view escaped) {
    std::string result = "'";
    for (const char c : text)
        result += c == '\'' ? std::string(escaped) : std::string(1, c);
    return result + "'";
}

std::vector<std::string> namesOf(const Commands& commands) {
    std::vector<std::string> names;
    std::transform(commands.begin(), commands.end(), std::back_inserter(names),
                   [](const CommandDescription& command) { return command.name; });
    return names;
}

std::vector<std::string> optionsOf(const CommandDescription& command, bool withValueOnly) {
    std::vector<std::string> names;
    for (const CommandDescription::Option& option : command.options) {
        if (option.hasValue || !withValueOnly)
            names.insert(names.end(), option.names.begin(), option.names.end());
    }
    return names;
}

// One letter for each argument; that of the last one stands for all further ones if it is a capital.
std::string kindsOf(const CommandDescription& command) {
    constexpr std::string_view kLetters = "fdns";
    std::string kinds;
    for (const CommandDescription::Argument& argument : command.arguments) {
        const char letter = kLetters[static_cast<std::size_t>(argument.takes)];
        kinds += argument.isMany ? static_cast<char>(letter - 'a' + 'A') : letter;
    }
    return kinds;
}

/// "case" branches by command, for the shells that have such.
std::string branches(const Commands& commands, bool (*isIn)(const CommandDescription&),
                     std::string (*body)(const CommandDescription&)) {
    std::string result;
    for (const CommandDescription& command : commands) {
        if (isIn(command))
            result += "    " + command.name + ") " + body(command) + " ;;\n";
    }
    return result;
}

std::string tables(const Commands& commands) {
    const auto all = [](const CommandDescription&) { return true; };
    return branches(commands, all, [](const CommandDescription& command) {
        return "options='" + joined(optionsOf(command, false), " ") + "' valued='" +
               joined(optionsOf(command, true), " ") + "' kinds='" + kindsOf(command) + "'";
    });
}

std::string bashScript(const Commands& commands) {
    return "# Completes vexel's command lines. In ~/.bashrc: source <(vexel completion bash)\n"
           "_vexel() {\n"
           "  local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]} command= position=0 "
           "options= "
           "valued= kinds= i kind\n"
           "  COMPREPLY=()\n"
           "  if ((COMP_CWORD == 1)); then\n"
           "    mapfile -t COMPREPLY < <(compgen -W '" +
           joined(namesOf(commands), " ") +
           " --help' -- \"$word\")\n"
           "    return\n"
           "  fi\n"
           "  command=${COMP_WORDS[1]}\n"
           "  case $command in\n" +
           tables(commands) +
           "  esac\n"
           "  for ((i = 2; i < COMP_CWORD; ++i)); do\n"
           "    if [[ \" $valued \" == *\" ${COMP_WORDS[i]} \"* ]]; then\n"
           "      ((++i))\n"
           "    elif [[ ${COMP_WORDS[i]} != -* ]]; then\n"
           "      ((++position))\n"
           "    fi\n"
           "  done\n"
           "  kind=${kinds:position:1}\n"
           "  [[ -n $kind || ${kinds: -1} != [A-Z] ]] || kind=${kinds: -1}\n"
           "  [[ \" $valued \" != *\" $previous \"* ]] || kind=f\n"
           "  if [[ $word == -* ]]; then\n"
           "    mapfile -t COMPREPLY < <(compgen -W \"$options\" -- \"$word\")\n"
           "    return\n"
           "  fi\n"
           "  case $kind in\n"
           "    [fF]) compopt -o filenames 2>/dev/null; mapfile -t COMPREPLY < <(compgen -f -- \"$word\") "
           ";;\n"
           "    d) compopt -o filenames 2>/dev/null; mapfile -t COMPREPLY < <(compgen -d -- \"$word\") ;;\n"
           "    s) mapfile -t COMPREPLY < <(compgen -W '" +
           joined(completionShells(), " ") +
           "' -- \"$word\") ;;\n"
           "  esac\n"
           "}\n"
           "complete -F _vexel vexel\n";
}

// What stands between brackets and between colons in what _arguments takes.
std::string zshText(std::string_view text) {
    std::string result;
    for (const char c : text) {
        if (c == ':' || c == '[' || c == ']' || c == '\\')
            result += '\\';
        result += c;
    }
    return result;
}

std::string zshAction(Takes takes) {
    switch (takes) {
    case Takes::File:
        return "_files";
    case Takes::Directory:
        return "_files -/";
    case Takes::Shell:
        return "(" + joined(completionShells(), " ") + ")";
    case Takes::Node:
        break;
    }
    return " ";
}

std::string zshArguments(const CommandDescription& command) {
    std::string result = "_arguments -S";
    for (const CommandDescription::Option& option : command.options) {
        for (const std::string& name : option.names)
            result += " " + quoted(name + "[" + zshText(option.help) + "]" +
                                       (option.hasValue ? ":file:_files" : ""),
                                   "'\\''");
    }
    for (const CommandDescription::Argument& argument : command.arguments)
        result +=
            " " +
            quoted((argument.isMany ? "*:" : ":") + argument.name + ":" + zshAction(argument.takes), "'\\''");
    return result;
}

std::string zshScript(const Commands& commands) {
    std::string names;
    for (const CommandDescription& command : commands)
        names += "    " + quoted(command.name + ":" + zshText(command.help), "'\\''") + "\n";
    return "#compdef vexel\n"
           "# Completes vexel's command lines. As a file _vexel in a directory of $fpath, or in ~/.zshrc "
           "after compinit:\n"
           "# source <(vexel completion zsh)\n"
           "_vexel() {\n"
           "  local -a commands\n"
           "  commands=(\n" +
           names +
           "  )\n"
           "  if ((CURRENT == 2)); then\n"
           "    _describe command commands\n"
           "    return\n"
           "  fi\n"
           "  local command=$words[2]\n"
           "  shift words\n"
           "  ((CURRENT--))\n"
           "  case $command in\n" +
           branches(
               commands, [](const CommandDescription&) { return true; }, zshArguments) +
           "  esac\n"
           "}\n"
           "if [[ $funcstack[1] = _vexel ]]; then\n"
           "  _vexel \"$@\"\n"
           "else\n"
           "  compdef _vexel vexel\n"
           "fi\n";
}

std::string fishOption(const std::string& name) {
    return name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
}

// In fish files are offered unless that is forbidden.
std::string fishScript(const Commands& commands) {
    constexpr std::string_view kQuote = "\\'";
    std::string script =
        "# Completes vexel's command lines. In ~/.config/fish/config.fish: vexel completion fish | source\n"
        "complete -c vexel -e\n"
        "complete -c vexel -n __fish_use_subcommand -f -l help -d 'Show the commands'\n";
    for (const CommandDescription& command : commands) {
        const std::string only = "complete -c vexel -n '__fish_seen_subcommand_from " + command.name + "'";
        script += "complete -c vexel -n __fish_use_subcommand -f -a " + command.name + " -d " +
                  quoted(command.help, kQuote) + "\n";
        for (const CommandDescription::Option& option : command.options) {
            script += only + (option.hasValue ? " -r -F" : "");
            for (const std::string& name : option.names)
                script += fishOption(name);
            script += " -d " + quoted(option.help, kQuote) + "\n";
        }
        const bool hasShell = !command.arguments.empty() && command.arguments[0].takes == Takes::Shell;
        if (hasShell)
            script += only + " -f -a '" + joined(completionShells(), " ") + "'\n";
    }
    return script;
}

std::string powershellScript(const Commands& commands) {
    constexpr std::string_view kQuote = "''";
    std::string table;
    for (const CommandDescription& command : commands) {
        table += "        " + quoted(command.name, kQuote) + " = @(" + quoted(command.help, kQuote) + ", @(";
        std::vector<std::string> options;
        for (const std::string& name : optionsOf(command, false))
            options.push_back(quoted(name, kQuote));
        table += joined(options, ", ") + "))\n";
    }
    std::vector<std::string> shells;
    for (const std::string& shell : completionShells())
        shells.push_back(quoted(shell, kQuote));
    return "# Completes vexel's command lines; files are PowerShell's own. In $PROFILE:\n"
           "# vexel completion powershell | Out-String | Invoke-Expression\n"
           "Register-ArgumentCompleter -Native -CommandName vexel -ScriptBlock {\n"
           "    param($word, $line, $position)\n"
           "    $commands = [ordered]@{\n" +
           table +
           "    }\n"
           "    $elements = @($line.CommandElements | ForEach-Object { $_.ToString() })\n"
           "    $isCommand = $elements.Count -lt 2 -or ($elements.Count -eq 2 -and $word)\n"
           "    if ($isCommand) {\n"
           "        $commands.Keys | Where-Object { $_ -like \"$word*\" } | ForEach-Object {\n"
           "            [System.Management.Automation.CompletionResult]::new($_, $_, 'ParameterValue', "
           "$commands[$_][0])\n"
           "        }\n"
           "    } elseif ($elements[1] -eq 'completion') {\n"
           "        @(" +
           joined(shells, ", ") +
           ") | Where-Object { $_ -like \"$word*\" }\n"
           "    } elseif ($word -like '-*' -and $commands.Contains($elements[1])) {\n"
           "        $commands[$elements[1]][1] | Where-Object { $_ -like \"$word*\" }\n"
           "    }\n"
           "}\n";
}

struct Shell {
    const char* name;
    Maker make;
};

constexpr Shell kShells[] = {
    {"bash", bashScript}, {"zsh", zshScript}, {"fish", fishScript}, {"powershell", powershellScript}};

} // namespace

std::vector<std::string> completionShells() {
    std::vector<std::string> names;
    for (const Shell& shell : kShells)
        names.emplace_back(shell.name);
    return names;
}

std::optional<std::string> completionScript(std::string_view shell, const Commands& commands) {
    const auto* const found = std::find_if(std::begin(kShells), std::end(kShells),
                                           [shell](const Shell& one) { return shell == one.name; });
    if (found == std::end(kShells))
        return std::nullopt;
    return found->make(commands);
}

} // namespace Vexel::Tool
