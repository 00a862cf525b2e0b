// `vexel put FILE NODE [SOURCE]`. Everything is written before anything is committed. In a package the
// archive is used directly, which keeps the time of the change; where that does not know the nodes as the
// handles do, the handles are used.

#include "command.h"
#include "document.h"
#include "failure.h"
#include "file_paths.h"
#include "node_selection.h"
#include "progress.h"
#include "source.h"
#include "stopping.h"
#include "text.h"

#include <vexel/archive.h>

#include <wrl/client.h>

#include <memory>
#include <optional>
#include <vector>

namespace Vexel::Tool {
namespace {

using Vexel::Storage::SZipArchive;

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
        check(stream.open(path.name().c_str(), parent, false), L"cannot open", document.label(path));
    else
        check(stream.create(path.name().c_str(), parent), L"cannot create", document.label(path));
    return stream;
}

// Into a node that the handles have opened for writing.
void putByHandles(const Document& document, const NodePath& path, Source& source) {
    const std::vector<StorageRef> storages = document.openForWriting(path.parent(), true);
    StreamRef stream = openForWriting(document, path, storages.back());
    IStream* const contents = stream.stream();
    if (!contents)
        throw Failure(L"cannot write", document.label(path), STG_E_INVALIDHANDLE);
    fill(*contents, source, document.label(path));
    // Up to here nothing is in the file, so that whatever fails before leaves it as it was.
    checkStop();
    check(stream.commit(), L"cannot commit", document.label(path));
    document.commit(storages, path.parent());
}

// The items on the way to a node, the node's included.
std::vector<CString> itemsOf(const NodePath& path) {
    std::vector<CString> items;
    for (const std::wstring& element : path.elements()) {
        const CString encoded = SZipArchive::encodePathElement(element);
        items.push_back(items.empty() ? encoded : items.back() + L"/" + encoded);
    }
    return items;
}

/// Puts a stream into a package's archive, which, unlike the handles, keeps the time. False with nothing done
/// where it does not have the nodes that the handles do (other programs' archives need not have items for
/// directories).
bool putIntoArchive(const std::wstring& file, const NodePath& path, const std::wstring& label,
                    std::size_t existing, Source& source) {
    SZipArchive archive(file, false, true);
    check(archive.reload(), L"cannot open", file);
    const std::vector<CString> items = itemsOf(path);
    for (std::size_t i = 0; i < items.size(); ++i) {
        if ((archive.item(items[i]) != nullptr) != (i < existing))
            return false;
    }
    for (std::size_t i = existing; i + 1 < items.size(); ++i) {
        check(archive.createDirectory(items[i], true, false), L"cannot create", label);
        archive.item(items[i])->touch();
    }
    Microsoft::WRL::ComPtr<IStream> stream;
    check(archive.createFile(&stream, items.back(), false, true), L"cannot create", label);
    fill(*stream.Get(), source, label);
    archive.item(items.back())->touch();
    checkStop();
    progress().begin(L"writing");
    check(archive.save(true), L"cannot write", file);
    return true;
}

// How many of the nodes on the way to a stream, itself included, are there. Fails where none can be put.
std::size_t countExisting(const Document& document, const NodePath& path) {
    const std::size_t last = path.elements().size();
    for (std::size_t i = 1; i <= last; ++i) {
        const auto type = document.typeOf(path.first(i));
        if (!type)
            return i - 1;
        if (i == last && type == StorageType::Storage)
            throw Failure(L"this is a storage, not a stream:", document.label(path), STG_E_FILEALREADYEXISTS);
        if (i < last && type == StorageType::Stream)
            throw Failure(L"this is a stream, not a storage:", document.label(path.first(i)),
                          STG_E_INVALIDFUNCTION);
    }
    return last;
}

// Whether the stream is there already; where that cannot be told, putting it tells why.
bool isThere(const Document& document, const NodePath& path) {
    try {
        return document.typeOf(path).has_value();
    } catch (const Failure&) {
        return false;
    }
}

void run(const Arguments& arguments) {
    const NodePath path = NodePath::parse(toUtf16(arguments.node));
    const std::wstring file = toUtf16(arguments.file);
    if (path.isRoot())
        throw UsageError(L"the root is not a stream:", file);
    if (!arguments.source.empty() && isSameFile(toUtf16(arguments.source), file))
        throw UsageError(L"the source is the document itself:", toUtf16(arguments.source));
    Source source = arguments.source.empty() ? Source() : Source(toUtf16(arguments.source));
    std::optional<Document> document(std::in_place, file, RootStorageOpenMode::ReadWrite);
    if (!isThere(*document, path))
        checkNewNode(*document, path, arguments.node);
    if (document->root().format() == StorageFormat::Package) {
        const std::size_t existing = countExisting(*document, path);
        const std::wstring label = document->label(path);
        document.reset();
        StorageContainer::Instance().deleteUnusedObjects(); // the file
        if (putIntoArchive(file, path, label, existing, source))
            return;
        document.emplace(file, RootStorageOpenMode::ReadWrite);
    }
    putByHandles(*document, path, source);
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.file(arguments->file);
    command.node(arguments->node);
    command.optional("SOURCE", arguments->source, "The file with the contents; standard input without it");
    command.examples("vexel put hall.7z Model/Settings settings", "date | vexel put hall.7z History/Stamp");
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration
    kRegistration("put", "Write a stream whole, creating it and its parents where they are missing", add);

} // namespace
} // namespace Vexel::Tool
