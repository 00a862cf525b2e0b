#pragma once

#include "fingerprint.h"

#include <vexel/storage.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Vexel::Tool {

/// A node of a document, as far as it is compared.
struct TreeEntry {
    std::wstring path; ///< as NodePath::text
    StorageType type = StorageType::Stream;
    std::size_t parent = 0;              ///< index of the storage that holds it; the root's own
    unsigned long long size = 0;         ///< in bytes; 0 for a storage
    CLSID classId{};                     ///< of a storage
    std::optional<Fingerprint> contents; ///< of a stream, once they were read
    bool isClassKnown = true;            ///< false: what tells the class cannot be read
    bool isWanted = false;               ///< the comparison depends on the contents

    bool isStorage() const noexcept { return type == StorageType::Storage; }
    std::wstring_view name() const noexcept {
        const std::wstring_view all = path;
        return all.substr(all.rfind(L'/') + 1);
    }
};

/// All nodes of a document, the root first and each storage before what is in it.
using TreeListing = std::vector<TreeEntry>;

struct Difference {
    enum class Kind { Removed, Added, Changed, Moved };
    /// What a change is in: the kind of the node, a storage's class, or a stream's contents.
    enum class What { None, Type, Class, Contents };

    Kind kind;
    What what = What::None;
    StorageType type;
    std::wstring path;             ///< in the second document; of what was removed, in the first
    std::wstring from;             ///< of what was moved: its path in the first document
    unsigned long long before = 0; ///< size in the first document, of streams
    unsigned long long after = 0;  ///< size in the second one
    std::size_t nodes = 1;         ///< of a moved storage: itself and all that is in it
};

/// Marks, in both, the streams whose contents decide something: those of one path and size in both documents,
/// and those that are in one document only, but have the size of one that is in the other only. Empty
/// contents are filled in.
void markWanted(TreeListing& first, TreeListing& second);

struct ComparisonResult {
    std::vector<Difference> differences; ///< by path
    std::size_t same = 0;                ///< nodes that are alike in both, the roots not counted
};

/// Tells two documents from each other. A node that is in the first document only, and whose contents, with
/// all that is in it, are those of a node that is in the second only, was moved; of what is empty, the name
/// must be the same, too. Contents and classes that could not be read make no difference, but are not the
/// same either.
ComparisonResult compareTrees(const TreeListing& first, const TreeListing& second);

} // namespace Vexel::Tool
