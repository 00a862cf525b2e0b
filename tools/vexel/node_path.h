#pragma once

#include <vexel/copying.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Vexel::Tool {

/// The way from a document's root to one of its nodes, written as elements joined by "/".
///
/// An element is written as packages store it: "/", "%" and characters below U+0020 become "%" and two
/// hexadecimal digits, everything else stands for itself ("%05SummaryInformation"). The empty path is the
/// root.
class NodePath {
public:
    NodePath() = default;

    /// Reads what `text()` writes; hexadecimal digits in either case. Throws UsageError for an empty element
    /// (which a "/" at either end makes, too), for a "%" without its two digits, and for "%00", which no name
    /// can hold.
    static NodePath parse(std::wstring_view text);

    std::wstring text() const;

    bool isRoot() const noexcept { return elements_.empty(); }
    const std::vector<std::wstring>& elements() const noexcept { return elements_; }

    /// The last element; the path must not be the root.
    const std::wstring& name() const { return elements_.back(); }

    /// The path of the storage that holds this node; the path must not be the root.
    NodePath parent() const { return first(elements_.size() - 1); }

    /// The path made of the first `count` elements.
    NodePath first(std::size_t count) const;

    NodePath child(std::wstring_view name) const;

    /// The path of a node that a walk from this one's storage has met.
    NodePath below(TreePath path) const;

private:
    explicit NodePath(std::vector<std::wstring> elements) noexcept : elements_(std::move(elements)) {}

    std::vector<std::wstring> elements_;
};

} // namespace Vexel::Tool
