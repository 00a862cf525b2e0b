// Walking a document without recursion, since its depth comes from the file, and with an end for every
// damage: a level limit, and no more nodes than the file can hold.

#include "document.h"

#include "file_paths.h"
#include "nearest.h"
#include "node_pattern.h"
#include "progress.h"
#include "stopping.h"

#include <vexel/copying.h>

#include <algorithm>
#include <exception>
#include <limits>

namespace Vexel::Tool {
namespace {

// Deep enough for any real document; each level holds an open storage, and the storage service nests its
// calls.
constexpr std::size_t kMaximumDepth = 256;

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

// The name as the storage lists it; null where it does not.
SharedPathName listedName(const StorageRef& parent, const std::wstring& name) {
    StorageEnumerator enumerator;
    if (enumerator.reset(parent) != S_OK)
        return {};
    while (enumerator.moveNext()) {
        if (enumerator.name().asStringView() == name)
            return enumerator.name();
    }
    return {};
}

bool isListed(const StorageRef& parent, const std::wstring& name) {
    return listedName(parent, name).asStringView() == name;
}

// The name as StorageRef::hasChild takes it. Of some texts ("C:x", "\foo") a SharedPathName makes a path;
// only a listing has them as they are. Null when the storage has no such element.
SharedPathName elementName(const StorageRef& parent, const std::wstring& name) {
    SharedPathName made(name.c_str(), true, false);
    return made.asStringView() == name ? made : listedName(parent, name);
}

// For walks that only look for something: whoever reads tells of the faults.
const Document::FaultHandler kIgnoreFaults = [](const Failure&, const NodePath&) {};

// What goes on in a walk. Nothing may be thrown through it, so what ends it is kept.
class Walk : public TreeObserver {
public:
    Walk(const Document& document, const NodePath& start, unsigned long long nodesLeft,
         const Document::Visitor& visitor, const Document::FaultHandler& onFault,
         const Document::StorageVisitor& onStorage)
        : document_(document), start_(start), nodesLeft_(nodesLeft), visitor_(visitor), onFault_(onFault),
          onStorage_(onStorage) {}

    void run() {
        const HRESULT status = walkTree(document_.openStorage(start_), *this);
        if (end_)
            std::rethrow_exception(end_);
        if (!isTold_)
            check(status, L"cannot read", document_.label(start_));
    }

    bool onNode(const TreeNode& met) override {
        return !end_ && attempt(met.path, [&] {
            const std::size_t depth = met.path.size();
            const Node node{start_.below(met.path), depth - 1,  met.type,   met.size, met.created,
                            met.modified,           met.isLast, &met.parent};
            visitor_(node);
            if (node.type == StorageType::Storage && depth >= kMaximumDepth)
                throw Failure(L"storages are nested too deep at", document_.label(node.path),
                              STG_E_DOCFILECORRUPT);
        });
    }
    void onStorage(TreePath path, const StorageRef& storage) override {
        if (onStorage_)
            attempt(path, [&] { onStorage_(start_.below(path), storage); });
    }
    bool onProgress(unsigned long long /*bytes*/) override {
        if (end_)
            return false;
        if (stopIsWanted())
            end_ = std::make_exception_ptr(Stopped());
        else if (nodesLeft_-- == 0)
            end_ = std::make_exception_ptr(
                Failure(L"more nodes than the file can hold in", document_.label({}), STG_E_DOCFILECORRUPT));
        return !end_;
    }
    bool onFault(const TreeFault& fault) override {
        isTold_ = true;
        attempt(fault.path,
                [&] { document_.checkListed(fault.status, L"cannot read", start_.below(fault.path)); });
        return !end_;
    }

private:
    template <class Body>
    bool attempt(TreePath path, const Body& body) {
        try {
            try {
                body();
                return true;
            } catch (const Failure& failure) {
                if (!onFault_)
                    throw;
                onFault_(failure, start_.below(path));
            }
        } catch (...) {
            end_ = std::current_exception();
        }
        return false;
    }

    const Document& document_;
    const NodePath& start_;
    unsigned long long nodesLeft_;
    const Document::Visitor& visitor_;
    const Document::FaultHandler& onFault_;
    const Document::StorageVisitor& onStorage_;
    bool isTold_ = false; // of a fault
    std::exception_ptr end_;
};

// The first thing that fails ends the copy.
class Copy : public TreeObserver {
public:
    bool onProgress(unsigned long long bytes) override {
        progress().add(bytes);
        return !stopIsWanted();
    }
    bool onFault(const TreeFault& fault) override {
        path.assign(fault.path.begin(), fault.path.end());
        type = fault.type;
        isInTarget = fault.isInTarget;
        return false;
    }

    std::vector<SharedPathName> path; // of the fault
    StorageType type = StorageType::Storage;
    bool isInTarget = false;
};

} // namespace

Document::Document(const std::wstring& file, RootStorageOpenMode mode) : file_(file) {
    checkOpened(root_.open(SharedPathName(file.c_str(), true, false), mode, false), file_);
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

bool Document::isClass(const NodePath& path) const {
    return root_.format() == StorageFormat::Package && !path.isRoot() && path.name() == L".clsid";
}

bool Document::cannotRead(HRESULT status) const { return isNotReadable(status) || isLostName(status); }

// A package lists a node with a slash in its name under the part before it, and does not find it again.
bool Document::isLostName(HRESULT status) const {
    return status == STG_E_FILENOTFOUND && root_.format() == StorageFormat::Package;
}

void Document::checkListed(HRESULT status, std::wstring_view what, const NodePath& path) const {
    if (isLostName(status))
        throw Failure(what, label(path), status, L"its name goes on with a \"/\", so it cannot be opened");
    check(status, what, label(path));
}

unsigned long long Document::amountBelow(const NodePath& path) const {
    return amountIn(path, [](const Node&) { return true; });
}

unsigned long long Document::amountIn(const NodePath& path,
                                      const std::function<bool(const Node&)>& isWanted) const {
    unsigned long long bytes = 0;
    if (!Progress::isShown())
        return bytes;
    try {
        walk(
            path, [&](const Node& node) { bytes += isWanted(node) ? node.size : 0; }, kIgnoreFaults);
    } catch (const Failure&) {
        return bytes; // the command itself will meet it
    }
    return bytes;
}

StorageRef Document::openStorage(const NodePath& path) const {
    StorageRef storage = root_;
    for (std::size_t i = 0; i < path.elements().size(); ++i) {
        StorageRef child;
        const std::wstring& name = path.elements()[i];
        const HRESULT status = child.open(name.c_str(), storage, true);
        if (status != S_OK && typeOf(storage, name) == StorageType::Stream)
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
    try {
        return openStream(path, openStorage(path.parent()));
    } catch (const Failure& failure) {
        if (failure.status() != STG_E_FILENOTFOUND)
            throw;
        failWithNearest(failure, path);
    }
}

// Looking for it must not add failures of its own.
void Document::failWithNearest(const Failure& failure, const NodePath& path) const {
    Nearest nearest(path.text());
    if (NodePattern::hasWildcards(path.text()))
        throw Failure(L"cannot open", label(path), failure.status(),
                      L"there is no such node; one is wanted here, not a pattern");
    walk(
        {}, [&nearest](const Node& node) { nearest.offer(node.path.text()); }, kIgnoreFaults);
    if (nearest.found())
        throw Failure(failure, *nearest.found());
    throw Failure(failure);
}

void Document::failAsMissing(std::wstring_view what, const NodePath& path) const {
    failWithNearest(Failure(what, label(path), STG_E_FILENOTFOUND), path);
}

StreamRef Document::openStream(const NodePath& path, const StorageRef& parent) const {
    StreamRef stream;
    const HRESULT status = stream.open(path.name().c_str(), parent, true);
    if (status != S_OK && typeOf(parent, path.name()) == StorageType::Storage)
        throw Failure(L"this is a storage, not a stream:", label(path), STG_E_INVALIDFUNCTION);
    if (isLostName(status) && isListed(parent, path.name()))
        checkListed(status, L"cannot open", path);
    checkUnpacking(status, L"cannot open", path);
    return stream;
}

// The library's status for a node that shares its block with others is a general one. Here it is given the
// words, and the status by which `verify` tells it from damage.
void Document::checkUnpacking(HRESULT status, std::wstring_view what, const NodePath& path) const {
    if (status == STG_E_INVALIDFUNCTION && root_.format() == StorageFormat::Package)
        throw Failure(L"packed in one block with other nodes, which salvage takes apart:", label(path),
                      E_NOTIMPL);
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
        if (done > count)
            throw Failure(L"cannot read", label(path), STG_E_READFAULT);
        sink(std::span(buffer).first(done));
        if (done != count)
            throw Failure(L"damaged contents:", label(path), STG_E_READFAULT);
        progress().add(done);
        remaining -= done;
    }
}

void Document::walk(const NodePath& start, const Visitor& visitor, const FaultHandler& onFault,
                    const StorageVisitor& onStorage) const {
    Walk(*this, start, maximumNodes(file_, root_.format()), visitor, onFault, onStorage).run();
}

void Document::copy(const StorageRef& from, const NodePath& path, const StorageRef& to,
                    const std::wstring& target) const {
    Copy copy;
    const HRESULT status = copyTree(from, to, &copy);
    checkStop();
    const NodePath node = path.below(copy.path);
    if (copy.isInTarget)
        check(status, L"cannot write", target);
    else if (copy.type == StorageType::Stream)
        checkUnpacking(status, L"cannot copy", node);
    check(status, L"cannot copy", label(node));
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
