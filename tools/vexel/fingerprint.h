#pragma once

#include <vexel/hash.h>

#include <compare>
#include <cstddef>
#include <cstdint>
#include <span>

namespace Vexel::Tool {

/// What tells one run of bytes from another: 128 bits. Where two are to be compared, their bytes must come in
/// pieces of the same sizes, as Document::read gives them.
class Fingerprint {
public:
    void add(std::span<const std::byte> data) {
        Hash::SpookyV2_128(data.data(), data.size(), first_, second_);
    }
    auto operator<=>(const Fingerprint&) const = default;

private:
    std::uint64_t first_ = 0; // seeds of the next piece
    std::uint64_t second_ = 0;
};

} // namespace Vexel::Tool
