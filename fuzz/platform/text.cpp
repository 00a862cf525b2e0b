// Code pages and the shell's functions on paths, as far as the targets reach them. Of the code pages there
// are UTF-8, Latin 1 for whatever has one byte a character, and for 932 a made-up one of two bytes: bounds
// are what counts.

#include <windows.h>

#include <shlwapi.h>

#include <algorithm>
#include <cwctype>
#include <string>
#include <string_view>

namespace {

constexpr UINT kTwoBytes = 932;

bool isLead(unsigned char byte) { return (byte >= 0x81 && byte <= 0x9F) || (byte >= 0xE0 && byte <= 0xFC); }

/// The number of bytes that the character at the start takes, and the character; 0 and U+FFFD for what is
/// none.
struct Decoded {
    std::size_t size;
    char32_t character;
    bool isValid;
};

Decoded decodeUtf8(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
    if (first < 0x80)
        return {1, first, true};
    const std::size_t size = first >= 0xF0 && first <= 0xF4  ? 4
                             : first >= 0xE0 && first < 0xF0 ? 3
                             : first >= 0xC2 && first < 0xE0 ? 2
                                                             : 0;
    if (size == 0)
        return {1, 0xFFFD, false};
    char32_t character = first & (0x7FU >> size);
    for (std::size_t i = 1; i < size; ++i) {
        if (i >= text.size() || (byte(i) & 0xC0) != 0x80)
            return {i, 0xFFFD, false};
        character = character << 6 | (byte(i) & 0x3F);
        const char32_t least = size == 3 ? 0x20 : 0x10;
        if (i == 1 && size > 2 &&
            (character < least || (size == 3 && character >= 0x360 && character < 0x380) ||
             (size == 4 && character >= 0x110)))
            return {1, 0xFFFD, false};
    }
    return {size, character, true};
}

Decoded decode(UINT page, std::string_view text) {
    if (page == CP_UTF8)
        return decodeUtf8(text);
    const auto first = static_cast<unsigned char>(text[0]);
    if (page != kTwoBytes || !isLead(first))
        return {1, first, true};
    if (text.size() < 2 || text[1] == 0)
        return {1, 0xFFFD, false};
    return {2, static_cast<char32_t>(0x3000 + (first << 7) + static_cast<unsigned char>(text[1])), true};
}

void append(std::wstring& wide, char32_t character) {
    if (character >= 0x10000) {
        wide += static_cast<wchar_t>(0xD7C0 + (character >> 10));
        wide += static_cast<wchar_t>(0xDC00 + (character & 0x3FF));
    } else {
        wide += static_cast<wchar_t>(character);
    }
}

void appendUtf8(std::string& text, char32_t character) {
    const auto part = [&](char32_t value) { text += static_cast<char>(value); };
    if (character < 0x80) {
        part(character);
    } else if (character < 0x800) {
        part(0xC0 | character >> 6);
        part(0x80 | (character & 0x3F));
    } else if (character < 0x10000) {
        part(0xE0 | character >> 12);
        part(0x80 | (character >> 6 & 0x3F));
        part(0x80 | (character & 0x3F));
    } else {
        part(0xF0 | character >> 18);
        part(0x80 | (character >> 12 & 0x3F));
        part(0x80 | (character >> 6 & 0x3F));
        part(0x80 | (character & 0x3F));
    }
}

/// What a function answers that fills a buffer or tells how large it must be.
template <class Text, class Unit>
int hand(const Text& text, Unit* target, int room) {
    if (room == 0)
        return static_cast<int>(text.size());
    if (text.size() > static_cast<std::size_t>(room)) {
        SetLastError(122);
        return 0;
    }
    std::copy(text.begin(), text.end(), target);
    return static_cast<int>(text.size());
}

bool isSeparator(wchar_t unit) { return unit == L'\\' || unit == L'/'; }

} // namespace

extern "C" {

UINT GetACP() { return 1252; }

BOOL IsValidCodePage(UINT page) {
    return page == CP_UTF8 || page == kTwoBytes || (page >= 1250 && page <= 1258);
}

BOOL IsDBCSLeadByteEx(UINT page, BYTE byte) { return page == kTwoBytes && isLead(byte); }

BOOL GetCPInfo(UINT page, CPINFO* info) {
    *info = {};
    info->MaxCharSize = page == CP_UTF8 ? 4 : page == kTwoBytes ? 2 : 1;
    info->DefaultChar[0] = '?';
    return TRUE;
}

int MultiByteToWideChar(UINT page, DWORD flags, const char* text, int size, wchar_t* wide, int room) {
    std::string_view rest(text, size < 0 ? strlen(text) + 1 : static_cast<std::size_t>(size));
    if (rest.empty()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    std::wstring decoded;
    while (!rest.empty()) {
        const Decoded next = decode(page, rest);
        if (!next.isValid && (flags & MB_ERR_INVALID_CHARS) != 0) {
            SetLastError(1113);
            return 0;
        }
        append(decoded, next.character);
        rest.remove_prefix(next.size);
    }
    return hand(decoded, wide, room);
}

int WideCharToMultiByte(UINT page, DWORD, const wchar_t* wide, int size, char* text, int room,
                        const char* otherwise, BOOL* usedOtherwise) {
    const std::wstring_view from(wide, size < 0 ? wcslen(wide) + 1 : static_cast<std::size_t>(size));
    if (usedOtherwise)
        *usedOtherwise = FALSE;
    if (from.empty()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    std::string encoded;
    for (std::size_t i = 0; i < from.size(); ++i) {
        char32_t character = from[i];
        if (character >= 0xD800 && character < 0xDC00 && i + 1 < from.size() && from[i + 1] >= 0xDC00 &&
            from[i + 1] < 0xE000)
            character = 0x10000 + ((character & 0x3FF) << 10) + (from[++i] & 0x3FFU);
        if (page == CP_UTF8) {
            appendUtf8(encoded, character >= 0xD800 && character < 0xE000 ? 0xFFFD : character);
        } else if (character < 0x100 && !(page == kTwoBytes && character >= 0x80)) {
            encoded += static_cast<char>(character);
        } else {
            encoded += otherwise ? *otherwise : '?';
            if (usedOtherwise)
                *usedOtherwise = TRUE;
        }
    }
    return hand(encoded, text, room);
}

wchar_t* CharLowerW(wchar_t* text) {
    const auto unit = reinterpret_cast<uintptr_t>(text);
    if (unit <= 0xFFFF)
        return reinterpret_cast<wchar_t*>(static_cast<uintptr_t>(towlower(static_cast<wint_t>(unit))));
    for (wchar_t* place = text; *place != 0; ++place)
        *place = static_cast<wchar_t>(towlower(*place));
    return text;
}

BOOL PathIsRelativeW(const wchar_t* path) {
    return !(isSeparator(path[0]) || (path[0] != 0 && path[1] == L':'));
}

BOOL PathIsNetworkPathW(const wchar_t* path) { return path[0] == L'\\' && path[1] == L'\\'; }

wchar_t* PathFindExtensionW(const wchar_t* path) {
    const wchar_t* dot = nullptr;
    for (; *path != 0; ++path) {
        if (*path == L'\\' || *path == L' ')
            dot = nullptr;
        else if (*path == L'.')
            dot = path;
    }
    return const_cast<wchar_t*>(dot ? dot : path);
}

// Without a current directory but that of drive C; trailing dots and blanks of elements go.
DWORD GetFullPathNameW(const wchar_t* path, DWORD room, wchar_t* full, wchar_t**) {
    std::wstring_view rest(path);
    std::wstring result;
    if (rest.size() > 1 && rest[1] == L':') {
        result = rest.substr(0, 2);
        rest.remove_prefix(2);
    } else if (rest.size() > 1 && isSeparator(rest[0]) && isSeparator(rest[1])) {
        result = L"\\";
        rest.remove_prefix(1);
    } else {
        result = L"C:";
    }
    const std::size_t root = result.size();
    while (!rest.empty()) {
        const std::size_t end = (std::min)(rest.find_first_of(L"\\/"), rest.size());
        std::wstring_view element = rest.substr(0, end);
        rest.remove_prefix((std::min)(end + 1, rest.size()));
        if (element == L"..") {
            result.resize((std::max)(root, (std::min)(result.rfind(L'\\'), result.size())));
            continue;
        }
        element = element.substr(0, element.find_last_not_of(L". ") + 1);
        if (!element.empty())
            (result += L'\\') += element;
    }
    if (result.size() == root)
        result += L'\\';
    if (result.size() + 1 > room)
        return static_cast<DWORD>(result.size() + 1);
    std::copy(result.begin(), result.end(), full);
    full[result.size()] = 0;
    return static_cast<DWORD>(result.size());
}

DWORD GetLongPathNameW(const wchar_t*, wchar_t*, DWORD) {
    SetLastError(ERROR_FILE_NOT_FOUND);
    return 0;
}

} // extern "C"
