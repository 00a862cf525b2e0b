#pragma once

#include <string>
#include <vector>

namespace Vexel::Tool {

/// What an argument or the value of an option is, as far as a shell can help with it.
enum class Takes { File, Directory, Node, Shell };

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
        bool hasValue; ///< a file
    };
    std::string name;
    std::string help;
    std::vector<Argument> arguments;
    std::vector<Option> options;
};

} // namespace Vexel::Tool
