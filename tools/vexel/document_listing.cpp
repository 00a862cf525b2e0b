#include "document_listing.h"

#include <unordered_map>
#include <utility>

namespace Vexel::Tool {
namespace {

// What has the place of a storage's class and not its size is a stream like others.
bool isClass(const Document& document, const Node& node) {
    return node.type == StorageType::Stream && node.size == sizeof(CLSID) && document.isClass(node.path);
}

// A storage whose class cannot be read says that it has none.
bool isReadable(const Document& document, const Node& node, const Document::FaultHandler& onFault) {
    try {
        document.openStream(node.path, *node.parent);
        return true;
    } catch (const Failure& failure) {
        onFault(failure, node.path);
        return false;
    }
}

} // namespace

CLSID classOf(const StorageRef& storage, const std::wstring& label) {
    IStorage* const open = storage.storage();
    STATSTG info{};
    check(open ? open->Stat(&info, STATFLAG_NONAME) : E_FAIL, L"cannot read the class of", label);
    return info.clsid;
}

TreeListing listDocument(const Document& document, const Document::FaultHandler& onFault) {
    TreeListing listing(1);
    listing[0].type = StorageType::Storage;
    std::vector<std::size_t> storages; // those that the walk is in
    std::size_t met = 0;               // the last node's index
    document.walk(
        {},
        [&](const Node& node) {
            storages.resize(node.depth + 1);
            if (isClass(document, node)) {
                TreeEntry& storage = listing[storages.back()];
                storage.isClassKnown = storage.classId != CLSID{} || isReadable(document, node, onFault);
                return;
            }
            met = listing.size();
            listing.push_back({.path = node.path.text(),
                               .type = node.type,
                               .parent = storages.back(),
                               .size = node.size,
                               .classId = {},
                               .contents = {}});
        },
        {},
        [&](const NodePath& path, const StorageRef& storage) {
            listing[met].classId = classOf(storage, document.label(path));
            storages.push_back(met);
        });
    return listing;
}

void readWanted(const Document& document, TreeListing& listing, const Document::FaultHandler& onFault) {
    std::unordered_map<std::wstring_view, TreeEntry*> wanted;
    for (TreeEntry& entry : listing) {
        if (entry.isWanted)
            wanted.emplace(entry.path, &entry);
    }
    if (wanted.empty())
        return;
    document.walk(
        {},
        [&](const Node& node) {
            const auto found = wanted.find(node.path.text());
            if (found == wanted.end() || node.type != StorageType::Stream)
                return;
            StreamRef stream = document.openStream(node.path, *node.parent);
            Fingerprint print;
            document.read(stream, node.path, [&print](std::span<const std::byte> data) { print.add(data); });
            found->second->contents = print;
        },
        onFault);
}

unsigned long long wantedBytes(const TreeListing& listing) {
    unsigned long long bytes = 0;
    for (const TreeEntry& entry : listing)
        bytes += entry.isWanted ? entry.size : 0;
    return bytes;
}

} // namespace Vexel::Tool
