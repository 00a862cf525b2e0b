#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

/// Little-endian numbers in bytes.
namespace Vexel::Detail {

inline bool has(std::span<const unsigned char> bytes, std::size_t offset, std::uint64_t count) noexcept {
    return offset <= bytes.size() && count <= bytes.size() - offset;
}

/// The four bytes must be there.
inline std::uint32_t numberAt(std::span<const unsigned char> bytes, std::size_t offset) noexcept {
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

} // namespace Vexel::Detail
