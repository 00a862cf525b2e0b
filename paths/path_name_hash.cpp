// The hash is stored in documents, so it cannot be changed for a better one: multiply by 33 and add, over
// UTF-16 units, with case folded as the global locale of the standard library folds it.

#include "paths/path_name_hash.h"

#include <locale>

namespace Vexel::Detail {

namespace {

using Ctype = std::ctype<wchar_t>;

template <class Fold>
std::uint32_t hashUnits(std::wstring_view text, Fold fold) {
    std::uint32_t hash = 0;
    for (const wchar_t unit : text)
        hash = hash * 33 + fold(unit);
    return hash;
}

// As the classic locale does it, without a call for each unit: it folds these, and what it does to other
// units depends on the C library's locale.
wchar_t foldClassic(wchar_t unit, const Ctype& classic) {
    if (unit >= 0x80)
        return classic.tolower(unit);
    return unit >= L'A' && unit <= L'Z' ? static_cast<wchar_t>(unit | 0x20) : unit;
}

std::uint32_t hashFolded(std::wstring_view text) {
    const std::locale global;
    if (global == std::locale::classic()) {
        static const auto& ctype = std::use_facet<Ctype>(std::locale::classic());
        return hashUnits(text, [](wchar_t unit) { return foldClassic(unit, ctype); });
    }
    const auto& ctype = std::use_facet<Ctype>(global);
    return hashUnits(text, [&](wchar_t unit) { return ctype.tolower(unit); });
}

std::uint32_t hashAsIs(std::wstring_view text) {
    return hashUnits(text, [](wchar_t unit) { return unit; });
}

} // namespace

std::uint32_t pathNameHash(std::wstring_view text, bool caseSensitive) {
    if (caseSensitive)
        return hashAsIs(text);
    try {
        return hashFolded(text);
    } catch (...) {
        return hashAsIs(text); // a facet of the application's own may raise anything
    }
}

} // namespace Vexel::Detail
