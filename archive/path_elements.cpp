// How names become elements of paths. The encoding is that of documents in the field, including what decoding
// makes of texts that no encoding ever made.

#include "archive/item_paths.h"

#include <vexel/archive.h>

#include <algorithm>
#include <string>

namespace Vexel::Storage {

namespace {

constexpr wchar_t kEscape = L'%';

bool needsEscape(wchar_t c) noexcept { return c == L'/' || c == kEscape || c < 0x20; }

/// -1 for what is no hexadecimal digit.
int digitValue(wchar_t c) noexcept {
    if (c >= L'0' && c <= L'9')
        return c - L'0';
    if (c >= L'a' && c <= L'f')
        return c - L'a' + 10;
    if (c >= L'A' && c <= L'F')
        return c - L'A' + 10;
    return -1;
}

} // namespace

CString SZipArchive::encodePathElement(std::wstring_view name) {
    if (std::none_of(name.begin(), name.end(), needsEscape))
        return stringOf(name);
    std::wstring element;
    element.reserve(name.size() + 8);
    for (const wchar_t c : name) {
        if (!needsEscape(c)) {
            element += c;
            continue;
        }
        constexpr wchar_t kDigits[] = L"0123456789abcdef";
        element += {kEscape, kDigits[c >> 4], kDigits[c & 0xF]};
    }
    return stringOf(element);
}

CString SZipArchive::decodePathElement(std::wstring_view element) {
    if (element.find(kEscape) == std::wstring_view::npos)
        return stringOf(element);
    std::wstring name;
    name.reserve(element.size());
    // After a malformed escape the character that follows its two is taken for the start of the next one,
    // whatever it is. Names in documents have been read so ever since.
    bool startsEscape = false;
    for (std::size_t i = 0; i < element.size();) {
        const wchar_t c = element[i++];
        if (c != kEscape && !startsEscape) {
            name += c;
            continue;
        }
        startsEscape = false;
        if (i == element.size()) {
            name += kEscape;
            break;
        }
        int value = digitValue(element[i++]);
        if (value < 0) {
            name += kEscape;
            startsEscape = true;
            continue;
        }
        const int second = i < element.size() ? digitValue(element[i]) : -1;
        if (second >= 0) {
            value = value * 16 + second;
            ++i;
        }
        name += static_cast<wchar_t>(value);
    }
    return stringOf(name);
}

} // namespace Vexel::Storage
