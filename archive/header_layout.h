#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

/// The layout of 7z archives, as far as their headers go. All numbers are little-endian.
///
/// An archive begins with 32 bytes: signature (6 bytes), version (2), CRC-32 of what follows (4), and the
/// place behind these 32 bytes (8), the size (8) and the CRC-32 (4) of the header, which stands at the end.
/// In between lie the packed streams. A header of size 0 is that of an archive without items.
///
/// Below, `n` is a number of variable length: the ones at the top of its first byte say how many bytes
/// follow, least significant first; the bits of the first byte behind the zero that ends the ones are the
/// highest of the number. So 0 to 0x7F take one byte, 0x80 is 80 80, and FF is followed by all 64 bits. A
/// `byte` is one byte, `id` one of the identifiers below as `n`. `bits(k)` are k bits, from the highest of
/// each byte down. `defined(k)` says which of k things have a value: a byte 1 for all of them, or 0 and
/// bits(k). Identifiers that are not known, where one may stand, are followed by a size (n) and so many
/// bytes.
///
///     file header      Header, [ArchiveProperties, {id, n, bytes}, End], [MainStreamsInfo, streams],
///                      [FilesInfo, files], End
///     or, packed       EncodedHeader, streams: the first folder unpacks to a file header
///
///     streams          [PackInfo, packed streams], [UnpackInfo, folders], [SubStreamsInfo, parts], End
///     packed streams   n: where the first begins, behind the 32 bytes; n: how many;
///                      Size, {n: bytes of each}, [Crc, digests], End
///     folders          Folder, n: how many, byte 0, {folder}, CodersUnpackSize, {n: bytes that come out of
///                      each coder of each folder}, [Crc, digests], End
///     folder           n: coders, {coder}, bonds {n: input, n: coder whose output goes there}, one less than
///                      coders; then, of several inputs that are left, {n: input} for each packed stream
///     coder            byte: bits 0-3 bytes of the method's identifier, bit 4 has counts, bit 5 has
///                      properties; the identifier, the most significant byte first; [n: inputs,
///                      n: outputs, always 1]; [n: bytes of properties, properties]
///     parts            [NumUnpackStream, {n: how many files of each folder}, 1 without it],
///                      [Size, {n: bytes of each but the last of a folder}], [Crc, digests of those that the
///                      folders' digests are not of], End
///     digests          defined(k), {CRC-32 of each that has one}
///
///     files            n: how many, {property}, End
///     property         id, n: bytes, then by id
///       EmptyStream    bits(files): has no packed data; directories and files without contents
///       EmptyFile      bits(empty streams): is a file; Anti: is a mark for a deletion
///       Name           byte 0, {UTF-16 code units, 0}
///       times          defined(files), byte 0, {100 ns since 1601 (8 bytes)}
///       Attributes     defined(files), byte 0, {Win32 attributes (4 bytes)}
///
/// Each file that is not an empty stream takes the next stream that comes out of the folders. A byte other
/// than 0 where 0 stands above refers to AdditionalStreamsInfo, which nobody writes.
namespace Vexel::Storage::Engine {

constexpr std::size_t kStartBytes = 32;
constexpr std::array<std::uint8_t, 6> kSignature{'7', 'z', 0xBC, 0xAF, 0x27, 0x1C};
/// Where things stand in these first bytes.
namespace StartAt {
constexpr std::size_t kVersion = 6;
constexpr std::size_t kChecksum = 8;
constexpr std::size_t kOffset = 12;
constexpr std::size_t kSize = 20;
constexpr std::size_t kHeaderChecksum = 28;
} // namespace StartAt

namespace HeaderId {
constexpr std::uint64_t kEnd = 0x00;
constexpr std::uint64_t kHeader = 0x01;
constexpr std::uint64_t kArchiveProperties = 0x02;
constexpr std::uint64_t kAdditionalStreamsInfo = 0x03;
constexpr std::uint64_t kMainStreamsInfo = 0x04;
constexpr std::uint64_t kFilesInfo = 0x05;
constexpr std::uint64_t kPackInfo = 0x06;
constexpr std::uint64_t kUnpackInfo = 0x07;
constexpr std::uint64_t kSubStreamsInfo = 0x08;
constexpr std::uint64_t kSize = 0x09;
constexpr std::uint64_t kCrc = 0x0A;
constexpr std::uint64_t kFolder = 0x0B;
constexpr std::uint64_t kCodersUnpackSize = 0x0C;
constexpr std::uint64_t kNumUnpackStream = 0x0D;
constexpr std::uint64_t kEmptyStream = 0x0E;
constexpr std::uint64_t kEmptyFile = 0x0F;
constexpr std::uint64_t kAnti = 0x10;
constexpr std::uint64_t kName = 0x11;
constexpr std::uint64_t kCreationTime = 0x12;
constexpr std::uint64_t kAccessTime = 0x13;
constexpr std::uint64_t kModificationTime = 0x14;
constexpr std::uint64_t kAttributes = 0x15;
constexpr std::uint64_t kEncodedHeader = 0x17;
constexpr std::uint64_t kStartPosition = 0x18;
} // namespace HeaderId

/// Of coders.
namespace MethodId {
constexpr std::uint64_t kCopy = 0;
constexpr std::uint64_t kLzma2 = 0x21;
constexpr std::uint64_t kLzma = 0x030101;
} // namespace MethodId

} // namespace Vexel::Storage::Engine
