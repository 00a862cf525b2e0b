// Numbers in settings are read and written by hand or by the standard's locale-free functions: a settings
// file has to read the same whatever locale the application has set.

#include "io/ini_numbers.h"

#include "base/text.h"

#include <array>
#include <charconv>
#include <climits>
#include <cmath>
#include <cwctype>
#include <iterator>
#include <string>

namespace Vexel::Detail {

namespace {

/// The text if it is plain ASCII and not absurdly long: the number parsers know no other.
std::optional<std::string> narrowed(std::wstring_view text) {
    constexpr std::size_t kLongest = 4096;
    if (text.size() > kLongest)
        return std::nullopt;
    std::string narrow;
    narrow.reserve(text.size());
    for (const wchar_t character : text) {
        if (character >= 0x80)
            return std::nullopt;
        narrow.push_back(static_cast<char>(character));
    }
    return narrow;
}

CStringW widened(const char* begin, const char* end) {
    const std::wstring wide(begin, end);
    return stringOf(wide);
}

} // namespace

std::wstring_view trimmed(std::wstring_view text) noexcept {
    while (!text.empty() && std::iswspace(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && std::iswspace(text.back()))
        text.remove_suffix(1);
    return text;
}

std::optional<int> parseInt(std::wstring_view text) noexcept {
    text = trimmed(text);
    const bool negative = !text.empty() && text.front() == L'-';
    if (!text.empty() && (negative || text.front() == L'+'))
        text.remove_prefix(1);
    if (text.empty())
        return std::nullopt;
    const long long limit = negative ? -static_cast<long long>(INT_MIN) : INT_MAX;
    long long value = 0;
    for (const wchar_t digit : text) {
        if (digit < L'0' || digit > L'9')
            return std::nullopt;
        value = value * 10 + (digit - L'0');
        if (value > limit)
            return std::nullopt;
    }
    return static_cast<int>(negative ? -value : value);
}

std::optional<double> parseDouble(std::wstring_view text) {
    const auto narrow = narrowed(trimmed(text));
    if (!narrow || narrow->empty())
        return std::nullopt;
    const char* begin = narrow->data();
    const char* const end = begin + narrow->size();
    if (*begin == '+' && narrow->size() > 1 && begin[1] != '-')
        ++begin;
    double value = 0;
    const auto [stop, error] = std::from_chars(begin, end, value);
    if (error != std::errc() || stop != end)
        return std::nullopt;
    return value;
}

CStringW formatInt(int value) {
    std::array<char, 16> text;
    const auto result = std::to_chars(text.data(), text.data() + text.size(), value);
    return widened(text.data(), result.ptr);
}

CStringW formatDouble(double value) {
    if (std::isnan(value))
        return {L"nan"}; // never with the sign that not-a-number can have
    std::array<char, 32> text;
    const auto result = std::to_chars(text.data(), text.data() + text.size(), value);
    return widened(text.data(), result.ptr);
}

} // namespace Vexel::Detail
