#include "conversion.h"

#include "console.h"
#include "document_listing.h"
#include "file_paths.h"
#include "progress.h"

#include <utility>
#include <vector>

namespace Vexel::Tool {
namespace {

unsigned long long totalSize(const Document& document) {
    unsigned long long size = 0;
    document.walk({}, [&size](const Node& node) { size += node.size; });
    return size;
}

void makePackage(const Document& source, const std::wstring& path, const std::wstring& label) {
    StorageRef root;
    check(root.create(SharedPathName(path.c_str(), true, false)), L"cannot create", label);
    // Without any change nothing would be saved, not even a package without nodes.
    check(StorageRef().create(L"-", root, false), L"cannot create", label);
    check(root.destroy(L"-"), L"cannot create", label);
    source.copy(source.root(), {}, root, label);
    check(root.commit(), L"cannot write", label);
}

/// Fails unless both documents have the same nodes, of the same class or with the same contents. They are
/// walked side by side: what is met in one is looked for in the storage of the other that the walk is in.
class Comparison {
public:
    Comparison(const Document& source, const Document& target, std::wstring label)
        : source_(source), target_(target), label_(std::move(label)) {}

    void run() {
        source_.walk(
            {}, [this](const Node& node) { compare(node); }, {},
            [this](const NodePath& path, const StorageRef& storage) { enter(path, storage); });
        if (nodes_ != 0)
            fail();
    }

private:
    // Packages keep a storage's class in a stream.
    static bool isClass(StorageType type, std::wstring_view name) {
        return type == StorageType::Stream && name == L".clsid";
    }

    void compare(const Node& node) {
        targets_.resize(node.depth + 1);
        nodes_ += !isClass(node.type, node.path.name());
        // One after the other: together, the contents of two packages would be in memory twice.
        if (node.type == StorageType::Stream &&
            read(source_, *node.parent, node) != read(target_, targets_.back(), node))
            fail();
    }

    void enter(const NodePath& path, const StorageRef& storage) {
        StorageRef target = target_.root();
        if (!path.isRoot())
            check(target.open(path.name().c_str(), targets_.back(), true), L"cannot open",
                  target_.label(path));
        if (classOf(storage, source_.label(path)) != classOf(target, label_))
            fail();
        StorageEnumerator child;
        for (check(child.reset(target), L"cannot list", target_.label(path)); child.moveNext();)
            nodes_ -= !isClass(child.type(), child.name().asStringView());
        if (child.status() != S_FALSE)
            throw Failure(L"cannot list all of", target_.label(path), child.status());
        targets_.push_back(std::move(target));
    }

    Fingerprint read(const Document& document, const StorageRef& parent, const Node& node) {
        StreamRef stream = document.openStream(node.path, parent);
        if (stream.size() != node.size)
            fail();
        Fingerprint found;
        document.read(stream, node.path, [&found](std::span<const std::byte> data) { found.add(data); });
        stream.close();
        inMemory_ += node.size;
        if (inMemory_ >= kLargestInMemory) {
            StorageRef(source_.root()).deleteUnusedObjects();
            StorageRef(target_.root()).deleteUnusedObjects();
            inMemory_ = 0;
        }
        return found;
    }

    [[noreturn]] void fail() const {
        throw Failure(L"what was written is not what was read:", label_, STG_E_WRITEFAULT);
    }

    const Document& source_;
    const Document& target_;
    std::wstring label_;
    std::vector<StorageRef> targets_; // those that the walk is in
    long long nodes_ = 0;             // met in the source, less those listed in the target
    unsigned long long inMemory_ = 0; // bytes
};

} // namespace

void convertDocument(const std::wstring& from, const std::wstring& to, bool force) {
    const std::wstring path = withoutLengthLimit(to);
    if (!force && GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES)
        throw Failure(L"cannot create", to, HRESULT_FROM_WIN32(ERROR_FILE_EXISTS));
    const Document source(from, RootStorageOpenMode::ReadOnlyDenyWrite);
    PartialFile partial(path.substr(0, path.rfind(L'\\') + 1), to);
    partial.close();
    const unsigned long long total = totalSize(source);
    progress().begin(L"converting", total);
    makePackage(source, partial.path(), to);
    StorageContainer::Instance().deleteUnusedObjects(); // the package's file is to be read, and renamed
    progress().begin(L"verifying", 2 * total);
    {
        const Document target(partial.path(), RootStorageOpenMode::ReadOnlyDenyWrite);
        Comparison(source, target, to).run();
    }
    StorageContainer::Instance().deleteUnusedObjects();
    partial.finish(path, force);
}

} // namespace Vexel::Tool
