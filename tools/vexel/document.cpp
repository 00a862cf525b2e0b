// Walking a document without recursion, since its depth comes from the file, and with an end for every
// damage: a level limit, and no more nodes than the file can hold.

#include "document.h"

#include "console.h"
#include "progress.h"
#include "stopping.h"

#include <algorithm>
#include <limits>

namespace Vexel::Tool {
namespace {

// Deep enough for any real document; each level holds an open storage, and the storage service nests its
// calls.
constexpr std::size_t kMaximumDepth = 256;

struct Child {
    SharedPathName name;
    StorageType type;
    unsigned long long size;
    FILETIME created;
    FILETIME modified;
};

// One level of a walk.
struct Level {
    StorageRef storage;
    NodePath path;
    std::vector<Child> children;
    std::size_t next = 0;
};

// In a compound file each node takes a directory entry of 128 bytes. The paths of a package cannot form a
// circle, and its directory may be packed, so its size says nothing.
unsigned long long maximumNodes(const std::wstring& file, StorageFormat format) {
    constexpr unsigned long long kDirectoryEntrySize = 128;
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (format != StorageFormat::CompoundFile ||
        !GetFileAttributesExW(file.c_str(), GetFileExInfoStandard, &data))
        return std::numeric_limits<unsigned long long>::max();
    return ((static_cast<unsigned long long>(data.nFileSizeHigh) << 32) | data.nFileSizeLow) /
           kDirectoryEntrySize;
}

// Takes the children it finds off `nodesLeft`.
std::vector<Child> childrenOf(const StorageRef& storage, unsigned long long& nodesLeft,
                              const std::wstring& label) {
    StorageEnumerator enumerator;
    check(enumerator.reset(storage), L"cannot list", label);
    std::vector<Child> children;
    for (; enumerator.moveNext(); --nodesLeft) {
        if (nodesLeft == 0)
            throw Failure(L"more nodes than the file can hold in", label, STG_E_DOCFILECORRUPT);
        children.push_back({enumerator.name(), enumerator.type(), enumerator.size().QuadPart,
                            enumerator.createTime(), enumerator.writeTime()});
    }
    if (enumerator.status() != S_FALSE) // the end
        throw Failure(L"cannot list all of", label, enumerator.status());
    return children;
}

Node nodeOf(const Level& level, std::size_t depth) {
    const Child& child = level.children[level.next];
    Node node;
    node.path = level.path.child(child.name.asStringView());
    node.depth = depth;
    node.type = child.type;
    node.size = child.type == StorageType::Stream ? child.size : 0;
    node.created = child.created;
    node.modified = child.modified;
    node.last = level.next + 1 == level.children.size();
    node.parent = &level.storage;
    return node;
}

// The name as StorageRef::hasChild takes it. Of some texts ("C:x", "\foo") a SharedPathName makes a path;
// only a listing has them as they are. Null when the storage has no such element.
SharedPathName elementName(const StorageRef& parent, const std::wstring& name) {
    SharedPathName made(name.c_str(), true, false);
    if (made.asStringView() == name)
        return made;
    StorageEnumerator enumerator;
    if (FAILED(enumerator.reset(parent)))
        return {};
    while (enumerator.moveNext()) {
        if (enumerator.name().asStringView() == name)
            return enumerator.name();
    }
    return {};
}

} // namespace

Document::Document(const std::wstring& file, RootStorageOpenMode mode) : file_(file) {
    check(root_.open(SharedPathName(file.c_str(), true, false), mode, false), L"cannot open", file_);
}

std::wstring Document::label(const NodePath& path) const {
    return path.isRoot() ? file_ : file_ + L"|" + path.text();
}

std::optional<StorageType> Document::typeOf(const StorageRef& parent, const std::wstring& name) {
    const SharedPathName element = elementName(parent, name);
    for (const StorageType type : {StorageType::Storage, StorageType::Stream}) {
        if (parent.hasChild(element, type))
            return type;
    }
    return std::nullopt;
}

std::optional<StorageType> Document::typeOf(const NodePath& path) const {
    return path.isRoot() ? StorageType::Storage : typeOf(openStorage(path.parent()), path.name());
}

StorageRef Document::openStorage(const NodePath& path) const {
    StorageRef storage = root_;
    for (std::size_t i = 0; i < path.elements().size(); ++i) {
        StorageRef child;
        const std::wstring& name = path.elements()[i];
        const HRESULT status = child.open(name.c_str(), storage, true);
        if (FAILED(status) && typeOf(storage, name) == StorageType::Stream)
            throw Failure(L"this is a stream, not a storage:", label(path.first(i + 1)),
                          STG_E_INVALIDFUNCTION);
        check(status, L"cannot open", label(path.first(i + 1)));
        storage = std::move(child);
    }
    return storage;
}

// All storages on the way are returned, since each has to be held until it is committed: closing one would
// lose its changes.
std::vector<StorageRef> Document::openForWriting(const NodePath& path, bool create) const {
    std::vector<StorageRef> storages{root_};
    for (std::size_t i = 0; i < path.elements().size(); ++i) {
        const std::wstring& name = path.elements()[i];
        const std::wstring where = label(path.first(i + 1));
        const auto type = typeOf(storages.back(), name);
        if (type == StorageType::Stream)
            throw Failure(L"this is a stream, not a storage:", where, STG_E_INVALIDFUNCTION);
        StorageRef child;
        if (create && !type)
            check(child.create(name.c_str(), storages.back(), false), L"cannot create", where);
        else
            check(child.open(name.c_str(), storages.back(), false), L"cannot open", where);
        storages.push_back(std::move(child));
    }
    return storages;
}

StreamRef Document::openStream(const NodePath& path) const {
    if (path.isRoot())
        throw Failure(L"this is a storage, not a stream:", file_, STG_E_INVALIDFUNCTION);
    return openStream(path, openStorage(path.parent()));
}

StreamRef Document::openStream(const NodePath& path, const StorageRef& parent) const {
    StreamRef stream;
    const HRESULT status = stream.open(path.name().c_str(), parent, true);
    if (FAILED(status) && typeOf(parent, path.name()) == StorageType::Storage)
        throw Failure(L"this is a storage, not a stream:", label(path), STG_E_INVALIDFUNCTION);
    checkUnpacking(status, L"cannot open", path);
    return stream;
}

// The library's status for a node that shares its block with others is a general one. Here it is given the
// words, and the status by which `verify` tells it from damage.
void Document::checkUnpacking(HRESULT status, std::wstring_view what, const NodePath& path) const {
    if (status == STG_E_INVALIDFUNCTION && root_.format() == StorageFormat::Package)
        throw Failure(L"packed in one block with other nodes:", label(path), E_NOTIMPL);
    check(status, what, label(path));
}

// Asks for no more than the size tells, and for all of it: damaged streams end early without an error.
void Document::read(StreamRef& stream, const NodePath& path,
                    const std::function<void(std::span<const std::byte>)>& sink) const {
    std::vector<std::byte> buffer(kChunkSize);
    unsigned long long remaining = stream.size();
    while (remaining > 0) {
        checkStop();
        const auto count =
            static_cast<unsigned long>(std::min(remaining, static_cast<unsigned long long>(buffer.size())));
        unsigned long done = 0;
        check(stream.read(buffer.data(), count, &done), L"cannot read", label(path));
        if (done != count)
            throw Failure(L"damaged contents:", label(path), STG_E_READFAULT);
        sink(std::span(buffer).first(done));
        progress().add(done);
        remaining -= done;
    }
}

void Document::walk(const NodePath& start, const Visitor& visitor, const FaultHandler& onFault) const {
    unsigned long long nodesLeft = maximumNodes(file_, root_.format());
    unsigned long long bytes = 0; // of streams that the visitor may have read since the last clean-up
    std::vector<Level> levels;
    const auto enter = [&](StorageRef storage, NodePath path) {
        const std::wstring where = label(path);
        if (levels.size() >= kMaximumDepth)
            throw Failure(L"storages are nested too deep at", where, STG_E_DOCFILECORRUPT);
        std::vector<Child> children = childrenOf(storage, nodesLeft, where);
        levels.push_back({std::move(storage), std::move(path), std::move(children)});
    };
    const auto open = [&](const Level& level, const SharedPathName& name, const NodePath& path) {
        StorageRef storage;
        check(storage.open(name, level.storage, true), L"cannot open", label(path));
        enter(std::move(storage), path);
    };
    enter(openStorage(start), start);
    while (!levels.empty()) {
        Level& level = levels.back();
        if (level.next == level.children.size()) {
            levels.pop_back();
            continue;
        }
        checkStop();
        const Node node = nodeOf(level, levels.size() - 1);
        const SharedPathName name = level.children[level.next++].name;
        bytes += node.size;
        try {
            visitor(node);
            if (node.type == StorageType::Storage)
                open(level, name, node.path);
        } catch (const Failure& failure) {
            if (!onFault)
                throw;
            onFault(failure);
        }
        // A package keeps the contents that were read until it is told to let them go.
        if (bytes > kLargestInMemory) {
            StorageRef(root_).deleteUnusedObjects();
            bytes = 0;
        }
    }
}

// From the inside to the outside, as compound files want it: there only the root's commit brings anything
// into the file.
void Document::commit(const std::vector<StorageRef>& storages, const NodePath& innermost,
                      std::size_t outer) const {
    progress().begin(L"writing");
    for (std::size_t i = storages.size(); i-- > outer;)
        check(storages[i].commit(), L"cannot commit", label(innermost.first(i)));
}

} // namespace Vexel::Tool
