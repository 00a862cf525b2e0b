#pragma once

#include "base/text.h"

#include <vexel/ini.h>

#include <cstddef>
#include <cwchar>
#include <string_view>

/// Finding names in lists of pairs that begin with them, without regard to case: the first that matches. A
/// list keeps its `NamePlaces` beside it; they are found out when first needed, and have to be told of names
/// that are appended or removed, or be cleared when anything else changes.
namespace Vexel::Detail {

inline constexpr std::size_t kNotListed = ~std::size_t{0};

/// Equal for names that are equal without regard to case, in every locale of the C library: it folds more.
std::size_t hashName(std::wstring_view name) noexcept;

inline bool isSameName(const CStringW& a, std::wstring_view b) noexcept {
    return static_cast<std::size_t>(a.GetLength()) == b.size() &&
           _wcsnicmp(a.GetString(), b.data(), b.size()) == 0;
}

template <class List>
std::size_t findName(const List& list, vxio::NamePlaces& places, std::wstring_view name) {
    constexpr std::size_t kShortList = 12; // looked through faster than looked up
    if (list.size() <= kShortList) {
        for (std::size_t i = 0; i < list.size(); ++i)
            if (isSameName(list[i].first, name))
                return i;
        return kNotListed;
    }
    if (places.size() != list.size()) {
        places.clear();
        for (std::size_t i = 0; i < list.size(); ++i)
            places.emplace(hashName(viewOf(list[i].first)), i);
    }
    std::size_t first = kNotListed;
    const auto [begin, end] = places.equal_range(hashName(name));
    for (auto place = begin; place != end; ++place)
        if (place->second < first && isSameName(list[place->second].first, name))
            first = place->second;
    return first;
}

/// To be called with the name that has just been appended.
template <class List>
void addPlace(const List& list, vxio::NamePlaces& places) {
    if (places.size() + 1 == list.size() && !places.empty())
        places.emplace(hashName(viewOf(list.back().first)), list.size() - 1);
}

/// To be called when the name at `removed` has gone: taking many names out must not hash all the others anew
/// each time.
inline void removePlace(vxio::NamePlaces& places, std::size_t removed) noexcept {
    std::erase_if(places, [removed](const auto& entry) { return entry.second == removed; });
    for (auto& entry : places)
        entry.second -= entry.second > removed;
}

} // namespace Vexel::Detail
