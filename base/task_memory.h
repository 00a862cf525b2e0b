#pragma once

#include <objbase.h>

#include <cstring>
#include <memory>
#include <string_view>

namespace Vexel::Detail {

struct FreeTaskMemory {
    void operator()(void* memory) const noexcept { CoTaskMemFree(memory); }
};

/// A text that the system or an interface made for its caller.
using TaskText = std::unique_ptr<wchar_t, FreeTaskMemory>;

/// A zero-terminated copy for a caller to free by CoTaskMemFree; null without memory.
inline wchar_t* duplicateText(std::wstring_view text) noexcept {
    auto* const copy = static_cast<wchar_t*>(CoTaskMemAlloc((text.size() + 1) * sizeof(wchar_t)));
    if (copy) {
        std::memcpy(copy, text.data(), text.size() * sizeof(wchar_t));
        copy[text.size()] = L'\0';
    }
    return copy;
}

} // namespace Vexel::Detail
