#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>

/// The published layout of compound files, as far as finding every sector and every element needs it. All
/// numbers are little-endian.
///
/// A file is a row of sectors of 1 << sectorShift bytes; the header stands before sector 0, in the room of
/// one sector. The allocation table (FAT) has one number for each sector: the next sector of the same chain,
/// or one of the marks below. Where the sectors of the table itself lie is listed in the header and, when
/// those places are used up, in a chain of DIFAT sectors, whose last number is the next one of them. Streams
/// below 4096 bytes lie in 64-byte mini sectors inside the root's stream, with a table of their own (mini
/// FAT).
namespace Vexel::Detail::Compound {

inline constexpr std::uint32_t kEndOfChain = 0xFFFFFFFE;
inline constexpr std::uint32_t kFreeSector = 0xFFFFFFFF;
inline constexpr std::uint32_t kNoEntry = 0xFFFFFFFF;
/// Numbers from here on are marks, not sectors.
inline constexpr std::uint32_t kSectorLimit = 0xFFFFFFFB;

inline constexpr std::size_t kHeaderBytes = 512;
inline constexpr std::size_t kEntryBytes = 128;
inline constexpr std::size_t kMiniSectorBytes = 64;
inline constexpr std::uint32_t kMiniStreamCutoff = 4096;
inline constexpr std::size_t kHeaderDifatEntries = 109;

/// The little-endian number at `offset`; the caller has checked the length.
template <class Number>
Number load(std::span<const std::byte> bytes, std::size_t offset) noexcept {
    Number value;
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

struct Header {
    unsigned sectorShift = 0;
    std::uint32_t fatSectors = 0;
    std::uint32_t firstDirectorySector = 0;
    std::uint32_t firstMiniFatSector = 0;
    std::uint32_t firstDifatSector = 0;
    std::uint32_t difatSectors = 0;
    std::array<std::uint32_t, kHeaderDifatEntries> difat{};
};

enum class EntryType : std::uint8_t { Unused = 0, Storage = 1, Stream = 2, Root = 5 };

/// An element of the directory. The children of a storage form a binary tree: the storage knows its top, each
/// child its left and right.
struct Entry {
    std::uint16_t nameBytes = 0; ///< 0: the place counts as free
    EntryType type = EntryType::Unused;
    bool isThere = true; ///< false when the end of the file cuts it off
    std::uint32_t left = kNoEntry;
    std::uint32_t right = kNoEntry;
    std::uint32_t child = kNoEntry;
    std::uint32_t start = kEndOfChain;
    std::uint64_t size = 0;
};

/// What an entry says of its element besides where it is.
struct Label {
    std::u16string name;                 ///< up to its first U+0000
    std::array<std::byte, 16> classId{}; ///< of a storage
    std::uint64_t created = 0;           ///< 100 ns since 1601; 0: not set
    std::uint64_t modified = 0;
    bool isWellFormed = false; ///< the name is as long as the entry says, and ends there
};

/// Whether `bytes` begin with the signature of a compound file.
bool hasSignature(std::span<const std::byte> bytes) noexcept;

/// Decodes the first kHeaderBytes of a file; nothing if its sector sizes are none that exist.
std::optional<Header> decodeHeader(std::span<const std::byte, kHeaderBytes> bytes) noexcept;

/// The header's fields with nothing asked of them, for who looks for what is left of a damaged file.
Header decodeHeaderFields(std::span<const std::byte, kHeaderBytes> bytes) noexcept;

/// Decodes an entry of the directory of a file with this sector shift.
Entry decodeEntry(std::span<const std::byte, kEntryBytes> bytes, unsigned sectorShift) noexcept;

Label decodeLabel(std::span<const std::byte, kEntryBytes> bytes);

} // namespace Vexel::Detail::Compound
