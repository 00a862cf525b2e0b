#pragma once

#include "base/text.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <string>
#include <string_view>

namespace Vexel::Detail {

template <class Character>
constexpr unsigned long long charactersIn(unsigned long long bytes) {
    return bytes / sizeof(Character) + (bytes % sizeof(Character) != 0);
}

/// Up to `bytes` bytes of text from `read(buffer, bytes)`, which returns how many it has read; `arrived` is
/// how many came. Memory follows what arrives.
template <class Character, class Read>
std::basic_string<Character> readArriving(unsigned long long bytes, Read read, unsigned long long& arrived) {
    constexpr unsigned long long kFirstStep = 64 * 1024;
    std::basic_string<Character> text;
    arrived = 0;
    while (arrived < bytes) {
        const unsigned long long step = (std::min)(bytes - arrived, (std::max)(kFirstStep, arrived));
        text.resize(static_cast<std::size_t>(charactersIn<Character>(arrived + step)));
        char* const end = reinterpret_cast<char*>(text.data()) + arrived;
        const auto came = static_cast<unsigned long long>(read(end, static_cast<std::size_t>(step)));
        arrived += (std::min)(came, step);
        if (came < step)
            break;
    }
    text.resize(static_cast<std::size_t>(charactersIn<Character>(arrived)));
    return text;
}

/// Reads up to `bytes` bytes of UTF-16 text likewise, and gives it to `receive` as a `std::wstring_view`; a
/// last odd byte is the low one of its character. Returns how many bytes came. Short texts, which nearly all
/// are, take no memory on the way.
template <class Read, class Receive>
unsigned long long readWide(unsigned long long bytes, Read read, Receive receive) {
    static_assert(sizeof(wchar_t) == 2);
    wchar_t buffer[128];
    std::wstring longer;
    wchar_t* text = buffer;
    unsigned long long arrived = 0;
    if (bytes <= sizeof buffer) {
        const auto wanted = static_cast<std::size_t>(bytes);
        arrived = bytes > 0 ? (std::min)(bytes, 0ULL + read(reinterpret_cast<char*>(buffer), wanted)) : 0;
    } else {
        longer = readArriving<wchar_t>(bytes, read, arrived);
        text = longer.data();
    }
    if (arrived % 2 != 0)
        text[arrived / 2] &= 0xFF;
    receive(std::wstring_view(text, static_cast<std::size_t>(charactersIn<wchar_t>(arrived))));
    return arrived;
}

/// Reads layout U behind its count of bytes: whole characters by that count, without zeros at the end.
/// Returns how many bytes came.
template <class Read>
unsigned long long readUniString(unsigned long bytes, Read read, CStringW& text) {
    return readWide(bytes, read, [&](std::wstring_view wide) {
        wide = wide.substr(0, bytes / 2);
        wide = wide.substr(0, wide.find_last_not_of(L'\0') + 1);
        assign(text, wide);
    });
}

} // namespace Vexel::Detail
