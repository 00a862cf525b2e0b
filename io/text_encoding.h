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

/// The byte-order mark; empty for encodings without one.
Bytes byteOrderMark(vxio::TextEncoding encoding) noexcept;

/// The encoding of a file that begins with these bytes; `isWhole` when that is all of it.
vxio::TextEncoding detectEncoding(Bytes start, bool isWhole) noexcept;

/// Replaces `text` by what the bytes say; what they cannot say becomes U+FFFD, a cut-off unit too. Throws
/// std::bad_alloc.
void decodeText(Bytes bytes, vxio::TextEncoding encoding, std::vector<wchar_t>& text);

/// Appends the text to `bytes`. Throws std::bad_alloc.
void encodeText(std::wstring_view text, vxio::TextEncoding encoding, std::vector<unsigned char>& bytes);

} // namespace Vexel::Detail
