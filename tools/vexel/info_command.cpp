// `vexel info FILE [--json]`. The facts are gathered first and printed last, so that a failure in the middle
// prints nothing half.

#include "base/handles.h"
#include "command.h"
#include "console.h"
#include "document.h"
#include "package_size.h"
#include "text.h"

#include <vexel/properties.h>

#include <nlohmann/json.hpp>

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Vexel::Tool {
namespace {

struct Arguments {
    std::string file;
    bool json = false;
};

// A document's title and the like, by the names that the output gives them.
using Summary = std::vector<std::pair<const char*, std::string>>;

struct Contents {
    unsigned long long storages = 0;
    unsigned long long streams = 0;
    unsigned long long bytes = 0;
    std::optional<unsigned long long> packed; // of packages
    Summary summary;
};

struct Info {
    StorageFormat format = StorageFormat::None;
    BY_HANDLE_FILE_INFORMATION file{};
    std::optional<Contents> contents; // of documents
};

Summary summaryOf(const StorageRef& root) {
    static constexpr std::pair<PROPID, const char*> kFields[] = {
        {PIDSI_TITLE, "title"},     {PIDSI_SUBJECT, "subject"},   {PIDSI_AUTHOR, "author"},
        {PIDSI_COMMENTS, "remark"}, {PIDSI_LASTAUTHOR, "editor"}, {PIDSI_LASTSAVE_DTM, "saved"},
        {PIDSI_APPNAME, "program"},
    };
    Summary summary;
    Properties properties;
    if (FAILED(ReadProperties(root, FMTID_SummaryInformation, properties)))
        return summary; // most documents have none
    for (const auto& [id, name] : kFields) {
        const PropertyVariant& value = properties[id];
        if (const auto text = value.asString(); text && !text->IsEmpty())
            summary.emplace_back(name, toUtf8(onOneLine(text->GetString())));
        else if (const auto time = value.asTime())
            summary.emplace_back(name, toIso8601(*time));
    }
    return summary;
}

Contents contentsOf(const std::wstring& file) {
    const Document document(file, RootStorageOpenMode::ReadOnlyDenyWrite);
    Contents contents;
    contents.summary = summaryOf(document.root());
    document.walk({}, [&](const Node& node) {
        ++(node.type == StorageType::Storage ? contents.storages : contents.streams);
        contents.bytes += node.size;
    });
    return contents;
}

Info infoOf(const std::wstring& file) {
    constexpr DWORD kAnyAccess = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    const Detail::FileHandle handle(CreateFileW(file.c_str(), GENERIC_READ, kAnyAccess, nullptr,
                                                OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    Info info;
    if (!handle || !GetFileInformationByHandle(handle.get(), &info.file))
        throw Failure(L"cannot open", file, lastErrorStatus());
    info.format = StorageRef::getFormat(file.c_str()).value_or(StorageFormat::None);
    if (info.format == StorageFormat::None)
        return info;
    info.contents = contentsOf(file);
    if (info.format == StorageFormat::Package)
        info.contents->packed = packedSizeOf(handle.get(), file);
    return info;
}

const char* formatName(StorageFormat format) {
    switch (format) {
    case StorageFormat::CompoundFile:
        return "compound file";
    case StorageFormat::Package:
        return "package";
    case StorageFormat::None:
        break;
    }
    return "neither compound file nor package";
}

// Packed bytes for each byte of the contents.
std::optional<double> ratioOf(const Contents& contents) {
    if (!contents.packed || contents.bytes == 0)
        return std::nullopt;
    return static_cast<double>(*contents.packed) / static_cast<double>(contents.bytes);
}

unsigned long long sizeOf(const Info& info) {
    return (static_cast<unsigned long long>(info.file.nFileSizeHigh) << 32) | info.file.nFileSizeLow;
}

std::string textOf(const Info& info) {
    std::string text;
    const auto line = [&](const std::string& name, const std::string& value) {
        text += name + std::string(10 - name.size(), ' ') + value + "\n";
    };
    line("format", formatName(info.format));
    line("size", std::to_string(sizeOf(info)));
    if (info.contents) {
        line("storages", std::to_string(info.contents->storages));
        line("streams", std::to_string(info.contents->streams));
        line("bytes", std::to_string(info.contents->bytes));
        if (info.contents->packed)
            line("packed", std::to_string(*info.contents->packed));
        if (const auto ratio = ratioOf(*info.contents)) {
            char percent[32];
            std::snprintf(percent, sizeof percent, "%.1f %%", *ratio * 100);
            line("ratio", percent);
        }
        for (const auto& [name, value] : info.contents->summary)
            line(name, value);
    }
    line("created", toIso8601(info.file.ftCreationTime));
    line("modified", toIso8601(info.file.ftLastWriteTime));
    line("accessed", toIso8601(info.file.ftLastAccessTime));
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
    if (info.contents)
        for (const auto& [name, value] : info.contents->summary)
            object["summary"][name] = value;
    object["created"] = toIso8601(info.file.ftCreationTime);
    object["modified"] = toIso8601(info.file.ftLastWriteTime);
    object["accessed"] = toIso8601(info.file.ftLastAccessTime);
    return object;
}

void run(const Arguments& arguments) {
    const Info info = infoOf(toUtf16(arguments.file));
    StandardOutput output;
    output.text(arguments.json ? jsonOf(info).dump(2) + "\n" : textOf(info));
    output.flush();
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.file(arguments->file);
    command.flag("--json", arguments->json, "Print one object with the same figures");
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration
    kRegistration("info", "Say what a file is: format, number of nodes, bytes, packed bytes, times", add);

} // namespace
} // namespace Vexel::Tool
