#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace Vexel::Storage::Engine {

/// Counts the names of a list, and, nearly, how many different ones there are.
class NameCensus {
public:
    /// Throws std::bad_alloc.
    explicit NameCensus(std::uint32_t expected);

    /// Takes the next part of a list of names, each of 16-bit units with a zero behind the last; parts but
    /// the last are whole units.
    void add(std::span<const std::byte> units) noexcept;

    std::uint64_t count() const noexcept { return count_; }
    /// Whether at least half of the names are different, as far as can be said yet.
    bool isVaried() const noexcept { return count_ < kFewest || different_ >= count_ / 2; }

private:
    static constexpr std::uint64_t kFewest = 1024;
    static constexpr std::uint64_t kStart = 0xCBF29CE484222325;

    void close() noexcept;

    std::vector<bool> seen_; // by checksum
    std::uint64_t checksum_ = kStart;
    std::uint64_t count_ = 0;
    std::uint64_t different_ = 0;
};

} // namespace Vexel::Storage::Engine
