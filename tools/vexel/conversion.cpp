#include "conversion.h"

#include "document_listing.h"
#include "file_paths.h"
#include "progress.h"

namespace Vexel::Tool {
namespace {

[[noreturn]] void fail(const Failure& failure, const NodePath& /*node*/) { throw Failure(failure); }

unsigned long long bytesOf(const TreeListing& listing) {
    unsigned long long bytes = 0;
    for (const TreeEntry& entry : listing)
        bytes += entry.size;
    return bytes;
}

// Packages keep a storage's class in a stream of this name and size. Elsewhere it can be any stream; it would
// give the storage a class, and be no stream any more.
bool looksLikeClass(const Node& node) {
    return node.type == StorageType::Stream && node.size == sizeof(CLSID) && node.path.name() == L".clsid";
}

/// What is in the document. Fails for what a package cannot hold.
TreeListing listSource(const Document& source) {
    if (source.root().format() != StorageFormat::Package)
        source.walk({}, [&source](const Node& node) {
            if (looksLikeClass(node))
                throw Failure(L"cannot convert", source.label(node.path), STG_E_INVALIDNAME,
                              L"a package would take this stream for its storage's class");
        });
    return listDocument(source, fail);
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

/// Fails unless both documents have the same nodes, of the same class or with the same contents.
void compare(const Document& source, TreeListing& before, const Document& target, const std::wstring& label) {
    TreeListing after = listDocument(target, fail);
    markWanted(before, after);
    progress().begin(L"verifying", wantedBytes(before) + wantedBytes(after));
    readWanted(source, before, fail);
    readWanted(target, after, fail);
    const ComparisonResult result = compareTrees(before, after);
    const bool isSame =
        result.differences.empty() && result.same + 1 == before.size(); // the root is not counted
    if (!isSame)
        throw Failure(L"what was written is not what was read:",
                      result.differences.empty() ? label : label + L"|" + result.differences.front().path,
                      STG_E_WRITEFAULT);
}

} // namespace

void convertDocument(const std::wstring& from, const std::wstring& to, bool force) {
    const std::wstring path = withoutLengthLimit(to);
    if (isSameFile(path, from))
        throw UsageError(L"will not write over the document itself:", to);
    checkFree(path, to, force);
    const Document source(from, RootStorageOpenMode::ReadOnlyDenyWrite);
    TreeListing listing = listSource(source);
    PartialFile partial(path.substr(0, path.rfind(L'\\') + 1), to);
    partial.close();
    progress().begin(L"converting", bytesOf(listing));
    makePackage(source, partial.path(), to);
    StorageContainer::Instance().deleteUnusedObjects(); // the package's file is to be read, and renamed
    {
        const Document target(partial.path(), RootStorageOpenMode::ReadOnlyDenyWrite);
        compare(source, listing, target, to);
    }
    StorageContainer::Instance().deleteUnusedObjects();
    partial.finish(path, force);
}

} // namespace Vexel::Tool
