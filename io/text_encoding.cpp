// The system converts what has a code page. UTF-16 and UTF-32 of either byte order have none, or none that
// reports faults, and are converted here unit by unit. Whatever cannot be converted becomes a stand-in and is
// reported.

#include "io/text_encoding.h"

#include <windows.h>

#include <algorithm>
#include <cstdint>

namespace Vexel::Detail {

using vxio::TextEncoding;

namespace {

constexpr wchar_t kReplacement = 0xFFFD;

constexpr unsigned char kUtf8Mark[]{0xEF, 0xBB, 0xBF};
constexpr unsigned char kUtf16LeMark[]{0xFF, 0xFE};
constexpr unsigned char kUtf16BeMark[]{0xFE, 0xFF};
constexpr unsigned char kUtf32LeMark[]{0xFF, 0xFE, 0, 0};
constexpr unsigned char kUtf32BeMark[]{0, 0, 0xFE, 0xFF};

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

std::uint32_t unitAt(const unsigned char* bytes, std::size_t size, bool bigEndian) noexcept {
    std::uint32_t unit = 0;
    for (std::size_t i = 0; i < size; ++i)
        unit |= std::uint32_t{bytes[i]} << 8 * (bigEndian ? size - 1 - i : i);
    return unit;
}

/// False when there is no such code point.
bool appendCodePoint(std::uint32_t point, std::vector<wchar_t>& text) {
    if (point >= 0x110000 || isSurrogate(point)) {
        text.push_back(kReplacement);
        return false;
    }
    if (point >= 0x10000) {
        text.push_back(static_cast<wchar_t>(0xD7C0 + (point >> 10)));
        text.push_back(static_cast<wchar_t>(0xDC00 | (point & 0x3FF)));
    } else {
        text.push_back(static_cast<wchar_t>(point));
    }
    return true;
}

bool decodeUnits(Bytes bytes, std::size_t size, bool bigEndian, std::vector<wchar_t>& text) {
    const std::size_t whole = bytes.size() / size * size;
    bool isSound = whole == bytes.size();
    for (std::size_t at = 0; at < whole; at += size) {
        const std::uint32_t unit = unitAt(bytes.data() + at, size, bigEndian);
        if (size == 4)
            isSound = appendCodePoint(unit, text) && isSound;
        else
            text.push_back(static_cast<wchar_t>(unit)); // surrogates go over as they are
    }
    if (whole < bytes.size())
        text.push_back(kReplacement);
    return isSound;
}

/// Strictly first, to learn whether all bytes are characters; the second call puts stand-ins where they are
/// not.
bool decodeMultiByte(Bytes bytes, UINT page, std::vector<wchar_t>& text) {
    text.resize(bytes.size()); // no code page makes more than one unit of a byte
    const auto decode = [&](DWORD flags) {
        return MultiByteToWideChar(page, flags, reinterpret_cast<const char*>(bytes.data()),
                                   static_cast<int>(bytes.size()), text.data(),
                                   static_cast<int>(text.size()));
    };
    int length = decode(MB_ERR_INVALID_CHARS);
    const bool isSound = length > 0;
    if (!isSound)
        length = decode(0);
    text.resize(static_cast<std::size_t>((std::max)(length, 0)));
    return isSound;
}

void appendUnit(std::uint32_t unit, std::size_t size, bool bigEndian, std::vector<unsigned char>& bytes) {
    for (std::size_t i = 0; i < size; ++i)
        bytes.push_back(static_cast<unsigned char>(unit >> 8 * (bigEndian ? size - 1 - i : i)));
}

/// Calls `visit` with each code point, and with lone surrogates.
template <class Visit>
void forEachCodePoint(std::wstring_view text, const Visit& visit) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::uint32_t point = text[i];
        if (isHighSurrogate(point) && i + 1 < text.size() && isLowSurrogate(text[i + 1]))
            point = 0x10000 + ((point & 0x3FF) << 10 | (text[++i] & 0x3FFu));
        visit(point);
    }
}

/// Piece by piece, never between the halves of a surrogate pair, which would become two stand-ins.
void encodeMultiByte(std::wstring_view text, UINT page, std::vector<unsigned char>& bytes) {
    constexpr std::size_t kPiece = 1 << 20; // the system counts in int
    while (!text.empty()) {
        std::size_t size = (std::min)(text.size(), kPiece);
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

bool isBigEndian(TextEncoding encoding) noexcept {
    return encoding == TextEncoding::Utf16BE || encoding == TextEncoding::Utf32BE;
}

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
        return kUtf8Mark;
    case TextEncoding::Utf16LE:
        return kUtf16LeMark;
    case TextEncoding::Utf16BE:
        return kUtf16BeMark;
    case TextEncoding::Utf32LE:
        return kUtf32LeMark;
    case TextEncoding::Utf32BE:
        return kUtf32BeMark;
    default:
        return {};
    }
}

TextEncoding markedEncoding(Bytes start) noexcept {
    // UTF-32's mark begins as UTF-16's does.
    for (const TextEncoding marked : {TextEncoding::Utf32LE, TextEncoding::Utf32BE, TextEncoding::Utf8,
                                      TextEncoding::Utf16LE, TextEncoding::Utf16BE})
        if (beginsWith(start, byteOrderMark(marked)))
            return marked;
    return TextEncoding::Detect;
}

bool hasLoneSurrogate(std::wstring_view text) noexcept {
    bool isLone = false;
    forEachCodePoint(text, [&isLone](std::uint32_t point) { isLone = isLone || isSurrogate(point); });
    return isLone;
}

bool decodeText(Bytes bytes, TextEncoding encoding, std::vector<wchar_t>& text) {
    text.clear();
    if (bytes.empty())
        return true;
    const std::size_t size = unitSize(encoding);
    return size == 1 ? decodeMultiByte(bytes, codePage(encoding), text)
                     : decodeUnits(bytes, size, isBigEndian(encoding), text);
}

void encodeText(std::wstring_view text, TextEncoding encoding, std::vector<unsigned char>& bytes) {
    const std::size_t size = unitSize(encoding);
    const auto append = [&](std::uint32_t unit) { appendUnit(unit, size, isBigEndian(encoding), bytes); };
    if (size == 1)
        encodeMultiByte(text, codePage(encoding), bytes);
    else if (size == 2)
        std::for_each(text.begin(), text.end(), append);
    else
        forEachCodePoint(text,
                         [&](std::uint32_t point) { append(isSurrogate(point) ? kReplacement : point); });
}

} // namespace Vexel::Detail
