// Sections and the static functions that work straight on a file. Whatever adds a section does so wholly or,
// when memory runs out in the middle, not at all: the list of sections and the table of their places must not
// differ.

#include "base/text.h"
#include "io/ini_numbers.h"
#include "io/name_places.h"

#include <vexel/diagnostics.h>
#include <vexel/ini.h>

namespace vxio {

using Vexel::Detail::stringOf;

using Vexel::Detail::findName;
using Vexel::Detail::kNotListed;

const IniFileSection* IniFile::GetSection(std::wstring_view name) const {
    const std::size_t place = findName(sections_, places_, name);
    return place == kNotListed ? nullptr : &sections_[place].second;
}

IniFileSection& IniFile::GetOrCreateSection(std::wstring_view name) {
    const std::size_t place = findName(sections_, places_, name);
    if (place != kNotListed)
        return sections_[place].second;
    sections_.emplace_back(stringOf(name), IniFileSection());
    try {
        Vexel::Detail::addPlace(sections_, places_);
    } catch (...) {
        sections_.pop_back();
        throw;
    }
    return sections_.back().second;
}

void IniFile::SetSection(std::wstring_view name, IniFileSection&& section) {
    IniFileSection moved = std::move(section); // which may be one of ours, and have to make room
    GetOrCreateSection(name) = std::move(moved);
}

IniFile& IniFile::SetString(std::wstring_view section, std::wstring_view key, const CStringW& value) {
    const std::size_t place = findName(sections_, places_, section);
    if (place != kNotListed)
        sections_[place].second.SetString(key, value);
    else // whole, or without memory not at all
        SetSection(section, std::move(IniFileSection().SetString(key, value)));
    return *this;
}

IniFile& IniFile::SetInt(std::wstring_view section, std::wstring_view key, int value) {
    return SetString(section, key, Vexel::Detail::formatInt(value));
}

IniFile& IniFile::SetDouble(std::wstring_view section, std::wstring_view key, double value) {
    return SetString(section, key, Vexel::Detail::formatDouble(value));
}

std::optional<CStringW> IniFile::TryGetString(std::wstring_view section, std::wstring_view key) const {
    const IniFileSection* const found = GetSection(section);
    return found ? found->TryGetString(key) : std::nullopt;
}

std::optional<int> IniFile::TryGetInt(std::wstring_view section, std::wstring_view key) const {
    const IniFileSection* const found = GetSection(section);
    return found ? found->TryGetInt(key) : std::nullopt;
}

std::optional<double> IniFile::TryGetDouble(std::wstring_view section, std::wstring_view key) const {
    const IniFileSection* const found = GetSection(section);
    return found ? found->TryGetDouble(key) : std::nullopt;
}

CStringW IniFile::GetString(std::wstring_view section, std::wstring_view key,
                            const CStringW& fallback) const {
    return TryGetString(section, key).value_or(fallback);
}

CStringW IniFile::GetString(std::wstring_view section, std::wstring_view key,
                            std::wstring_view fallback) const {
    return GetString(section, key, stringOf(fallback));
}

int IniFile::GetInt(std::wstring_view section, std::wstring_view key, int fallback) const {
    return TryGetInt(section, key).value_or(fallback);
}

double IniFile::GetDouble(std::wstring_view section, std::wstring_view key, double fallback) const {
    return TryGetDouble(section, key).value_or(fallback);
}

// ---- Straight on a file.

namespace {

IniFile loaded(const wchar_t* path) {
    IniFile file;
    file.Load(path);
    return file;
}

} // namespace

template <class Change>
bool IniFile::changeFile(const wchar_t* path, const Change& change) {
    if (!path || !*path)
        return false;
    IniFile file;
    constexpr int kAttempts = 12; // while others save it
    unsigned long error = file.load(path);
    for (int i = 1; i < kAttempts && (error == ERROR_SHARING_VIOLATION || error == ERROR_ACCESS_DENIED); ++i)
        error = file.load(path);
    // What is no settings file is begun anew; one that cannot be read now is another matter.
    if (error != ERROR_SUCCESS && error != ERROR_FILE_NOT_FOUND && error != ERROR_INVALID_DATA)
        return false;
    if (error == ERROR_INVALID_DATA)
        VxLog_WriteW(VxLog_Error, L"The settings file \"%ls\" cannot be understood and is begun anew", path);
    change(file);
    return file.Save(path);
}

bool IniFile::SetString(std::wstring_view section, std::wstring_view key, const CStringW& value,
                        const wchar_t* path) {
    return changeFile(path, [&](IniFile& file) { file.SetString(section, key, value); });
}

bool IniFile::SetInt(std::wstring_view section, std::wstring_view key, int value, const wchar_t* path) {
    return changeFile(path, [&](IniFile& file) { file.SetInt(section, key, value); });
}

bool IniFile::SetDouble(std::wstring_view section, std::wstring_view key, double value, const wchar_t* path) {
    return changeFile(path, [&](IniFile& file) { file.SetDouble(section, key, value); });
}

bool IniFile::SetSection(std::wstring_view name, IniFileSection&& section, const wchar_t* path) {
    return changeFile(path, [&](IniFile& file) { file.SetSection(name, std::move(section)); });
}

CStringW IniFile::GetString(std::wstring_view section, std::wstring_view key, std::wstring_view fallback,
                            const wchar_t* path) {
    return loaded(path).GetString(section, key, fallback);
}

CStringW IniFile::GetString(std::wstring_view section, std::wstring_view key, const CStringW& fallback,
                            const wchar_t* path) {
    return loaded(path).GetString(section, key, fallback);
}

int IniFile::GetInt(std::wstring_view section, std::wstring_view key, int fallback, const wchar_t* path) {
    return loaded(path).GetInt(section, key, fallback);
}

double IniFile::GetDouble(std::wstring_view section, std::wstring_view key, double fallback,
                          const wchar_t* path) {
    return loaded(path).GetDouble(section, key, fallback);
}

std::optional<CStringW> IniFile::TryGetString(std::wstring_view section, std::wstring_view key,
                                              const wchar_t* path) {
    return loaded(path).TryGetString(section, key);
}

std::optional<int> IniFile::TryGetInt(std::wstring_view section, std::wstring_view key, const wchar_t* path) {
    return loaded(path).TryGetInt(section, key);
}

std::optional<double> IniFile::TryGetDouble(std::wstring_view section, std::wstring_view key,
                                            const wchar_t* path) {
    return loaded(path).TryGetDouble(section, key);
}

std::optional<IniFileSection> IniFile::TryGetSection(std::wstring_view name, const wchar_t* path) {
    const IniFile file = loaded(path);
    const IniFileSection* const found = file.GetSection(name);
    return found ? std::optional(*found) : std::nullopt;
}

} // namespace vxio
