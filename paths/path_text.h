#pragma once

#include <cstddef>
#include <string_view>

namespace Vexel::Detail {

constexpr bool IsSeparator(wchar_t c) noexcept { return c == L'\\' || c == L'/'; }

/// 2 when the text starts with an ASCII letter and a colon, else 0.
std::size_t DrivePrefixLength(std::wstring_view path) noexcept;

} // namespace Vexel::Detail
