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

// Whether a failure says that what was asked for is not there, rather than that it is damaged.
bool isMissing(HRESULT status) {
    return status == STG_E_FILENOTFOUND || status == STG_E_INVALIDFUNCTION || status == STG_E_INVALIDNAME;
}

// Who names a second document is told that, and not only that no node has its name.
bool isDocument(const std::wstring& text) {
    return StorageRef::getFormat(text.c_str()).value_or(StorageFormat::None) != StorageFormat::None;
}

// The name as the storage lists it, whose case may be another.
std::wstring listedName(const StorageRef& storage, const std::wstring& name) {
    StorageEnumerator child;
    if (child.reset(storage) != S_OK)
        return name;
    while (child.moveNext()) {
        if (isSameName(child.name().asStringView(), name))
            return std::wstring(child.name().asStringView());
    }
    return name;
}

class Selection {
public:
    Selection(const Document& document, Faults* faults)
        : document_(document), faults_(faults),
          ignoresCase_(document.root().format() == StorageFormat::CompoundFile) {}

    void add(const std::wstring& text) {
        try {
            addText(text);
        } catch (const Failure& failure) {
            if (isMissing(failure.status()) && isDocument(text))
                failAsDocument(text);
            if (!faults_ || isMissing(failure.status()))
                throw;
            faults_->add(failure);
        } catch (const UsageError&) {
            if (isDocument(text))
                failAsDocument(text);
            throw;
        }
    }

    std::vector<SelectedNode> take() { return std::move(nodes_); }

private:
    [[noreturn]] static void failAsDocument(const std::wstring& text) {
        throw UsageError(L"this command takes one document, and then nodes in it; a second document is",
                         text);
    }

    void addText(const std::wstring& text) {
        if (NodePattern::hasWildcards(text) && !find(NodePath::parse(text)))
            addPattern(text);
        else
            addPath(NodePath::parse(text));
    }

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
        bool isWhole = true;
        Document::FaultHandler onFault;
        if (faults_)
            onFault = [&](const Failure& failure, const NodePath&) {
                isWhole = false;
                faults_->add(failure);
            };
        document_.walk(
            asListed(start),
            [&](const Node& node) {
                if (!pattern.matches(node.path.elements(), ignoresCase_))
                    return;
                isFound = true;
                addNode({node.path, node.type, pattern.fixed().size(), true});
            },
            onFault);
        if (!isFound && isWhole)
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
    Faults* faults_;
    bool ignoresCase_;
    std::vector<SelectedNode> nodes_;
    std::set<std::wstring> known_;
};

std::set<std::wstring> pathsOf(const std::vector<SelectedNode>& nodes) {
    std::set<std::wstring> paths;
    for (const SelectedNode& node : nodes)
        paths.insert(node.path.text());
    return paths;
}

// Whether a storage on the way to a node is among those.
bool isBelow(const NodePath& path, const std::set<std::wstring>& storages) {
    for (std::size_t i = 0; i < path.elements().size(); ++i) {
        if (storages.contains(path.first(i).text()))
            return true;
    }
    return false;
}

} // namespace

std::vector<SelectedNode> selectNodes(const Document& document, const std::vector<std::string>& texts,
                                      Faults* faults) {
    Selection selection(document, faults);
    for (const std::string& text : texts)
        selection.add(toUtf16(text));
    return selection.take();
}

std::vector<SelectedNode> selectOutermost(const Document& document, const std::vector<std::string>& texts,
                                          Faults* faults) {
    std::vector<SelectedNode> nodes = selectNodes(document, texts, faults);
    const std::set<std::wstring> known = pathsOf(nodes);
    std::erase_if(nodes, [&known](const SelectedNode& node) { return isBelow(node.path, known); });
    return nodes;
}

unsigned long long amountOf(const Document& document, const std::vector<SelectedNode>& nodes) {
    const std::set<std::wstring> known = pathsOf(nodes);
    return document.amountIn({}, [&known](const Node& node) {
        return known.contains(node.path.text()) || isBelow(node.path, known);
    });
}

void checkNewNode(const Document& document, const NodePath& path, const std::string& text) {
    if (NodePattern::hasWildcards(toUtf16(text)))
        throw UsageError(L"a new node cannot be a pattern; in a name, * is written %2a and ? is written %3f:",
                         toUtf16(text));
    for (const std::wstring& name : path.elements()) {
        if (document.root().format() == StorageFormat::Package && name.find(L'/') != std::wstring::npos)
            throw Failure(L"cannot create", document.label(path), STG_E_INVALIDNAME,
                          L"a node with a \"/\" in its name could not be opened again");
    }
}

} // namespace Vexel::Tool
