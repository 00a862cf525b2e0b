// Entries stand in a list, in their order, beside a table of their places by the hash of the key
// (io/name_places.h). Adding to the two is done wholly or not at all.

#include "base/text.h"
#include "io/ini_numbers.h"
#include "io/name_places.h"

#include <vexel/ini.h>

#include <iterator>

namespace vxio {

using Vexel::Detail::stringOf;

using Vexel::Detail::findName;
using Vexel::Detail::kNotListed;
using Vexel::Detail::viewOf;

const CStringW* IniFileSection::find(std::wstring_view key) const {
    const std::size_t place = findName(entries_, places_, key);
    return place == kNotListed ? nullptr : &entries_[place].second;
}

void IniFileSection::setString(const CStringW& key, const CStringW& value) {
    const std::size_t place = findName(entries_, places_, viewOf(key));
    if (place != kNotListed) {
        entries_[place].second = value;
        return;
    }
    entries_.emplace_back(key, value);
    try {
        Vexel::Detail::addPlace(entries_, places_);
    } catch (...) {
        entries_.pop_back();
        throw;
    }
}

void IniFileSection::setString(std::wstring_view key, const CStringW& value) {
    setString(stringOf(key), value);
}

IniFileSection& IniFileSection::SetString(std::wstring_view key, const CStringW& value) {
    setString(key, value);
    return *this;
}

IniFileSection& IniFileSection::SetString(const CStringW& key, const CStringW& value) {
    setString(key, value);
    return *this;
}

IniFileSection& IniFileSection::SetInt(std::wstring_view key, int value) {
    return SetString(key, Vexel::Detail::formatInt(value));
}

IniFileSection& IniFileSection::SetDouble(std::wstring_view key, double value) {
    return SetString(key, Vexel::Detail::formatDouble(value));
}

IniFileSection& IniFileSection::Remove(std::wstring_view key) {
    const std::size_t place = findName(entries_, places_, key);
    if (place != kNotListed) {
        entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(place));
        Vexel::Detail::removePlace(places_, place);
    }
    return *this;
}

std::optional<CStringW> IniFileSection::TryGetString(std::wstring_view key) const {
    const CStringW* const value = find(key);
    return value ? std::optional(*value) : std::nullopt;
}

std::optional<int> IniFileSection::TryGetInt(std::wstring_view key) const {
    const CStringW* const value = find(key);
    return value ? Vexel::Detail::parseInt(viewOf(*value)) : std::nullopt;
}

std::optional<double> IniFileSection::TryGetDouble(std::wstring_view key) const {
    const CStringW* const value = find(key);
    return value ? Vexel::Detail::parseDouble(viewOf(*value)) : std::nullopt;
}

CStringW IniFileSection::GetString(std::wstring_view key, const CStringW& fallback) const {
    const CStringW* const value = find(key);
    return value ? *value : fallback;
}

CStringW IniFileSection::GetString(std::wstring_view key, std::wstring_view fallback) const {
    const CStringW* const value = find(key);
    return value ? *value : stringOf(fallback);
}

int IniFileSection::GetInt(std::wstring_view key, int fallback) const {
    return TryGetInt(key).value_or(fallback);
}

double IniFileSection::GetDouble(std::wstring_view key, double fallback) const {
    return TryGetDouble(key).value_or(fallback);
}

} // namespace vxio
