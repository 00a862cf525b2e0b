#include "io/text_encoding.h"

#include <windows.h>

#include <algorithm>
#include <array>
#include <cstdint>

namespace Vexel::Detail {

using vxio::TextEncoding;

namespace {

constexpr wchar_t replacement = 0xFFFD;
constexpr std::size_t detectedBytes = 4096;

constexpr unsigned char utf8Mark[]{0xEF, 0xBB, 0xBF};
constexpr unsigned char utf16LEMark[]{0xFF, 0xFE};
constexpr unsigned char utf16BEMark[]{0xFE, 0xFF};
constexpr unsigned char utf32LEMark[]{0xFF, 0xFE, 0, 0};
constexpr unsigned char utf32BEMark[]{0, 0, 0xFE, 0xFF};

bool beginsWith(Bytes bytes, Bytes start) noexcept {
    return bytes.size() >= start.size() && std::equal(start.begin(), start.end(), bytes.begin());
}

constexpr bool isHighSurrogate(std::uint32_t unit) noexcept { return unit >= 0xD800 && unit < 0xDC00; }
constexpr bool isLowSurrogate(std::uint32_t unit) noexcept { return unit >= 0xDC00 && unit < 0xE000; }
constexpr bool isSurrogate(std::uint32_t unit) noexcept { return unit >= 0xD800 && unit < 0xE000; }

UINT codePage(TextEncoding encoding) noexcept {
    switch (encoding) {
    case TextEncoding::Ansi:
        return CP_ACP;
    case TextEncoding::Latin1:
        return 28591;
    default:
        return CP_UTF8;
    }
}

/// How many bytes a UTF-8 character has by its first; 0: it cannot begin with that one.
std::size_t utf8Length(unsigned char first) noexcept {
    if (first < 0x80)
        return 1;
    if (first < 0xC2 || first > 0xF4)
        return 0;
    if (first < 0xE0)
        return 2;
    return first < 0xF0 ? 3 : 4;
}

/// Whether the bytes are UTF-8 up to a character that may have been cut off.
bool isUtf8(Bytes bytes, bool isWhole) noexcept {
    while (!bytes.empty()) {
        const std::size_t length = utf8Length(bytes.front());
        const Bytes character = bytes.first((std::min)(length, bytes.size()));
        if (length == 0 || (character.size() < length && isWhole))
            return false;
        if (!std::all_of(character.begin() + 1, character.end(),
                         [](unsigned char byte) { return (byte & 0xC0) == 0x80; }))
            return false;
        bytes = bytes.subspan(character.size());
    }
    return true;
}

/// By which bytes of each four are zero, in text that is mostly of Latin letters.
TextEncoding detectWide(Bytes bytes) noexcept {
    std::array<std::size_t, 4> zeros{};
    const std::size_t groups = bytes.size() / 4;
    for (std::size_t i = 0; i < groups * 4; ++i)
        zeros[i % 4] += bytes[i] == 0;
    const auto mostly = [&](std::size_t place) { return zeros[place] * 4 > groups * 3; };
    const auto hardly = [&](std::size_t place) { return zeros[place] * 4 < groups; };
    if (groups == 0)
        return TextEncoding::Detect;
    if (hardly(0) && mostly(1) && mostly(2) && mostly(3))
        return TextEncoding::Utf32LE;
    if (mostly(0) && mostly(1) && mostly(2) && hardly(3))
        return TextEncoding::Utf32BE;
    if (hardly(0) && mostly(1) && hardly(2) && mostly(3))
        return TextEncoding::Utf16LE;
    if (mostly(0) && hardly(1) && mostly(2) && hardly(3))
        return TextEncoding::Utf16BE;
    return TextEncoding::Detect;
}

std::uint32_t unitAt(const unsigned char* bytes, std::size_t size, bool bigEndian) noexcept {
    std::uint32_t unit = 0;
    for (std::size_t i = 0; i < size; ++i)
        unit |= std::uint32_t{bytes[i]} << 8 * (bigEndian ? size - 1 - i : i);
    return unit;
}

void appendCodePoint(std::uint32_t point, std::vector<wchar_t>& text) {
    if (point >= 0x110000 || isSurrogate(point)) {
        text.push_back(replacement);
    } else if (point >= 0x10000) {
        text.push_back(static_cast<wchar_t>(0xD7C0 + (point >> 10)));
        text.push_back(static_cast<wchar_t>(0xDC00 | (point & 0x3FF)));
    } else {
        text.push_back(static_cast<wchar_t>(point));
    }
}

void decodeUnits(Bytes bytes, std::size_t size, bool bigEndian, std::vector<wchar_t>& text) {
    const std::size_t whole = bytes.size() / size * size;
    for (std::size_t at = 0; at < whole; at += size) {
        const std::uint32_t unit = unitAt(bytes.data() + at, size, bigEndian);
        if (size == 4)
            appendCodePoint(unit, text);
        else
            text.push_back(static_cast<wchar_t>(unit)); // surrogates go over as they are
    }
    if (whole < bytes.size())
        text.push_back(replacement);
}

void decodeMultiByte(Bytes bytes, UINT page, std::vector<wchar_t>& text) {
    // No code page makes more than one unit of a byte.
    text.resize(bytes.size());
    const int length =
        MultiByteToWideChar(page, 0, reinterpret_cast<const char*>(bytes.data()),
                            static_cast<int>(bytes.size()), text.data(), static_cast<int>(text.size()));
    text.resize(static_cast<std::size_t>((std::max)(length, 0)));
}

void appendUnit(std::uint32_t unit, std::size_t size, bool bigEndian, std::vector<unsigned char>& bytes) {
    for (std::size_t i = 0; i < size; ++i)
        bytes.push_back(static_cast<unsigned char>(unit >> 8 * (bigEndian ? size - 1 - i : i)));
}

/// Calls `append` with each code point; lone surrogates are replaced.
template <class Append>
void forEachCodePoint(std::wstring_view text, const Append& append) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::uint32_t point = text[i];
        if (isHighSurrogate(point) && i + 1 < text.size() && isLowSurrogate(text[i + 1]))
            point = 0x10000 + ((point & 0x3FF) << 10 | (text[++i] & 0x3FFu));
        append(isSurrogate(point) ? replacement : point);
    }
}

void encodeUtf8(std::wstring_view text, std::vector<unsigned char>& bytes) {
    forEachCodePoint(text, [&bytes](std::uint32_t point) {
        const auto add = [&bytes](std::uint32_t byte) { bytes.push_back(static_cast<unsigned char>(byte)); };
        if (point < 0x80) {
            add(point);
            return;
        }
        if (point < 0x800) {
            add(0xC0 | point >> 6);
        } else if (point < 0x10000) {
            add(0xE0 | point >> 12);
            add(0x80 | (point >> 6 & 0x3F));
        } else {
            add(0xF0 | point >> 18);
            add(0x80 | (point >> 12 & 0x3F));
            add(0x80 | (point >> 6 & 0x3F));
        }
        add(0x80 | (point & 0x3F));
    });
}

void encodeUtf16(std::wstring_view text, bool bigEndian, std::vector<unsigned char>& bytes) {
    forEachCodePoint(text, [&](std::uint32_t point) {
        if (point >= 0x10000) {
            appendUnit(0xD7C0 + (point >> 10), 2, bigEndian, bytes);
            point = 0xDC00 | (point & 0x3FF);
        }
        appendUnit(point, 2, bigEndian, bytes);
    });
}

void encodeMultiByte(std::wstring_view text, UINT page, std::vector<unsigned char>& bytes) {
    constexpr std::size_t piece = 1 << 20; // the system counts in int
    while (!text.empty()) {
        std::size_t size = (std::min)(text.size(), piece);
        if (size < text.size() && isHighSurrogate(text[size - 1]))
            --size;
        const int length = static_cast<int>(size);
        // The code pages' own stand-in is "?"; naming it is an error where the system's code page is UTF-8.
        const int wanted = WideCharToMultiByte(page, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
        const std::size_t before = bytes.size();
        bytes.resize(before + static_cast<std::size_t>(wanted));
        WideCharToMultiByte(page, 0, text.data(), length, reinterpret_cast<char*>(bytes.data() + before),
                            wanted, nullptr, nullptr);
        text.remove_prefix(size);
    }
}

} // namespace

std::size_t unitSize(TextEncoding encoding) noexcept {
    switch (encoding) {
    case TextEncoding::Utf16LE:
    case TextEncoding::Utf16BE:
        return 2;
    case TextEncoding::Utf32LE:
    case TextEncoding::Utf32BE:
        return 4;
    default:
        return 1;
    }
}

Bytes byteOrderMark(TextEncoding encoding) noexcept {
    switch (encoding) {
    case TextEncoding::Utf8:
        return utf8Mark;
    case TextEncoding::Utf16LE:
        return utf16LEMark;
    case TextEncoding::Utf16BE:
        return utf16BEMark;
    case TextEncoding::Utf32LE:
        return utf32LEMark;
    case TextEncoding::Utf32BE:
        return utf32BEMark;
    default:
        return {};
    }
}

TextEncoding detectEncoding(Bytes start, bool isWhole) noexcept {
    // UTF-32's mark begins as UTF-16's does.
    for (const TextEncoding marked : {TextEncoding::Utf32LE, TextEncoding::Utf32BE, TextEncoding::Utf8,
                                      TextEncoding::Utf16LE, TextEncoding::Utf16BE})
        if (beginsWith(start, byteOrderMark(marked)))
            return marked;
    const Bytes looked = start.first((std::min)(start.size(), detectedBytes));
    if (const TextEncoding wide = detectWide(looked); wide != TextEncoding::Detect)
        return wide;
    return isUtf8(looked, isWhole && looked.size() == start.size()) ? TextEncoding::Utf8 : TextEncoding::Ansi;
}

void decodeText(Bytes bytes, TextEncoding encoding, std::vector<wchar_t>& text) {
    text.clear();
    if (bytes.empty())
        return;
    const std::size_t size = unitSize(encoding);
    if (size == 1)
        decodeMultiByte(bytes, codePage(encoding), text);
    else
        decodeUnits(bytes, size, encoding == TextEncoding::Utf16BE || encoding == TextEncoding::Utf32BE,
                    text);
}

void encodeText(std::wstring_view text, TextEncoding encoding, std::vector<unsigned char>& bytes) {
    switch (encoding) {
    case TextEncoding::Detect:
    case TextEncoding::Utf8:
        encodeUtf8(text, bytes);
        break;
    case TextEncoding::Utf16LE:
    case TextEncoding::Utf16BE:
        encodeUtf16(text, encoding == TextEncoding::Utf16BE, bytes);
        break;
    case TextEncoding::Utf32LE:
    case TextEncoding::Utf32BE:
        forEachCodePoint(text, [&](std::uint32_t point) {
            appendUnit(point, 4, encoding == TextEncoding::Utf32BE, bytes);
        });
        break;
    default:
        encodeMultiByte(text, codePage(encoding), bytes);
    }
}

} // namespace Vexel::Detail
