#include "node_pattern.h"

#include "node_path.h"

#include <windows.h>

#include <algorithm>
#include <cstddef>

namespace Vexel::Tool {
namespace {

std::u32string toCharacters(std::wstring_view text) {
    std::u32string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char32_t unit = text[i];
        if (i + 1 < text.size() && IS_SURROGATE_PAIR(text[i], text[i + 1])) {
            const char32_t low = text[++i];
            result += static_cast<char32_t>(0x10000 + ((unit - 0xd800) << 10) + (low - 0xdc00));
        } else {
            result += unit;
        }
    }
    return result;
}

bool isSame(char32_t a, char32_t b, bool ignoreCase) {
    if (a == b || !ignoreCase || a > 0xffff || b > 0xffff)
        return a == b;
    const auto first = static_cast<wchar_t>(a);
    const auto second = static_cast<wchar_t>(b);
    return CompareStringOrdinal(&first, 1, &second, 1, TRUE) == CSTR_EQUAL;
}

/// Whether a pattern, some of whose items stand for any number of items of the text, makes the text. When the
/// text goes on otherwise than the pattern, the last such item takes one more, which is enough.
template <class Pattern, class Text, class IsAny, class Fits>
bool matchesItems(const Pattern& pattern, const Text& text, const IsAny& isAny, const Fits& fits) {
    constexpr auto kNone = static_cast<std::size_t>(-1);
    std::size_t p = 0;
    std::size_t t = 0;
    std::size_t lastAny = kNone;
    std::size_t takenUpTo = 0;
    while (t < text.size()) {
        if (p < pattern.size() && isAny(pattern[p])) {
            lastAny = p++;
            takenUpTo = t;
        } else if (p < pattern.size() && fits(pattern[p], text[t])) {
            ++p;
            ++t;
        } else if (lastAny != kNone) {
            p = lastAny + 1;
            t = ++takenUpTo;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && isAny(pattern[p]))
        ++p;
    return p == pattern.size();
}

} // namespace

NodePattern::Element NodePattern::parseElement(std::wstring_view text) {
    Element element;
    while (!text.empty()) {
        if (text[0] == L'*' || text[0] == L'?') {
            element.push_back({static_cast<char32_t>(text[0]), true});
            text.remove_prefix(1);
            continue;
        }
        const std::wstring_view literal = text.substr(0, text.find_first_of(L"*?"));
        for (const char32_t character : toCharacters(NodePath::parse(literal).name()))
            element.push_back({character, false});
        text.remove_prefix(literal.size());
    }
    return element;
}

NodePattern NodePattern::parse(std::wstring_view text) {
    NodePattern pattern;
    for (std::size_t start = 0; start <= text.size();) {
        const std::size_t end = std::min(text.find(L'/', start), text.size());
        const std::wstring_view element = text.substr(start, end - start);
        if (element.empty())
            NodePath::parse(text); // throws
        if (pattern.elements_.size() == pattern.fixed_.size() && !hasWildcards(element))
            pattern.fixed_.push_back(NodePath::parse(element).name());
        pattern.elements_.push_back(parseElement(element));
        start = end + 1;
    }
    if (isAnyElements(pattern.elements_.back()))
        pattern.elements_.push_back({{U'*', true}});
    return pattern;
}

bool NodePattern::matchesFileName(std::wstring_view pattern, std::wstring_view name) {
    Element units;
    for (const char32_t character : toCharacters(pattern))
        units.push_back({character, character == U'*' || character == U'?'});
    return matchesElement(units, name, true);
}

bool NodePattern::isAnyElements(const Element& element) {
    return element.size() == 2 && element[0].isWild && element[0].character == U'*' && element[1].isWild &&
           element[1].character == U'*';
}

bool NodePattern::matchesElement(const Element& pattern, std::wstring_view name, bool ignoreCase) {
    return matchesItems(
        pattern, toCharacters(name), [](const Unit& unit) { return unit.isWild && unit.character == U'*'; },
        [ignoreCase](const Unit& unit, char32_t character) {
            return unit.isWild || isSame(unit.character, character, ignoreCase);
        });
}

bool NodePattern::matches(const std::vector<std::wstring>& elements, bool ignoreCase) const {
    return matchesItems(elements_, elements, isAnyElements,
                        [ignoreCase](const Element& pattern, const std::wstring& name) {
                            return matchesElement(pattern, name, ignoreCase);
                        });
}

} // namespace Vexel::Tool
