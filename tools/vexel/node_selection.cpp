#include "node_selection.h"

#include "node_pattern.h"
#include "text.h"

#include <optional>
#include <set>
#include <utility>

namespace Vexel::Tool {
namespace {

bool isSameName(std::wstring_view a, std::wstring_view b) {
    return CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()),
                                TRUE) == CSTR_EQUAL;
}

// The name as the storage lists it, whose case may be another.
std::wstring listedName(const StorageRef& storage, const std::wstring& name) {
    StorageEnumerator child;
    if (FAILED(child.reset(storage)))
        return name;
    while (child.moveNext()) {
        if (isSameName(child.name().asStringView(), name))
            return std::wstring(child.name().asStringView());
    }
    return name;
}

class Selection {
public:
    explicit Selection(const Document& document)
        : document_(document), ignoresCase_(document.root().format() == StorageFormat::CompoundFile) {}

    void add(const std::wstring& text) {
        if (NodePattern::hasWildcards(text) && !find(NodePath::parse(text)))
            addPattern(text);
        else
            addPath(NodePath::parse(text));
    }

    std::vector<SelectedNode> take() { return std::move(nodes_); }

private:
    // What is no path can still be a pattern.
    std::optional<StorageType> find(const NodePath& path) const {
        try {
            return document_.typeOf(asListed(path));
        } catch (const Failure&) {
            return std::nullopt;
        }
    }

    void addPath(const NodePath& path) {
        auto type = find(path);
        if (!type) {
            document_.openStream(path); // says best what is wrong
            type = StorageType::Stream;
        }
        addNode({asListed(path), *type, path.isRoot() ? 0 : path.elements().size() - 1, false});
    }

    void addPattern(const std::wstring& text) {
        const NodePattern pattern = NodePattern::parse(text);
        NodePath start;
        for (const std::wstring& name : pattern.fixed())
            start = start.child(name);
        if (!find(start))
            document_.openStream(start); // says best what is wrong
        bool isFound = false;
        document_.walk(asListed(start), [&](const Node& node) {
            if (!pattern.matches(node.path.elements(), ignoresCase_))
                return;
            isFound = true;
            addNode({node.path, node.type, pattern.fixed().size(), true});
        });
        if (!isFound)
            throw Failure(L"nothing matches", document_.label({}) + L"|" + text, STG_E_FILENOTFOUND);
    }

    void addNode(SelectedNode node) {
        if (known_.insert(node.path.text()).second)
            nodes_.push_back(std::move(node));
    }

    /// The path of a node that is there, with the names as the document has them: an item that is open under
    /// another spelling could not be opened under this one.
    NodePath asListed(const NodePath& path) const {
        if (!ignoresCase_)
            return path;
        NodePath result;
        for (const std::wstring& name : path.elements())
            result = result.child(listedName(document_.openStorage(result), name));
        return result;
    }

    const Document& document_;
    bool ignoresCase_;
    std::vector<SelectedNode> nodes_;
    std::set<std::wstring> known_;
};

} // namespace

std::vector<SelectedNode> selectNodes(const Document& document, const std::vector<std::string>& texts) {
    Selection selection(document);
    for (const std::string& text : texts)
        selection.add(toUtf16(text));
    return selection.take();
}

std::vector<SelectedNode> selectOutermost(const Document& document, const std::vector<std::string>& texts) {
    std::vector<SelectedNode> nodes = selectNodes(document, texts);
    std::set<std::wstring> known;
    for (const SelectedNode& node : nodes)
        known.insert(node.path.text());
    std::erase_if(nodes, [&known](const SelectedNode& node) {
        for (std::size_t i = 0; i < node.path.elements().size(); ++i) {
            if (known.contains(node.path.first(i).text()))
                return true;
        }
        return false;
    });
    return nodes;
}

} // namespace Vexel::Tool
