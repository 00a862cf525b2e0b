// Names of nodes as names of files and back. Encoding has to be undone by decoding for every name, and two
// names must never become one file, on a file system that does not tell case apart and takes some names for
// devices.

#include "file_names.h"

#include <windows.h>

#include <algorithm>
#include <array>
#include <optional>

namespace Vexel::Tool {
namespace {

bool equalIgnoringCase(std::wstring_view left, std::wstring_view right) {
    return CompareStringOrdinal(left.data(), static_cast<int>(left.size()), right.data(),
                                static_cast<int>(right.size()), TRUE) == CSTR_EQUAL;
}

// Windows takes these for devices in every directory, whatever follows the first dot.
bool isDeviceName(std::wstring_view name) {
    std::wstring_view stem = name.substr(0, name.find(L'.'));
    stem = stem.substr(0, stem.find_last_not_of(L' ') + 1);
    constexpr auto kNames =
        std::to_array<std::wstring_view>({L"CON", L"PRN", L"AUX", L"NUL", L"CONIN$", L"CONOUT$"});
    if (std::any_of(kNames.begin(), kNames.end(),
                    [stem](std::wstring_view device) { return equalIgnoringCase(stem, device); }))
        return true;
    constexpr std::wstring_view kPorts = L"0123456789\u00b9\u00b2\u00b3"; // superscripts count as digits here
    return stem.size() == 4 && kPorts.find(stem[3]) != std::wstring_view::npos &&
           (equalIgnoringCase(stem.substr(0, 3), L"COM") || equalIgnoringCase(stem.substr(0, 3), L"LPT"));
}

bool isSurrogate(wchar_t c, wchar_t first) { return (c & 0xfc00) == first; }

bool isLoneSurrogate(std::wstring_view name, std::size_t i) {
    constexpr wchar_t kHigh = 0xd800;
    constexpr wchar_t kLow = 0xdc00;
    const wchar_t before = i > 0 ? name[i - 1] : L'\0';
    const wchar_t after = i + 1 < name.size() ? name[i + 1] : L'\0';
    return (isSurrogate(name[i], kHigh) && !isSurrogate(after, kLow)) ||
           (isSurrogate(name[i], kLow) && !isSurrogate(before, kHigh));
}

bool needsEscape(std::wstring_view name, std::size_t i) {
    constexpr std::wstring_view kForbidden = L"<>:\"|?*\\/%";
    const wchar_t c = name[i];
    const bool endsInDotOrBlank = i + 1 == name.size() && (c == L'.' || c == L' ');
    return c < 0x20 || endsInDotOrBlank || kForbidden.find(c) != std::wstring_view::npos ||
           (i == 0 && isDeviceName(name));
}

void appendHex(std::wstring& text, unsigned value, int digits) {
    for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4)
        text += L"0123456789abcdef"[(value >> shift) & 0xfu];
}

// The value of the hexadecimal digits at the start of a text; nothing when there are fewer.
std::optional<wchar_t> hexValue(std::wstring_view text, std::size_t digits) {
    constexpr std::wstring_view kDigits = L"0123456789abcdef0123456789ABCDEF";
    if (text.size() < digits)
        return std::nullopt;
    unsigned value = 0;
    for (const wchar_t c : text.substr(0, digits)) {
        const std::size_t digit = kDigits.find(c);
        if (digit == std::wstring_view::npos)
            return std::nullopt;
        value = value * 16 + static_cast<unsigned>(digit % 16);
    }
    return static_cast<wchar_t>(value);
}

// Without the number at the end that tells siblings apart. A "%" of a name is always encoded, so no name of a
// node ends in such a number by itself.
std::wstring_view withoutNumber(std::wstring_view fileName) {
    const std::size_t mark = fileName.rfind(L"%~");
    if (mark == std::wstring_view::npos || mark + 2 == fileName.size() ||
        fileName.find_first_not_of(L"0123456789", mark + 2) != std::wstring_view::npos)
        return fileName;
    return fileName.substr(0, mark);
}

} // namespace

std::wstring fileNameOf(std::wstring_view nodeName) {
    std::wstring result;
    for (std::size_t i = 0; i < nodeName.size(); ++i) {
        const wchar_t c = nodeName[i];
        if (isLoneSurrogate(nodeName, i)) {
            result += L"%u";
            appendHex(result, c, 4);
        } else if (needsEscape(nodeName, i)) {
            result += L'%';
            appendHex(result, c, 2);
        } else {
            result += c;
        }
    }
    // A damaged document may hold a node without a name; an empty component would be the directory itself.
    return result.empty() ? L"%" : result;
}

// What is no encoding stands for itself: files need not have been written by `extract`.
std::wstring nodeNameOf(std::wstring_view fileName) {
    std::wstring result;
    std::wstring_view rest = withoutNumber(fileName);
    if (rest == L"%")
        return result;
    while (!rest.empty()) {
        const auto surrogate = rest.starts_with(L"%u") ? hexValue(rest.substr(2), 4) : std::nullopt;
        const auto character = rest[0] == L'%' ? hexValue(rest.substr(1), 2) : std::nullopt;
        if (surrogate && (*surrogate & 0xf800) == 0xd800) {
            result += *surrogate;
            rest.remove_prefix(6);
        } else if (character && *character != 0) {
            result += *character;
            rest.remove_prefix(3);
        } else {
            result += rest[0];
            rest.remove_prefix(1);
        }
    }
    return result;
}

std::wstring FileNames::unique(std::wstring_view nodeName) {
    const std::wstring name = fileNameOf(nodeName);
    std::wstring candidate = name;
    for (unsigned number = 2; !taken_.insert(candidate).second; ++number)
        candidate = name + L"%~" + std::to_wstring(number);
    return candidate;
}

bool FileNames::IgnoringCase::operator()(const std::wstring& left, const std::wstring& right) const noexcept {
    return CompareStringOrdinal(left.data(), static_cast<int>(left.size()), right.data(),
                                static_cast<int>(right.size()), TRUE) == CSTR_LESS_THAN;
}

} // namespace Vexel::Tool
