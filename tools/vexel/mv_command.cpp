#include "command.h"
#include "document.h"
#include "node_selection.h"
#include "stopping.h"
#include "text.h"

#include <algorithm>
#include <memory>

namespace Vexel::Tool {
namespace {

struct Arguments {
    std::string file;
    std::string node;
    std::string newNode;
};

// A node's place: the storages on the way to it, all open for writing, and its name in the last of them.
struct Place {
    Place(const Document& document, NodePath node, bool create)
        : path(std::move(node)), storages(document.openForWriting(path.parent(), create)) {}

    StorageRef& parent() { return storages.back(); }
    const wchar_t* name() const { return path.name().c_str(); }

    NodePath path;
    std::vector<StorageRef> storages;
};

bool isInside(const NodePath& path, const NodePath& storage) {
    return path.elements().size() >= storage.elements().size() &&
           path.first(storage.elements().size()).elements() == storage.elements();
}

HRESULT copyStorage(const Document& document, Place& from, Place& to) {
    StorageRef source;
    StorageRef target;
    HRESULT status = source.open(from.name(), from.parent(), true);
    if (status == S_OK)
        status = target.create(to.name(), to.parent(), false);
    if (status != S_OK)
        return status;
    document.copy(source, from.path, target, document.label(to.path));
    return target.commit();
}

HRESULT copyStream(Place& from, Place& to) {
    StreamRef source;
    StreamRef target;
    HRESULT status = source.open(from.path.name().c_str(), from.parent(), true);
    if (status == S_OK)
        status = target.create(to.path.name().c_str(), to.parent());
    if (status == S_OK)
        status = source.copyTo(target);
    if (status != S_OK)
        return status;
    return target.size() == source.size() ? target.commit() : STG_E_READFAULT;
}

// Packages move. The system's storage only renames within a storage, and where it leaves the name's length as
// it was (seen with Wine 8), nobody else finds the node again.
HRESULT moveNode(const Document& document, Place& from, Place& to, StorageType type) {
    if (from.parent().format() == StorageFormat::Package) {
        IStorage* const source = from.parent().storage();
        IStorage* const target = to.parent().storage();
        return source && target ? source->MoveElementTo(from.name(), target, to.name(), STGMOVE_MOVE)
                                : STG_E_INVALIDHANDLE;
    }
    const HRESULT status =
        type == StorageType::Storage ? copyStorage(document, from, to) : copyStream(from, to);
    return status == S_OK ? from.parent().destroy(from.path.name().c_str()) : status;
}

void run(const Arguments& arguments) {
    const std::wstring file = toUtf16(arguments.file);
    const NodePath node = NodePath::parse(toUtf16(arguments.node));
    const NodePath newNode = NodePath::parse(toUtf16(arguments.newNode));
    if (node.isRoot() || newNode.isRoot())
        throw UsageError(L"the root cannot be moved or replaced in", file);
    if (isInside(newNode, node))
        throw UsageError(L"a node cannot be moved into itself:", newNode.text());
    const Document document(file, RootStorageOpenMode::ReadWrite);
    checkNewNode(document, newNode, arguments.newNode);
    Place from(document, node, false);
    const auto type = Document::typeOf(from.parent(), node.name());
    if (!type)
        document.failAsMissing(L"cannot move", node);
    Place to(document, newNode, true);
    if (Document::typeOf(to.parent(), newNode.name()))
        throw Failure(L"cannot move to", document.label(newNode), STG_E_FILEALREADYEXISTS);
    checkStop();
    check(moveNode(document, from, to, *type), L"cannot move", document.label(node));
    checkStop();
    // Where the ways to both places are one, it is committed when what lies below is.
    const auto ways =
        std::mismatch(from.storages.begin(), from.storages.end(), to.storages.begin(), to.storages.end());
    document.commit(to.storages, newNode.parent(),
                    static_cast<std::size_t>(ways.second - to.storages.begin()));
    document.commit(from.storages, node.parent());
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.file(arguments->file);
    command.node(arguments->node);
    command.required("NEWNODE", arguments->newNode, "The node's new path; nothing may stand there",
                     Takes::Node);
    command.examples("vexel mv hall.7z Views/Top Views/Above", "vexel mv hall.7z Preview History/Preview");
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration
    kRegistration("mv", "Give a node another path, creating the storages above that where they are missing",
                  add);

} // namespace
} // namespace Vexel::Tool
