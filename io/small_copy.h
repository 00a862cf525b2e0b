#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Vexel::Detail {

/// Copies the first and the last bytes of `count`, which together are all of it. Both are read before either
/// is written, so that the places may overlap. Compilers make one or two instructions of each of the four.
template <class Word>
inline void copyEnds(unsigned char* to, const unsigned char* from, std::size_t count) noexcept {
    Word first;
    Word last;
    std::memcpy(&first, from, sizeof first);
    std::memcpy(&last, from + count - sizeof last, sizeof last);
    std::memcpy(to, &first, sizeof first);
    std::memcpy(to + count - sizeof last, &last, sizeof last);
}

/// `memmove` with what is short done in line. Most reads and writes of streams are of a few bytes, for which
/// the call costs more than the copying: through it a read takes 4 to 5 ns where it takes 2.2
/// (bench/memory_streams).
inline void copyBytes(void* destination, const void* source, std::size_t count) noexcept {
    auto* const to = static_cast<unsigned char*>(destination);
    const auto* const from = static_cast<const unsigned char*>(source);
    if (count > 64)
        std::memmove(to, from, count);
    else if (count > 32)
        copyEnds<std::array<std::uint64_t, 4>>(to, from, count);
    else if (count >= 16)
        copyEnds<std::array<std::uint64_t, 2>>(to, from, count);
    else if (count >= 8)
        copyEnds<std::uint64_t>(to, from, count);
    else if (count >= 4)
        copyEnds<std::uint32_t>(to, from, count);
    else if (count >= 2)
        copyEnds<std::uint16_t>(to, from, count);
    else if (count == 1)
        *to = *from;
}

} // namespace Vexel::Detail
