#pragma once

#include <vexel/files.h>

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

/// What the text streams need to know of encodings.
namespace Vexel::Detail {

using Bytes = std::span<const unsigned char>;

/// How long the code units are, in bytes.
std::size_t unitSize(vxio::TextEncoding encoding) noexcept;

bool isBigEndian(vxio::TextEncoding encoding) noexcept;

/// The byte-order mark; empty for encodings without one.
Bytes byteOrderMark(vxio::TextEncoding encoding) noexcept;

/// The encoding whose byte-order mark the bytes begin with; else Detect.
vxio::TextEncoding markedEncoding(Bytes start) noexcept;

/// Whether there is what only UTF-16 can hold.
bool hasLoneSurrogate(std::wstring_view text) noexcept;

/// Replaces `text` by what the bytes say; what they cannot say becomes U+FFFD, a cut-off unit too. False
/// then; in Ansi and Latin1 it may become another character. Throws std::bad_alloc.
bool decodeText(Bytes bytes, vxio::TextEncoding encoding, std::vector<wchar_t>& text);

/// Appends the text to `bytes`. Throws std::bad_alloc.
void encodeText(std::wstring_view text, vxio::TextEncoding encoding, std::vector<unsigned char>& bytes);

} // namespace Vexel::Detail
