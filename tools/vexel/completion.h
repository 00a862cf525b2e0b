#pragma once

#include "command_description.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Vexel::Tool {

/// The shells that completion can be had for: "bash", "zsh", "fish", "powershell".
std::vector<std::string> completionShells();

/// The hidden command that the scripts call for the nodes of a document: FILE, and the beginning of a path.
inline constexpr const char* kNodesCommand = "complete-nodes";

/// The script by which a shell completes the program's commands, their options, and files and nodes where
/// such are due; nothing for a shell that is not known.
std::optional<std::string> completionScript(std::string_view shell,
                                            const std::vector<CommandDescription>& commands);

} // namespace Vexel::Tool
