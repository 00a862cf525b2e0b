// Settings files of whatever bytes, and what is read, changed, saved and read again.

#include "fuzz/platform/files.h"
#include "fuzz/targets/input.h"

#include <vexel/ini.h>

using namespace Vexel::Fuzz;

namespace {

const std::wstring kPath = L"C:\\settings.ini";

std::wstring_view viewOf(const CStringW& text) {
    return {text.GetString(), static_cast<std::size_t>(text.GetLength())};
}

/// White space and quotes at the ends are not what a file gives back, and what ends a line or begins one of
/// another kind is not written so that it could be read.
bool isPlain(std::wstring_view text) {
    return text.find_first_of(std::wstring_view(L"\n\r\0\"'", 5)) == std::wstring_view::npos &&
           (text.empty() || (!iswspace(text.front()) && !iswspace(text.back())));
}

bool comesBack(const vxio::IniFile& file) {
    for (const auto& [name, section] : file) {
        if (viewOf(name).find_first_of(std::wstring_view(L"\n\0", 2)) != std::wstring_view::npos)
            return false;
        for (const auto& [key, value] : section)
            if (!isPlain(viewOf(key)) || !isPlain(viewOf(value)))
                return false;
    }
    return true;
}

bool areEqual(const vxio::IniFile& a, const vxio::IniFile& b) {
    const auto same = [](const CStringW& x, const CStringW& y) { return viewOf(x) == viewOf(y); };
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [&](const auto& x, const auto& y) {
        return same(x.first, y.first) && std::equal(x.second.begin(), x.second.end(), y.second.begin(),
                                                    y.second.end(), [&](const auto& s, const auto& t) {
                                                        return same(s.first, t.first) &&
                                                               same(s.second, t.second);
                                                    });
    });
}

/// Every entry is found by its key, and a number that is read is written so that it is the same one.
void look(vxio::IniFile& file) {
    for (const auto& [name, section] : file) {
        const vxio::IniFileSection* const found = file.GetSection(viewOf(name));
        REQUIRE(found == &section);
        for (const auto& [key, value] : section) {
            const auto text = section.TryGetString(viewOf(key));
            REQUIRE(text && viewOf(*text) == viewOf(value));
            section.TryGetInt(viewOf(key));
            if (const auto number = section.TryGetDouble(viewOf(key))) {
                vxio::IniFileSection copy;
                copy.SetDouble(L"number", *number);
                const double again = copy.GetDouble(L"number", 0);
                REQUIRE(again == *number || (again != again && *number != *number));
            }
        }
    }
}

void change(vxio::IniFile& file, Input& input) {
    static constexpr const wchar_t* kSections[] = {L"Window", L"window", L"View"};
    static constexpr const wchar_t* kKeys[] = {L"Width", L"WIDTH", L"Zoom"};
    for (unsigned step = 0; step < 8 && !input.isEmpty(); ++step) {
        const std::uint8_t action = input.byte();
        const wchar_t* const section = kSections[action / 4 % 3];
        const wchar_t* const key = kKeys[action / 16 % 3];
        if (action % 4 == 0) {
            const int value = input.number<int>();
            file.SetInt(section, key, value);
            REQUIRE(file.GetInt(section, key, ~value) == value);
        } else if (action % 4 == 1) {
            const double value = input.number<double>();
            file.SetDouble(section, key, value);
            const double back = file.GetDouble(section, key, 0);
            REQUIRE(back == value || value != value);
        } else if (action % 4 == 2) {
            const std::vector<wchar_t> text = input.text(input.byte() % 16);
            const CStringW value(text.data(), static_cast<int>(text.size()));
            file.SetString(section, key, value);
            REQUIRE(viewOf(file.GetString(section, key, L"")) == viewOf(value));
        } else {
            file.GetOrCreateSection(section).Remove(key);
            REQUIRE(!file.TryGetString(section, key));
        }
    }
}

/// Only settings that were read from bytes that are no text may refuse to be written.
void saveAndLoad(const vxio::IniFile& file, bool isAscii) {
    if (!file.Save(kPath.c_str())) {
        REQUIRE(!isAscii);
        return;
    }
    if (!comesBack(file))
        return;
    vxio::IniFile again;
    REQUIRE(again.Load(kPath.c_str()));
    REQUIRE(areEqual(file, again));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const auto choices = input.bytes(input.byte() % 64);
    Input changes(choices.data(), choices.size());
    const auto bytes = input.rest();
    const bool isAscii =
        std::ranges::all_of(bytes, [](std::uint8_t byte) { return byte > 0 && byte < 0x80; });
    files()[kPath].assign(bytes.begin(), bytes.end());
    vxio::IniFile file;
    if (file.Load(kPath.c_str())) {
        look(file);
        saveAndLoad(file, isAscii);
    } else {
        REQUIRE(file.IsEmpty());
    }
    change(file, changes);
    look(file);
    saveAndLoad(file, isAscii);
    files().clear();
    return 0;
}
