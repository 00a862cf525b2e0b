#include "command.h"
#include "console.h"
#include "document.h"
#include "failure.h"
#include "source.h"
#include "text.h"

#include <memory>

namespace Vexel::Tool {
namespace {

struct Arguments {
    std::string file;
    std::string node;
    std::string source;
};

StreamRef openForWriting(const Document& document, const NodePath& path, const StorageRef& parent) {
    const auto type = Document::typeOf(parent, path.name());
    // Creating would replace the storage and all that is in it.
    if (type == StorageType::Storage)
        throw Failure(L"this is a storage, not a stream:", document.label(path), STG_E_FILEALREADYEXISTS);
    StreamRef stream;
    if (type)
        check(stream.open(elementName(path.name()), parent, false), L"cannot open", document.label(path));
    else
        check(stream.create(elementName(path.name()), parent), L"cannot create", document.label(path));
    return stream;
}

void write(StreamRef& stream, std::span<const std::byte> data, const std::wstring& label) {
    unsigned long done = 0;
    check(stream.write(data.data(), static_cast<unsigned long>(data.size()), &done), L"cannot write", label);
    if (done != data.size())
        throw Failure(L"cannot write", label, STG_E_MEDIUMFULL);
}

void run(const Arguments& arguments) {
    const NodePath path = NodePath::parse(toUtf16(arguments.node));
    if (path.isRoot())
        throw UsageError(L"the root is not a stream:", toUtf16(arguments.file));
    Source source = arguments.source.empty() ? Source() : Source(toUtf16(arguments.source));
    const Document document(toUtf16(arguments.file), RootStorageOpenMode::ReadWrite);
    const std::vector<StorageRef> storages = document.openForWriting(path.parent(), true);
    StreamRef stream = openForWriting(document, path, storages.back());
    std::vector<std::byte> buffer(kChunkSize);
    while (const std::size_t count = source.read(buffer))
        write(stream, std::span(buffer).first(count), document.label(path));
    // Up to the last of these nothing is in the file, so that whatever fails before leaves it as it was.
    check(stream.commit(), L"cannot commit", document.label(path));
    document.commit(storages, path.parent());
}

void add(CLI::App& program) {
    const auto arguments = std::make_shared<Arguments>();
    CLI::App* command = program.add_subcommand(
        "put", "Write a stream whole, creating it and its parents where they are missing");
    addFile(*command, arguments->file);
    addNode(*command, arguments->node)->required();
    command->add_option("SOURCE", arguments->source, "The file with the contents; standard input without it");
    command->callback([arguments] { run(*arguments); });
}

const CommandRegistration registration(add);

} // namespace
} // namespace Vexel::Tool
