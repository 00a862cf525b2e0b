#include "text.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <stdexcept>

namespace Vexel::Tool {
namespace {

int checkedLength(std::size_t length) {
    if (length > static_cast<std::size_t>(std::numeric_limits<int>::max()))
        throw std::length_error("text too long to convert");
    return static_cast<int>(length);
}

} // namespace

std::string toUtf8(std::wstring_view text) {
    const int length = checkedLength(text.size());
    const int needed = WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
    std::string result(static_cast<std::size_t>(needed), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), length, result.data(), needed, nullptr, nullptr);
    return result;
}

std::wstring toUtf16(std::string_view text) {
    const int length = checkedLength(text.size());
    const int needed = MultiByteToWideChar(CP_UTF8, 0, text.data(), length, nullptr, 0);
    std::wstring result(static_cast<std::size_t>(needed), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), length, result.data(), needed);
    return result;
}

std::string toIso8601(const FILETIME& time) {
    SYSTEMTIME parts;
    if ((time.dwLowDateTime | time.dwHighDateTime) == 0 || !FileTimeToSystemTime(&time, &parts))
        return {};
    constexpr unsigned long long kTicksPerSecond = 10'000'000;
    const auto ticks = (static_cast<unsigned long long>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
    std::string result(64, '\0');
    const int length =
        std::snprintf(result.data(), result.size(), "%04u-%02u-%02uT%02u:%02u:%02u", parts.wYear,
                      parts.wMonth, parts.wDay, parts.wHour, parts.wMinute, parts.wSecond);
    result.resize(static_cast<std::size_t>(length));
    if (const auto fraction = ticks % kTicksPerSecond; fraction != 0) {
        const std::string digits = std::to_string(kTicksPerSecond + fraction);
        result += "." + digits.substr(1);
    }
    return result + "Z";
}

std::wstring onOneLine(std::wstring text) {
    std::replace_if(
        text.begin(), text.end(), [](wchar_t c) { return c < 0x20 || c == 0x7f; }, L'?');
    return text;
}

} // namespace Vexel::Tool
