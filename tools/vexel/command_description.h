#pragma once

#include <string>
#include <vector>

namespace Vexel::Tool {

/// What an argument or the value of an option is, as far as a shell can help with it.
enum class Takes { File, Directory, Node, Shell, Command };

/// What a command takes on the command line, for whoever writes about it.
struct CommandDescription {
    struct Argument {
        std::string name;
        Takes takes;
        bool isMany; ///< this one and all further ones
    };
    struct Option {
        std::vector<std::string> names; ///< with their dashes
        std::string help;
        bool hasValue;                    ///< one of the choices, or a file where there are none
        std::vector<std::string> choices; ///< words
    };
    std::string name;
    std::string help;
    std::vector<Argument> arguments;
    std::vector<Option> options;
    bool isHidden = false; ///< for programs, not for people
};

} // namespace Vexel::Tool
