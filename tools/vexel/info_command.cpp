// `vexel info FILE [--json]`. The facts are gathered first and printed last, so that a failure in the middle
// prints nothing half.

#include "command.h"
#include "console.h"
#include "document_info.h"
#include "faults.h"
#include "sizes.h"
#include "text.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

namespace Vexel::Tool {
namespace {

struct Arguments {
    std::string file;
    bool json = false;
    bool bytes = false;
};

std::string percentOf(double ratio) {
    char percent[32];
    std::snprintf(percent, sizeof percent, "%.1f %%", ratio * 100);
    return percent;
}

// In columns, the first as wide as the largest has it.
std::string largestOf(const Contents& contents, bool exact) {
    std::string text;
    std::size_t width = 0;
    for (const auto& [path, size] : contents.largest)
        width = std::max(width, sizeText(size, exact).size());
    for (const auto& [path, size] : contents.largest) {
        const std::string bytes = sizeText(size, exact);
        const std::string share = percentOf(static_cast<double>(size) / static_cast<double>(contents.bytes));
        text += text.empty() ? "largest   " : "          ";
        text.append(width - bytes.size(), ' ').append(bytes);
        text.append(share.size() < 9 ? 9 - share.size() : 1, ' ').append(share);
        text.append("  ").append(path).append("\n");
    }
    return text;
}

std::string textOf(const Info& info, bool exact) {
    std::string text;
    const auto line = [&](const std::string& name, const std::string& value) {
        text += name + std::string(10 - name.size(), ' ') + value + "\n";
    };
    line("format", formatName(info.format));
    line("size", sizeText(sizeOf(info), exact));
    if (info.contents) {
        line("storages", std::to_string(info.contents->storages));
        line("streams", std::to_string(info.contents->streams));
        line("bytes", sizeText(info.contents->bytes, exact));
        if (info.contents->packed)
            line("packed", sizeText(*info.contents->packed, exact));
        if (const auto ratio = ratioOf(*info.contents))
            line("ratio", percentOf(*ratio));
        for (const auto& [name, value] : info.contents->summary)
            line(name, value);
    }
    line("created", toIso8601(info.file.ftCreationTime));
    line("modified", toIso8601(info.file.ftLastWriteTime));
    line("accessed", toIso8601(info.file.ftLastAccessTime));
    if (info.contents)
        text += largestOf(*info.contents, exact);
    return text;
}

template <class Value>
nlohmann::ordered_json orNull(const std::optional<Value>& value) {
    return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
}

nlohmann::ordered_json jsonOf(const Info& info) {
    nlohmann::ordered_json object;
    object["format"] = info.contents ? nlohmann::ordered_json(formatName(info.format)) : nullptr;
    object["size"] = sizeOf(info);
    const auto number = [&](auto Contents::*member) {
        return info.contents ? nlohmann::ordered_json((*info.contents).*member) : nullptr;
    };
    object["storages"] = number(&Contents::storages);
    object["streams"] = number(&Contents::streams);
    object["bytes"] = number(&Contents::bytes);
    object["packed"] = info.contents ? orNull(info.contents->packed) : nullptr;
    object["ratio"] = info.contents ? orNull(ratioOf(*info.contents)) : nullptr;
    object["largest"] = info.contents ? nlohmann::ordered_json::array() : nlohmann::ordered_json(nullptr);
    if (info.contents) {
        for (const auto& [path, size] : info.contents->largest)
            object["largest"].push_back({{"path", path}, {"size", size}});
        for (const auto& [name, value] : info.contents->summary)
            object["summary"][name] = value;
    }
    object["created"] = toIso8601(info.file.ftCreationTime);
    object["modified"] = toIso8601(info.file.ftLastWriteTime);
    object["accessed"] = toIso8601(info.file.ftLastAccessTime);
    return object;
}

void run(const Arguments& arguments) {
    Faults faults;
    const Info info = infoOf(toUtf16(arguments.file), faults.handler());
    StandardOutput output;
    output.text(arguments.json ? jsonOf(info).dump(2) + "\n" : textOf(info, arguments.bytes));
    output.flush();
    faults.finish();
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.file(arguments->file);
    command.flag("--bytes", arguments->bytes, "Print sizes to the byte");
    command.flag("--json", arguments->json, "Print one object with the same figures");
    command.examples("vexel info hall.7z", "vexel info --json hall.7z");
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration
    kRegistration("info", "Say what a file is: format, nodes, bytes, what is largest, title, times", add);

} // namespace
} // namespace Vexel::Tool
