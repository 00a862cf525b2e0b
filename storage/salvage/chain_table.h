#pragma once

#include "storage/compound/compound_layout.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Vexel::Detail::Salvage {

/// An allocation table of which parts may be lost, and to whom each of its sectors (or mini sectors) belongs.
/// Every sector has one owner at most, so that no byte comes out twice.
class ChainTable {
public:
    /// Instead of a link: the part of the table that has it is lost.
    static constexpr std::uint32_t kUnknown = 0xFFFFFFFB;

    using Owner = std::uint32_t;
    static constexpr Owner kNobody = 0xFFFFFFFF;
    static constexpr Owner kTables = 0xFFFFFFFE; ///< the tables themselves
    static constexpr Owner kDirectory = 0xFFFFFFFD;

    enum class End {
        Clean,   ///< at the mark that ends a chain
        More,    ///< as long as was asked for, and goes on
        Circle,  ///< comes back to itself
        Behind,  ///< leads behind the end of the file
        Taken,   ///< leads to a sector of another owner
        Broken,  ///< leads to a mark that ends no chain
        Unknown, ///< its next link is lost
    };
    struct Walk {
        End end = End::Clean;
        std::uint64_t length = 0; ///< in sectors
        std::uint64_t jumps = 0;  ///< how often the next sector is not the one behind
        std::uint32_t last = 0;   ///< the last sector of the chain, or what it leads to
        bool isGuessed = false;   ///< lost links were taken to lead to the sector behind
    };
    enum class LostLinks { End, AreGuessed };

    explicit ChainTable(std::uint32_t count = 0)
        : next_(count, kUnknown), owner_(count, kNobody), met_(count) {}

    std::uint32_t count() const noexcept { return static_cast<std::uint32_t>(next_.size()); }
    std::uint32_t next(std::uint32_t sector) const { return next_[sector]; }
    void setNext(std::uint32_t sector, std::uint32_t next) { next_[sector] = next; }
    Owner owner(std::uint32_t sector) const { return owner_[sector]; }
    void setOwner(std::uint32_t sector, Owner owner) { owner_[sector] = owner; }

    /// Hands the sectors of the chain from `start` on to `visit`, `most` of them at most, as long as they are
    /// nobody's or `self`'s. Ends whatever the table says.
    template <class Visit>
    Walk walk(std::uint32_t start, std::uint64_t most, Owner self, LostLinks lost, Visit visit) {
        Walk walk;
        ++walks_;
        std::uint32_t sector = start;
        for (walk.last = start; sector != Compound::kEndOfChain; ++walk.length) {
            walk.end = walk.length == most ? End::More : endAt(sector, self);
            if (walk.end != End::Clean) {
                walk.last = sector;
                return walk;
            }
            met_[sector] = walks_;
            walk.last = sector;
            visit(sector);
            sector = step(sector, self, lost, walk);
            if (sector == kUnknown && walk.length + 1 < most) {
                ++walk.length;
                walk.end = End::Unknown;
                return walk;
            }
        }
        return walk;
    }

private:
    End endAt(std::uint32_t sector, Owner self) const {
        if (sector >= Compound::kSectorLimit)
            return End::Broken;
        if (sector >= count())
            return End::Behind;
        if (met_[sector] == walks_)
            return End::Circle;
        return owner_[sector] == kNobody || owner_[sector] == self ? End::Clean : End::Taken;
    }

    std::uint32_t step(std::uint32_t sector, Owner self, LostLinks lost, Walk& walk) const {
        std::uint32_t next = next_[sector];
        if (next == kUnknown && lost == LostLinks::AreGuessed && sector + 1 < count() &&
            endAt(sector + 1, self) == End::Clean) {
            next = sector + 1;
            walk.isGuessed = true;
        }
        walk.jumps += next != sector + 1;
        return next;
    }

    std::vector<std::uint32_t> next_;
    std::vector<Owner> owner_;
    std::vector<std::uint32_t> met_; // the number of the walk that met the sector last
    std::uint32_t walks_ = 0;
};

} // namespace Vexel::Detail::Salvage
