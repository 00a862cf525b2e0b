#pragma once

#include <cstddef>
#include <string_view>

namespace Vexel::Detail {

constexpr bool isSeparator(wchar_t c) noexcept { return c == L'\\' || c == L'/'; }

constexpr bool isDriveLetter(wchar_t c) noexcept {
    return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z');
}

/// 2 when the text starts with an ASCII letter and a colon, else 0.
std::size_t drivePrefixLength(std::wstring_view path) noexcept;

/// The length below which no trailing separator is removed: 4 for the long-path prefix, 2 for a network path,
/// else 1.
std::size_t protectedRootLength(std::wstring_view path) noexcept;

/// Whether `path` is absolute and such that the system's canonical form of it is certain to be `path` itself:
/// on a drive, without anything that the system takes out, replaces, or knows as the name of a device. False
/// says that the system has to be asked.
bool isSurelyCanonical(std::wstring_view path) noexcept;

} // namespace Vexel::Detail
