#pragma once

#include "storage/salvage/compound_directory.h"

#include <cstdint>
#include <functional>
#include <vector>

namespace Vexel::Detail::Salvage {

/// Gives the sectors of one table (or its mini sectors) to the streams that refer to them:
///  1. streams whose chain has just the length that their size asks for; among those that share a sector, the
///     ones that the tree leads to come before the others, then the ones whose chain jumps less, then those
///     that come first in the directory;
///  2. streams whose chain is longer, in the order of the directory;
///  3. what is left, as far as it reaches: chains that are too short, circles, lost links.
/// Whoever comes later gets nothing that is given away.
class ContentsClaims {
public:
    /// `bytesThere`: how much there is of a sector.
    ContentsClaims(ChainTable& table, std::uint32_t sectorBytes, std::vector<Element>& elements,
                   std::function<std::uint64_t(std::uint32_t)> bytesThere, Output& output)
        : table_(table), sectorBytes_(sectorBytes), elements_(elements), bytesThere_(std::move(bytesThere)),
          output_(output) {}

    /// Settles what becomes of these elements, and notes it with them. `stepsLeft` bounds the work: streams
    /// that claim far more than there is are lost.
    void settle(const std::vector<std::uint32_t>& numbers, std::uint64_t& stepsLeft);

private:
    struct Candidate {
        std::uint32_t number;
        bool isStray;
        bool isOrphan;
        std::uint64_t jumps;
    };

    std::uint64_t sectorsOf(const Element& element) const noexcept {
        return element.entry.size / sectorBytes_ + (element.entry.size % sectorBytes_ != 0);
    }
    ChainTable::Walk measure(std::uint32_t number, std::uint64_t& stepsLeft);
    bool claimWhole(std::uint32_t number);
    void claimRest(std::uint32_t number);

    ChainTable& table_;
    const std::uint32_t sectorBytes_;
    std::vector<Element>& elements_;
    std::function<std::uint64_t(std::uint32_t)> bytesThere_;
    Output& output_; // is asked for each stream and step whether to go on
};

} // namespace Vexel::Detail::Salvage
