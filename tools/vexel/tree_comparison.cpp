// Nodes are matched by path first. What has no partner then is matched by what is in it: each such node gets
// a digest, a storage's made of those of its children, and equal ones are pairs, whole storages before parts
// of them.

#include "tree_comparison.h"

#include <algorithm>
#include <map>
#include <set>
#include <unordered_map>
#include <utility>

namespace Vexel::Tool {
namespace {

constexpr std::size_t kNone = static_cast<std::size_t>(-1);

/// For each entry of one listing the one with its path in the other.
std::vector<std::size_t> partners(const TreeListing& of, const TreeListing& in) {
    std::unordered_map<std::wstring_view, std::size_t> byPath;
    for (std::size_t i = 0; i < in.size(); ++i)
        byPath.emplace(in[i].path, i);
    std::vector<std::size_t> result(of.size(), kNone);
    for (std::size_t i = 0; i < of.size(); ++i) {
        if (const auto found = byPath.find(of[i].path); found != byPath.end())
            result[i] = found->second;
    }
    return result;
}

/// The sizes of streams without a partner.
std::set<unsigned long long> loneSizes(const TreeListing& listing, const std::vector<std::size_t>& partner) {
    std::set<unsigned long long> sizes;
    for (std::size_t i = 0; i < listing.size(); ++i) {
        if (partner[i] == kNone && !listing[i].isStorage())
            sizes.insert(listing[i].size);
    }
    return sizes;
}

void markOne(TreeListing& listing, const std::vector<std::size_t>& partner, const TreeListing& other,
             const std::set<unsigned long long>& otherLoneSizes) {
    for (std::size_t i = 0; i < listing.size(); ++i) {
        TreeEntry& entry = listing[i];
        if (entry.isStorage())
            continue;
        if (entry.size == 0)
            entry.contents = Fingerprint();
        else if (partner[i] == kNone)
            entry.isWanted = otherLoneSizes.contains(entry.size);
        else
            entry.isWanted = !other[partner[i]].isStorage() && other[partner[i]].size == entry.size;
    }
}

template <class Value>
void addValue(Fingerprint& print, const Value& value) {
    print.add(std::as_bytes(std::span(&value, 1)));
}

void addText(Fingerprint& print, std::wstring_view text) {
    addValue(print, text.size());
    print.add(std::as_bytes(std::span(text)));
}

/// What is in a node that has no partner, with all below it.
struct Subtree {
    std::optional<Fingerprint> digest; // none: something in it was not read
    std::size_t nodes = 1;
    unsigned long long bytes = 0;
    std::vector<std::size_t> children; // by name, once all are known
    bool isTaken = false;              // it, or what it is in, was moved
};

/// The nodes of one document that the other has not.
class LoneNodes {
public:
    LoneNodes(const TreeListing& listing, const std::vector<std::size_t>& partner)
        : listing_(listing), subtrees_(listing.size()) {
        // Backwards, so that a storage comes when all that is in it has been met.
        for (std::size_t i = listing.size(); i-- > 1;) {
            if (partner[i] == kNone)
                fill(i);
        }
    }

    const Subtree& operator[](std::size_t index) const { return subtrees_[index]; }

    void take(std::size_t index) {
        // What is in a storage stands behind it.
        for (std::size_t i = 0; i < subtrees_[index].nodes; ++i)
            subtrees_[index + i].isTaken = true;
    }

private:
    void fill(std::size_t index) {
        Subtree& subtree = subtrees_[index];
        subtree.bytes += listing_[index].size;
        std::sort(subtree.children.begin(), subtree.children.end(),
                  [this](std::size_t a, std::size_t b) { return listing_[a].name() < listing_[b].name(); });
        subtree.digest = digestOf(index);
        Subtree& parent = subtrees_[listing_[index].parent];
        parent.children.push_back(index);
        parent.nodes += subtree.nodes;
        parent.bytes += subtree.bytes;
    }

    std::optional<Fingerprint> digestOf(std::size_t index) const {
        const TreeEntry& entry = listing_[index];
        if (!entry.isStorage())
            return entry.contents;
        if (!entry.isClassKnown)
            return std::nullopt;
        Fingerprint print;
        addValue(print, entry.classId);
        for (const std::size_t child : subtrees_[index].children) {
            const std::optional<Fingerprint>& digest = subtrees_[child].digest;
            if (!digest)
                return std::nullopt;
            addText(print, listing_[child].name());
            addValue(print, listing_[child].type);
            addValue(print, listing_[child].size);
            addValue(print, *digest);
        }
        return print;
    }

    const TreeListing& listing_;
    std::vector<Subtree> subtrees_;
};

class TreeComparison {
public:
    TreeComparison(const TreeListing& first, const TreeListing& second)
        : first_(first), second_(second), firstPartner_(partners(first, second)),
          secondPartner_(partners(second, first)), removed_(first, firstPartner_),
          added_(second, secondPartner_) {}

    ComparisonResult run() {
        comparePairs();
        findMoves();
        addLone(first_, firstPartner_, removed_, Difference::Kind::Removed);
        addLone(second_, secondPartner_, added_, Difference::Kind::Added);
        std::stable_sort(result_.differences.begin(), result_.differences.end(),
                         [](const Difference& a, const Difference& b) { return a.path < b.path; });
        return std::move(result_);
    }

private:
    /// Nodes of equal contents; all have equally many nodes in them.
    struct Alike {
        std::vector<std::size_t> removed;
        std::vector<std::size_t> added;
    };
    using AlikeByDigest = std::map<std::pair<StorageType, Fingerprint>, Alike>;

    static bool areClassesKnown(const TreeEntry& a, const TreeEntry& b) {
        return a.isClassKnown && b.isClassKnown;
    }

    static Difference::What whatDiffers(const TreeEntry& a, const TreeEntry& b) {
        if (a.type != b.type)
            return Difference::What::Type;
        if (a.isStorage())
            return a.classId == b.classId || !areClassesKnown(a, b) ? Difference::What::None
                                                                    : Difference::What::Class;
        if (a.size != b.size || (a.contents && b.contents && *a.contents != *b.contents))
            return Difference::What::Contents;
        return Difference::What::None;
    }

    void comparePairs() {
        for (std::size_t i = 0; i < first_.size(); ++i) {
            if (firstPartner_[i] == kNone)
                continue;
            const TreeEntry& a = first_[i];
            const TreeEntry& b = second_[firstPartner_[i]];
            const Difference::What what = whatDiffers(a, b);
            if (what != Difference::What::None)
                result_.differences.push_back(
                    {Difference::Kind::Changed, what, b.type, b.path, {}, a.size, b.size});
            else if (i > 0 && (a.isStorage() ? areClassesKnown(a, b) : a.contents && b.contents))
                ++result_.same;
        }
    }

    AlikeByDigest alike() const {
        AlikeByDigest result;
        for (std::size_t i = 1; i < first_.size(); ++i) {
            const std::optional<Fingerprint>& digest = removed_[i].digest;
            if (digest)
                result[{first_[i].type, *digest}].removed.push_back(i);
        }
        for (std::size_t i = 1; i < second_.size(); ++i) {
            const std::optional<Fingerprint>& digest = added_[i].digest;
            if (!digest)
                continue;
            const auto found = result.find({second_[i].type, *digest});
            if (found != result.end())
                found->second.added.push_back(i);
        }
        return result;
    }

    // The largest first: what is in a storage that was moved did so with it.
    void findMoves() {
        AlikeByDigest groups = alike();
        std::vector<Alike*> order;
        for (auto& [digest, group] : groups) {
            if (!group.added.empty())
                order.push_back(&group);
        }
        const auto nodesIn = [this](const Alike* group) { return removed_[group->removed[0]].nodes; };
        std::stable_sort(order.begin(), order.end(),
                         [&](const Alike* a, const Alike* b) { return nodesIn(a) > nodesIn(b); });
        for (Alike* const group : order)
            pairUp(*group);
    }

    // Those of one name belong together before others do.
    void pairUp(const Alike& group) {
        std::multimap<std::wstring_view, std::size_t> byName;
        for (const std::size_t b : group.added) {
            if (!added_[b].isTaken)
                byName.emplace(second_[b].name(), b);
        }
        for (const std::size_t a : group.removed) {
            const auto found = byName.find(first_[a].name());
            if (!removed_[a].isTaken && found != byName.end()) {
                move(a, found->second);
                byName.erase(found);
            }
        }
        auto next = group.added.begin();
        for (const std::size_t a : group.removed) {
            next =
                std::find_if(next, group.added.end(), [this](std::size_t b) { return !added_[b].isTaken; });
            if (next == group.added.end())
                return;
            if (!removed_[a].isTaken && removed_[a].bytes > 0)
                move(a, *next);
        }
    }

    void move(std::size_t a, std::size_t b) {
        result_.differences.push_back({Difference::Kind::Moved, Difference::What::None, second_[b].type,
                                       second_[b].path, first_[a].path, first_[a].size, second_[b].size,
                                       removed_[a].nodes});
        removed_.take(a);
        added_.take(b);
    }

    void addLone(const TreeListing& listing, const std::vector<std::size_t>& partner, const LoneNodes& lone,
                 Difference::Kind kind) {
        const bool isRemoved = kind == Difference::Kind::Removed;
        for (std::size_t i = 1; i < listing.size(); ++i) {
            if (partner[i] == kNone && !lone[i].isTaken)
                result_.differences.push_back({kind,
                                               Difference::What::None,
                                               listing[i].type,
                                               listing[i].path,
                                               {},
                                               isRemoved ? listing[i].size : 0,
                                               isRemoved ? 0 : listing[i].size});
        }
    }

    const TreeListing& first_;
    const TreeListing& second_;
    std::vector<std::size_t> firstPartner_;
    std::vector<std::size_t> secondPartner_;
    LoneNodes removed_;
    LoneNodes added_;
    ComparisonResult result_;
};

} // namespace

void markWanted(TreeListing& first, TreeListing& second) {
    const auto firstPartner = partners(first, second);
    const auto secondPartner = partners(second, first);
    markOne(first, firstPartner, second, loneSizes(second, secondPartner));
    markOne(second, secondPartner, first, loneSizes(first, firstPartner));
}

ComparisonResult compareTrees(const TreeListing& first, const TreeListing& second) {
    return TreeComparison(first, second).run();
}

} // namespace Vexel::Tool
