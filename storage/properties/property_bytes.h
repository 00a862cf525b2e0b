#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

/// Property sets as bytes: little-endian numbers, and tables that say where blocks of bytes begin. A stream
/// is such a table of sets, and a set one of properties.
namespace Vexel::Detail {

using ByteView = std::span<const unsigned char>;

inline bool has(ByteView bytes, std::size_t offset, std::uint64_t count) noexcept {
    return offset <= bytes.size() && count <= bytes.size() - offset;
}

/// The four bytes must be there.
inline std::uint32_t numberAt(ByteView bytes, std::size_t offset) noexcept {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i)
        value |= std::uint32_t{bytes[offset + i]} << 8 * i;
    return value;
}

inline void appendNumber(std::vector<unsigned char>& bytes, std::size_t value) {
    for (unsigned shift = 0; shift < 32; shift += 8)
        bytes.push_back(static_cast<unsigned char>(value >> shift));
}

inline void appendBytes(std::vector<unsigned char>& bytes, const void* data, std::size_t size) {
    const auto* const begin = static_cast<const unsigned char*>(data);
    bytes.insert(bytes.end(), begin, begin + size);
}

constexpr std::size_t paddedSize(std::size_t size) noexcept { return (size + 3) / 4 * 4; }
inline void padToFour(std::vector<unsigned char>& bytes) { bytes.resize(paddedSize(bytes.size())); }

/// The bytes from one offset of a table to the next higher one, or to the end: a value or a section, and
/// whatever its writer left behind it.
struct Block {
    std::size_t offset = 0;
    ByteView bytes;
};

/// The offset of a block that has not been in the table before.
inline constexpr std::size_t kNewBlock = ~std::size_t{0};

struct Blocks {
    ByteView gap; ///< between the table and the first block
    std::vector<Block> list;
};

/// The blocks at these offsets, in the offsets' order. Nothing when one lies in the table, which ends at
/// `tableEnd`, or has less than four bytes, or when two are the same. Throws std::bad_alloc.
std::optional<Blocks> splitBlocks(ByteView whole, std::size_t tableEnd,
                                  const std::vector<std::size_t>& offsets);

/// Appends the gap and the blocks to `bytes`, which ends with the table; sets each block's offset to where it
/// came to stand. They keep their order, new ones come last, and none changes its place within four bytes, so
/// that aligned values stay aligned. Throws std::bad_alloc.
void joinBlocks(Blocks& blocks, std::vector<unsigned char>& bytes);

} // namespace Vexel::Detail
