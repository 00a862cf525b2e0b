#pragma once

#include <vexel/framework.h>

#include <cstddef>
#include <string_view>

/// Texts of the framework as views, and views as texts. A view holds as long as its text stays as it is. No
/// text may have more than `INT_MAX` characters: whoever takes one from outside checks that first.
namespace Vexel::Detail {

inline std::wstring_view viewOf(const CStringW& text) noexcept {
    return {text.GetString(), static_cast<std::size_t>(text.GetLength())};
}

inline CStringW stringOf(std::wstring_view text) { return {text.data(), static_cast<int>(text.size())}; }

inline void assign(CStringW& to, std::wstring_view text) {
    to.SetString(text.data(), static_cast<int>(text.size()));
}

inline void append(CStringW& to, std::wstring_view text) {
    to.Append(text.data(), static_cast<int>(text.size()));
}

} // namespace Vexel::Detail
