// The hash has to call equal whatever the comparison of names does. That one folds case by the system and
// stops at the first zero character, and so does this.

#include "io/name_places.h"

#include <windows.h>

namespace Vexel::Detail {

namespace {

wchar_t folded(wchar_t character) noexcept {
    if (character < 0x80)
        return character >= L'A' && character <= L'Z' ? static_cast<wchar_t>(character + 32) : character;
    // By the system's own table, whatever the locale; a character goes in the pointer's place.
    const auto argument = static_cast<ULONG_PTR>(character);
    return static_cast<wchar_t>(reinterpret_cast<ULONG_PTR>(CharLowerW(reinterpret_cast<LPWSTR>(argument))));
}

} // namespace

// FNV-1a over the folded characters. The comparison stops at a zero, so the hash does.
std::size_t hashName(std::wstring_view name) noexcept {
    std::size_t hash = 0xCBF29CE484222325;
    for (const wchar_t character : name) {
        if (character == 0)
            break;
        hash = (hash ^ folded(character)) * 0x100000001B3;
    }
    return hash;
}

} // namespace Vexel::Detail
