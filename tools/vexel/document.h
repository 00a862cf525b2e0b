#pragma once

#include "console.h"
#include "failure.h"
#include "node_path.h"

#include <vexel/storage.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Vexel::Tool {

/// A node met by `Document::walk`.
struct Node {
    NodePath path;
    std::size_t depth = 0; ///< 0 for the children of the storage where the walk began
    StorageType type = StorageType::Stream;
    unsigned long long size = 0; ///< in bytes; 0 for a storage
    FILETIME created{};
    FILETIME modified{};
    bool last = false;                  ///< no sibling follows
    const StorageRef* parent = nullptr; ///< valid during the call
};

/// How a node's name looks.
inline Style styleOf(StorageType type) {
    return type == StorageType::Storage ? Style::Storage : Style::Plain;
}

/// An open document. Every member throws Failure that names the file and the node.
class Document {
public:
    using Visitor = std::function<void(const Node&)>;
    using FaultHandler = std::function<void(const Failure&, const NodePath& node)>;
    using StorageVisitor = std::function<void(const NodePath&, const StorageRef&)>;

    /// For reading, use ReadOnlyDenyWrite: what a command reads is then of one piece, and where somebody else
    /// is writing, it reads a copy.
    Document(const std::wstring& file, RootStorageOpenMode mode);

    const StorageRef& root() const noexcept { return root_; }

    /// "FILE|NODE", or only the file for the root.
    std::wstring label(const NodePath& path) const;

    /// What stands at `name` in `parent`, if anything.
    static std::optional<StorageType> typeOf(const StorageRef& parent, const std::wstring& name);
    std::optional<StorageType> typeOf(const NodePath& path) const;

    /// Whether a node has the place in which packages keep a storage's class.
    bool isClass(const NodePath& path) const;
    /// Whether a failure of a node says that this program cannot read it, rather than that it is damaged.
    bool cannotRead(HRESULT status) const;

    /// The bytes of all streams below a storage, as far as it can be listed: what progress is told. 0 where
    /// nobody sees that.
    unsigned long long amountBelow(const NodePath& path) const;
    /// Of those that are wanted.
    unsigned long long amountIn(const NodePath& path, const std::function<bool(const Node&)>& isWanted) const;

    /// Opens a storage for reading; the root's path gives the root.
    StorageRef openStorage(const NodePath& path) const;

    /// The storages from the root to `path`, both included, open for writing. With `create`, those that are
    /// missing are made.
    std::vector<StorageRef> openForWriting(const NodePath& path, bool create) const;

    /// Opens a stream for reading. The failure of one that is not there names the nearest node that is.
    StreamRef openStream(const NodePath& path) const;
    StreamRef openStream(const NodePath& path, const StorageRef& parent) const;

    /// Throws that there is no such node, with the nearest one that there is.
    [[noreturn]] void failAsMissing(std::wstring_view what, const NodePath& path) const;

    /// As `check`, for what opens or copies a stream: tells the packages' streams that the library does not
    /// unpack.
    void checkUnpacking(HRESULT status, std::wstring_view what, const NodePath& path) const;

    /// As `check`, for a node that its storage lists.
    void checkListed(HRESULT status, std::wstring_view what, const NodePath& path) const;

    /// Passes the contents of an open stream to `sink` in pieces, all of kChunkSize but the last. A stream
    /// that ends before its size is reached fails behind the bytes that are there: that is how damaged
    /// contents show. Shown as progress.
    void read(StreamRef& stream, const NodePath& path,
              const std::function<void(std::span<const std::byte>)>& sink) const;

    /// Meets everything below a storage, each storage before its contents, siblings in the order in which the
    /// storage lists them. In a damaged file storages may contain themselves: the walk fails where it is
    /// deeper or has met more nodes than the file can hold. With `onFault`, failures go there with the node
    /// that they are of, the visitor's too, and the walk goes on: behind the storage, if it was one. Only
    /// that of `start`, and one of the whole file, are thrown all the same. `onStorage` gets each storage
    /// that was opened, before what is in it, the first one too. Throws Stopped.
    void walk(const NodePath& start, const Visitor& visitor, const FaultHandler& onFault = {},
              const StorageVisitor& onStorage = {}) const;

    /// Copies all that is in the storage `from`, which stands at `path`, into another one. Shown as progress.
    /// Whatever fails ends it. `target` names the other one in failures. Throws Stopped.
    void copy(const StorageRef& from, const NodePath& path, const StorageRef& to,
              const std::wstring& target) const;

    /// Writes changes out, from the innermost of `storages` to the root: in a compound file each is a
    /// transaction within the one above it, and the root's brings all into the file; of a package the first
    /// writes the whole file. The outermost `outer` are left out. What is to be stopped is so before: from
    /// the first on, changes may be in the file.
    void commit(const std::vector<StorageRef>& storages, const NodePath& innermost,
                std::size_t outer = 0) const;

private:
    bool isLostName(HRESULT status) const;
    [[noreturn]] void failWithNearest(const Failure& failure, const NodePath& path) const;

    std::wstring file_;
    StorageRef root_;
};

} // namespace Vexel::Tool
