#pragma once

#include "io/text_encoding.h"

#include <windows.h>

#include <array>
#include <cstdint>

/// What encoding a file without a byte-order mark has, by all of its contents. They come in parts, each but
/// the last of a multiple of four bytes.
namespace Vexel::Detail {

/// UTF-8 as Unicode has it: no longer forms than needed, no surrogates, nothing above U+10FFFF.
class Utf8Guess {
public:
    void add(Bytes part) noexcept;
    bool hasZeros() const noexcept { return hasZeros_; }
    /// When `isWhole` is not set, more may follow.
    bool isLikely(bool isWhole) const noexcept { return isValid_ && (left_ == 0 || !isWhole); }

private:
    void begin(unsigned char byte) noexcept;

    bool hasZeros_ = false;
    bool isValid_ = true;
    unsigned left_ = 0; // bytes of the character
    unsigned char lowest_ = 0x80;
    unsigned char highest_ = 0xBF; // of the next one
};

/// UTF-16 or UTF-32.
class UnitGuess {
public:
    explicit UnitGuess(vxio::TextEncoding encoding) noexcept : encoding_(encoding) {}
    void add(Bytes part) noexcept;
    bool isLikely() const noexcept;

private:
    void addUnit(std::uint32_t unit) noexcept;

    vxio::TextEncoding encoding_;
    bool isValid_ = true;
    bool isInPair_ = false;
    std::uint64_t units_ = 0;
    std::uint64_t plain_ = 0; // of ASCII
    std::uint64_t lineFeeds_ = 0;
    std::uint64_t lineFeedBytes_ = 0; // line feeds as one-byte text has them
};

/// Whether a code page has a character for everything.
class CodePageGuess {
public:
    explicit CodePageGuess(UINT page) noexcept;
    void add(Bytes part) noexcept;
    bool isLikely() const noexcept { return isValid_ && lead_ == 0; }

private:
    UINT page_;
    bool isValid_;
    unsigned char lead_ = 0; // the first byte of a character of two
    std::array<bool, 256> isCharacter_{};
};

/// `forEachPart` calls `add` of its argument with all parts.
template <class ForEachPart>
vxio::TextEncoding guessEncoding(const ForEachPart& forEachPart, bool isWhole) {
    using vxio::TextEncoding;
    Utf8Guess utf8;
    forEachPart(utf8);
    if (utf8.hasZeros()) {
        for (const TextEncoding encoding :
             {TextEncoding::Utf32LE, TextEncoding::Utf32BE, TextEncoding::Utf16LE, TextEncoding::Utf16BE}) {
            UnitGuess units(encoding);
            forEachPart(units);
            if (units.isLikely())
                return encoding;
        }
    }
    if (utf8.isLikely(isWhole))
        return TextEncoding::Utf8;
    CodePageGuess ansi(CP_ACP);
    forEachPart(ansi);
    return ansi.isLikely() ? TextEncoding::Ansi : TextEncoding::Latin1;
}

} // namespace Vexel::Detail
