// Each name is hashed to a place in a set of bits. Two different names that meet in one place count as one,
// so that the count can only be too low, and the set is large enough for that to matter to no honest archive.

#include "archive/name_census.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace Vexel::Storage::Engine {

namespace {

constexpr std::uint64_t kFactor = 0x9E3779B97F4A7C15;
/// With so many places for each name, few that differ share one.
constexpr std::size_t kPlacesEach = 8;

} // namespace

NameCensus::NameCensus(std::uint32_t expected)
    : seen_(std::bit_ceil((std::max)(std::size_t{expected}, std::size_t{1024}) * kPlacesEach)) {}

void NameCensus::add(std::span<const std::byte> units) noexcept {
    for (; units.size() >= sizeof(std::uint16_t); units = units.subspan(sizeof(std::uint16_t))) {
        std::uint16_t unit = 0;
        std::memcpy(&unit, units.data(), sizeof unit);
        if (unit == 0)
            close();
        else
            checksum_ = std::rotl((checksum_ ^ unit) * kFactor, 29);
    }
}

void NameCensus::close() noexcept {
    ++count_;
    const std::size_t place = (checksum_ * kFactor >> 20) & (seen_.size() - 1);
    if (!seen_[place])
        ++different_;
    seen_[place] = true;
    checksum_ = kStart;
}

} // namespace Vexel::Storage::Engine
