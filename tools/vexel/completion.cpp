// Each script is a frame with a table of what the commands take. Where an argument is a node, the program
// itself is asked for those of the document; PowerShell's script, which no test runs, leaves that out.

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

// Those of any command, each once.
std::vector<std::string> valuedOptions(const Commands& commands) {
    std::vector<std::string> names;
    for (const CommandDescription& command : commands) {
        for (const std::string& name : optionsOf(command, true)) {
            if (std::find(names.begin(), names.end(), name) == names.end())
                names.push_back(name);
        }
    }
    return names;
}

// One letter for each argument; that of the last one stands for all further ones if it is a capital.
std::string kindsOf(const CommandDescription& command) {
    constexpr std::string_view kLetters = "fdnsc";
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

// The words that an option takes; files have no branch.
std::string bashChoices(const Commands& commands) {
    std::string result;
    for (const CommandDescription& command : commands) {
        for (const CommandDescription::Option& option : command.options) {
            if (!option.choices.empty())
                result += "    '" + command.name + " " + option.names.back() + "') choices='" +
                          joined(option.choices, " ") + "' ;;\n";
        }
    }
    return result;
}

// Nothing of what is typed is evaluated.
constexpr const char* kBashHelpers =
    R"bash(_vexel_plain() { # a word of the command line as the program gets it
  local text=$1
  case $text in
    \"*) text=${text#\"}; text=${text%\"} ;;
    \'*) text=${text#\'}; text=${text%\'} ;;
    *) text=${text//\\/} ;;
  esac
  [[ $text != '~/'* ]] || text=$HOME/${text#'~/'}
  printf '%s' "$text"
}
_vexel_nodes() { # those of a file that begin with a word
  local node
  while IFS= read -r node; do
    [[ $2 == [\"\']* ]] || printf -v node %q "$node"
    COMPREPLY+=("$node")
  done < <("$(_vexel_plain "${COMP_WORDS[0]}")" complete-nodes "$(_vexel_plain "$1")" "$(_vexel_plain "$2")" 2>/dev/null)
  [[ ${#COMPREPLY[@]} != 1 || ${COMPREPLY[0]} != */ ]] || compopt -o nospace 2>/dev/null
}
)bash";

std::string bashScript(const Commands& commands) {
    const std::string names = joined(namesOf(commands), " ");
    return "# Completes vexel's command lines. In ~/.bashrc: source <(vexel completion bash)\n" +
           std::string(kBashHelpers) +
           "_vexel() {\n"
           "  local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]} command= position=0 "
           "options= "
           "valued= kinds= choices= file= i kind\n"
           "  COMPREPLY=()\n"
           "  if ((COMP_CWORD == 1)); then\n"
           "    mapfile -t COMPREPLY < <(compgen -W '" +
           names +
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
           "      ((position++)) || file=${COMP_WORDS[i]}\n"
           "    fi\n"
           "  done\n"
           "  kind=${kinds:position:1}\n"
           "  [[ -n $kind || ${kinds: -1} != [A-Z] ]] || kind=${kinds: -1}\n"
           "  [[ \" $valued \" != *\" $previous \"* ]] || kind=f\n"
           "  case \"$command $previous\" in\n" +
           bashChoices(commands) +
           "  esac\n"
           "  if [[ -n $choices ]]; then\n"
           "    mapfile -t COMPREPLY < <(compgen -W \"$choices\" -- \"$word\")\n"
           "    return\n"
           "  fi\n"
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
           "    c) mapfile -t COMPREPLY < <(compgen -W '" +
           names +
           "' -- \"$word\") ;;\n"
           "    [nN]) _vexel_nodes \"$file\" \"$word\" ;;\n"
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
    case Takes::Command:
        return "_vexel_commands";
    case Takes::Node:
        break;
    }
    return "_vexel_nodes";
}

std::string zshValue(const CommandDescription::Option& option) {
    if (!option.hasValue)
        return "";
    return option.choices.empty() ? ":file:_files" : ":word:(" + joined(option.choices, " ") + ")";
}

std::string zshArguments(const CommandDescription& command) {
    std::string result = "_arguments -S";
    for (const CommandDescription::Option& option : command.options) {
        for (const std::string& name : option.names)
            result += " " + quoted(name + "[" + zshText(option.help) + "]" + zshValue(option), "'\\''");
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
           "_vexel_commands() {\n"
           "  local -a commands\n"
           "  commands=(\n" +
           names +
           "  )\n"
           "  _describe command commands\n"
           "}\n"
           "_vexel_nodes() { # of the first word that is no option\n"
           "  local -a nodes case\n"
           "  case=(-M 'm:{a-zA-Z}={A-Za-z}') # what the document does not tell apart is not offered "
           "otherwise\n"
           "  local file=\n"
           "  integer i\n"
           "  for ((i = 2; i < CURRENT; ++i)); do\n"
           "    if [[ $words[i] == (" +
           joined(valuedOptions(commands), "|") +
           ") ]]; then\n"
           "      ((++i))\n"
           "    elif [[ $words[i] != -* ]]; then\n"
           "      file=${(Q)words[i]}\n"
           "      break\n"
           "    fi\n"
           "  done\n"
           "  [[ $file != '~/'* ]] || file=$HOME/${file#'~/'}\n"
           "  nodes=(${(f)\"$($program complete-nodes $file ${(Q)PREFIX} 2>/dev/null)\"})\n"
           "  compadd $case -S '' -- ${(M)nodes:#*/}\n"
           "  compadd $case -- ${nodes:#*/}\n"
           "}\n"
           "_vexel() {\n"
           "  if ((CURRENT == 2)); then\n"
           "    _vexel_commands\n"
           "    return\n"
           "  fi\n"
           "  local program=${(Q)words[1]} command=$words[2]\n"
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

std::string fishKinds(const Commands& commands) {
    std::string result;
    for (const CommandDescription& command : commands)
        result += "    case " + command.name + "\n      set kinds '" + kindsOf(command) + "'\n";
    return result;
}

std::string fishOption(const std::string& name) {
    return name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
}

// In fish files are offered unless that is forbidden.
std::string fishScript(const Commands& commands) {
    constexpr std::string_view kQuote = "\\'";
    std::string script =
        "# Completes vexel's command lines. In ~/.config/fish/config.fish: vexel completion fish | source\n"
        "function __vexel_nodes --description 'Those of the document, where one is due'\n"
        "  set -l words (commandline -opc)\n"
        "  set -l word (commandline -ct)\n"
        "  set -l kinds\n"
        "  set -l file\n"
        "  set -l position 1\n"
        "  set -l is_value false\n"
        "  switch \"$words[2]\"\n" +
        fishKinds(commands) +
        "  end\n"
        "  for next in $words[3..-1]\n"
        "    if $is_value\n"
        "      set is_value false\n"
        "    else if contains -- $next " +
        joined(valuedOptions(commands), " ") +
        "\n"
        "      set is_value true\n"
        "    else if not string match -q -- '-*' $next\n"
        "      set -q file[1]; or set file $next\n"
        "      set position (math $position + 1)\n"
        "    end\n"
        "  end\n"
        "  set -l kind (string sub -s $position -l 1 -- \"$kinds\")\n"
        "  test -n \"$kind\"; or set kind (string match -r '[A-Z]$' -- \"$kinds\")\n"
        "  not $is_value; and test \"$kind\" = n -o \"$kind\" = N\n"
        "  and not string match -q -- '-*' \"$word\"; and $words[1] complete-nodes $file (string unescape -- "
        "$word) "
        "2>/dev/null\n"
        "end\n"
        "complete -c vexel -e\n"
        "complete -c vexel -n 'set -g __vexel_found (__vexel_nodes)' -f -a '$__vexel_found'\n"
        "complete -c vexel -n __fish_use_subcommand -f -l help -d 'Show the commands'\n";
    for (const CommandDescription& command : commands) {
        const std::string only = "complete -c vexel -n '__fish_seen_subcommand_from " + command.name + "'";
        script += "complete -c vexel -n __fish_use_subcommand -f -a " + command.name + " -d " +
                  quoted(command.help, kQuote) + "\n";
        for (const CommandDescription::Option& option : command.options) {
            script += only;
            if (option.hasValue)
                script += option.choices.empty() ? " -r -F" : " -x -a '" + joined(option.choices, " ") + "'";
            for (const std::string& name : option.names)
                script += fishOption(name);
            script += " -d " + quoted(option.help, kQuote) + "\n";
        }
        const Takes takes = command.arguments.empty() ? Takes::File : command.arguments[0].takes;
        if (takes == Takes::Shell)
            script += only + " -f -a '" + joined(completionShells(), " ") + "'\n";
        if (takes == Takes::Command)
            script += only + " -f -a '" + joined(namesOf(commands), " ") + "'\n";
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
           "    } elseif ($elements[1] -eq 'help') {\n"
           "        $commands.Keys | Where-Object { $_ -like \"$word*\" }\n"
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
