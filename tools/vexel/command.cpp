#include "command.h"

namespace Vexel::Tool {

constinit const CommandRegistration* CommandRegistration::first_ = nullptr;

CommandRegistration::CommandRegistration(Add add) noexcept : add_(add), next_(first_) { first_ = this; }

void CommandRegistration::addAll(CLI::App& program) {
    for (const CommandRegistration* entry = first_; entry; entry = entry->next_)
        entry->add_(program);
}

void addFile(CLI::App& command, std::string& file) {
    command.add_option("FILE", file, "The document")->required();
}

CLI::Option* addNode(CLI::App& command, std::string& node) {
    return command.add_option("NODE", node,
                              "The node's path, its elements joined by \"/\" (%05SummaryInformation)");
}

} // namespace Vexel::Tool
