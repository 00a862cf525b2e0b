#pragma once

#include <vexel/framework.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace Vexel::Detail {

/// Up to `count` bytes from `read(buffer, bytes)`, which returns how many it has read. Memory follows what
/// arrives.
template <class Read>
std::string readArriving(unsigned long long count, Read read) {
    constexpr unsigned long long firstStep = 64 * 1024;
    std::string bytes;
    while (bytes.size() < count) {
        const std::size_t before = bytes.size();
        const auto step = static_cast<std::size_t>(
            (std::min)(count - before, (std::max)(firstStep, static_cast<unsigned long long>(before))));
        bytes.resize(before + step);
        const auto arrived = static_cast<std::size_t>(read(bytes.data() + before, step));
        bytes.resize(before + (std::min)(arrived, step));
        if (arrived < step)
            break;
    }
    return bytes;
}

/// The UTF-16 text in `bytes`, at most `length` characters; a last odd byte is the low one of its character.
inline std::wstring wideFrom(std::string_view bytes, unsigned long long length) {
    static_assert(sizeof(wchar_t) == 2);
    std::wstring text(static_cast<std::size_t>((std::min)(length, (bytes.size() + 1ULL) / 2)), L'\0');
    std::memcpy(text.data(), bytes.data(), (std::min)(bytes.size(), text.size() * 2));
    return text;
}

inline CStringW frameworkString(std::wstring_view text) {
    if (text.size() > 0x7FFFFFFF)
        AfxThrowMemoryException();
    return {text.data(), static_cast<int>(text.size())};
}

/// What layout U makes of its bytes: whole characters by the count, without zeros at the end.
inline CStringW uniString(std::string_view bytes, unsigned long count) {
    std::wstring text = wideFrom(bytes, count / 2);
    text.resize(text.find_last_not_of(L'\0') + 1);
    return frameworkString(text);
}

} // namespace Vexel::Detail
