#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Vexel::Tool {

/// A node path with wildcards: "*" stands for any characters of a name, "?" for one, and an element "**" for
/// any number of elements, at the end for at least one. Everything else is as in a node path, so "%2a" is the
/// character itself.
class NodePattern {
public:
    static bool hasWildcards(std::wstring_view text) {
        return text.find_first_of(L"*?") != std::wstring_view::npos;
    }

    /// Whether a file's name is of a pattern in which nothing is escaped; case does not count.
    static bool matchesFileName(std::wstring_view pattern, std::wstring_view name);

    /// Throws UsageError for what is no node path.
    static NodePattern parse(std::wstring_view text);

    /// The elements before the first one with a wildcard.
    const std::vector<std::wstring>& fixed() const noexcept { return fixed_; }

    /// Whether a node's elements, the fixed ones included, are of this pattern.
    bool matches(const std::vector<std::wstring>& elements, bool ignoreCase) const;

private:
    struct Unit {
        char32_t character;
        bool isWild;
    };
    using Element = std::vector<Unit>;

    static Element parseElement(std::wstring_view text);
    static bool isAnyElements(const Element& element);
    static bool matchesElement(const Element& pattern, std::wstring_view name, bool ignoreCase);

    std::vector<std::wstring> fixed_;
    std::vector<Element> elements_; // all of them
};

} // namespace Vexel::Tool
