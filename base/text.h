#pragma once

#include <vexel/framework.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <string_view>

/// Texts of the framework as views, and views as texts. A view holds as long as its text stays as it is. No
/// text may have more than `INT_MAX` characters: whoever takes one from outside checks that first.
namespace Vexel::Detail {

inline std::wstring_view viewOf(const CStringW& text) noexcept {
    return {text.GetString(), static_cast<std::size_t>(text.GetLength())};
}

inline CStringW stringOf(std::wstring_view text) { return {text.data(), static_cast<int>(text.size())}; }

/// Texts behind each other, in one block of memory from the start.
inline CStringW joined(std::wstring_view first, std::wstring_view second, std::wstring_view third = {}) {
    const std::size_t length = first.size() + second.size() + third.size();
    CStringW text;
    if (length == 0)
        return text;
    if (length > INT_MAX)
        AfxThrowMemoryException();
    wchar_t* place = text.GetBuffer(static_cast<int>(length));
    for (const std::wstring_view part : {first, second, third})
        place = std::copy(part.begin(), part.end(), place);
    text.ReleaseBufferSetLength(static_cast<int>(length));
    return text;
}

inline void assign(CStringW& to, std::wstring_view text) {
    to.SetString(text.data(), static_cast<int>(text.size()));
}

} // namespace Vexel::Detail
