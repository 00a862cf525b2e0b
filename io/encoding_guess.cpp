// Guessing takes one pass over the contents for each encoding that comes into question, part by part, so that
// no file has to be in memory. ASCII is passed over eight bytes at a time, as nearly all of a text is. A wide
// encoding has to be valid throughout and to look like text as well: many files that are none are valid
// UTF-16.

#include "io/encoding_guess.h"

#include <algorithm>
#include <cstring>

namespace Vexel::Detail {

namespace {

/// How many bytes from here on are ASCII, or a few less.
std::size_t plainBytes(const unsigned char* bytes, std::size_t size) noexcept {
    std::size_t plain = 0;
    for (std::uint64_t word = 0; size - plain >= sizeof word; plain += sizeof word) {
        std::memcpy(&word, bytes + plain, sizeof word);
        if (word & 0x8080808080808080)
            break;
    }
    return plain;
}

bool isControl(std::uint32_t unit) noexcept {
    constexpr std::uint32_t kEndOfText = 0x1A;
    return unit < 0x20 && (unit < '\t' || unit > '\r') && unit != kEndOfText;
}

} // namespace

void Utf8Guess::add(Bytes part) noexcept {
    hasZeros_ = hasZeros_ || std::memchr(part.data(), 0, part.size()) != nullptr;
    for (std::size_t at = 0; isValid_ && at < part.size(); ++at) {
        if (left_ == 0)
            at += plainBytes(part.data() + at, part.size() - at);
        if (at == part.size())
            return;
        const unsigned char byte = part[at];
        if (left_ == 0) {
            begin(byte);
            continue;
        }
        isValid_ = byte >= lowest_ && byte <= highest_;
        lowest_ = 0x80;
        highest_ = 0xBF;
        --left_;
    }
}

void Utf8Guess::begin(unsigned char byte) noexcept {
    if (byte < 0x80)
        return;
    isValid_ = byte >= 0xC2 && byte <= 0xF4;
    left_ = 1U + (byte >= 0xE0) + (byte >= 0xF0);
    if (byte == 0xE0)
        lowest_ = 0xA0;
    else if (byte == 0xF0)
        lowest_ = 0x90;
    else if (byte == 0xED)
        highest_ = 0x9F;
    else if (byte == 0xF4)
        highest_ = 0x8F;
}

void UnitGuess::add(Bytes part) noexcept {
    const std::size_t size = unitSize(encoding_);
    const bool bigEndian = isBigEndian(encoding_);
    for (; isValid_ && part.size() >= size; part = part.subspan(size)) {
        lineFeedBytes_ += std::find(part.begin(), part.begin() + static_cast<std::ptrdiff_t>(size), '\n') !=
                          part.begin() + static_cast<std::ptrdiff_t>(size);
        std::uint32_t unit = 0;
        for (std::size_t i = 0; i < size; ++i)
            unit |= std::uint32_t{part[i]} << 8 * (bigEndian ? size - 1 - i : i);
        addUnit(unit);
    }
}

void UnitGuess::addUnit(std::uint32_t unit) noexcept {
    const bool isPairs = unitSize(encoding_) == 2;
    const bool isSecond = unit >= 0xDC00 && unit < 0xE000;
    const bool isFirst = unit >= 0xD800 && unit < 0xDC00;
    isValid_ = (isPairs ? isSecond == isInPair_ : !isFirst && !isSecond) && !isControl(unit) &&
               (unit & 0xFFFE) != 0xFFFE && unit < 0x110000;
    isInPair_ = isPairs && isFirst;
    ++units_;
    plain_ += unit < 0x80;
    lineFeeds_ += unit == '\n';
}

bool UnitGuess::isLikely() const noexcept {
    if (!isValid_ || isInPair_ || units_ * unitSize(encoding_) < 4)
        return false;
    // A file of short lines ended by zeros can be UTF-16 by chance, but hardly so that this is true.
    return unitSize(encoding_) == 4 || plain_ * 4 > units_ * 3 ||
           (lineFeeds_ > 0 && lineFeeds_ == lineFeedBytes_ && plain_ >= lineFeeds_ * 2);
}

CodePageGuess::CodePageGuess(UINT page) noexcept : page_(page) {
    constexpr UINT kMostBytes = 2; // longer characters are those of UTF-8, which has been ruled out
    CPINFO info{};
    isValid_ = GetCPInfo(page, &info) && info.MaxCharSize <= kMostBytes;
    for (unsigned i = 0; isValid_ && i < isCharacter_.size(); ++i) {
        const char byte = static_cast<char>(i);
        isCharacter_[i] = MultiByteToWideChar(page, MB_ERR_INVALID_CHARS, &byte, 1, nullptr, 0) == 1;
    }
}

void CodePageGuess::add(Bytes part) noexcept {
    for (const unsigned char byte : part) {
        if (lead_) {
            const char both[]{static_cast<char>(lead_), static_cast<char>(byte)};
            isValid_ = isValid_ && MultiByteToWideChar(page_, MB_ERR_INVALID_CHARS, both, 2, nullptr, 0) == 1;
            lead_ = 0;
        } else if (byte >= 0x80 && isValid_) {
            if (IsDBCSLeadByteEx(page_, byte))
                lead_ = byte;
            else
                isValid_ = isCharacter_[byte];
        }
    }
}

} // namespace Vexel::Detail
