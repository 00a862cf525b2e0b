// A sector of the allocation table says little of itself, but enough: most sectors are followed by the one
// behind them, so that its numbers count up, and by how much they differ from their places tells which part
// of the table it is. The table of mini sectors looks the same. What tells them apart is the mark for sectors
// of the table, which only the real one has. A part that has its own sector among its numbers marks that; and
// the marks of the parts that are found show where the others are.

#include "storage/salvage/compound_tables.h"

#include <algorithm>
#include <map>
#include <utility>

namespace Vexel::Detail::Salvage {

using Compound::kEndOfChain;
using Compound::kFreeSector;
using Compound::kNoEntry;
using Compound::load;

namespace {

constexpr std::uint32_t kTableSector = 0xFFFFFFFD;
constexpr std::uint32_t kDifatSector = 0xFFFFFFFC;
/// So many numbers that count up are no accident.
constexpr unsigned kFewestVotes = 4;

bool isMark(std::uint32_t number) noexcept {
    return number == kEndOfChain || number == kFreeSector || number == kTableSector || number == kDifatSector;
}

std::uint32_t numberAt(std::span<const std::byte> bytes, std::size_t index) noexcept {
    return load<std::uint32_t>(bytes, index * sizeof(std::uint32_t));
}

class AllocationLoader {
public:
    AllocationLoader(Compound::SectorReader& reader, const Compound::Header& header, Output& output)
        : reader_(reader), header_(header), output_(output),
          perSector_(static_cast<std::uint32_t>(reader.sectorBytes() / sizeof(std::uint32_t))),
          parts_((reader.sectors() + perSector_ - 1) / perSector_, kNoEntry), table_(reader.sectors()) {}

    ChainTable run() {
        taken_.resize(reader_.sectors());
        takeListed(true);
        if (isMissingAny())
            search();
        if (isMissingAny())
            takeListed(false);
        for (std::size_t part = 0; part < parts_.size(); ++part) {
            if (parts_[part] == kNoEntry)
                output_.damage("a sector of the allocation table is lost; it would be number", part);
            else
                table_.setOwner(parts_[part], ChainTable::kTables);
        }
        // What the header leads to need not be the DIFAT.
        for (const std::uint32_t sector : difat_)
            if (table_.next(sector) == kDifatSector)
                table_.setOwner(sector, ChainTable::kTables);
        return std::move(table_);
    }

private:
    bool isMissingAny() const { return std::find(parts_.begin(), parts_.end(), kNoEntry) != parts_.end(); }

    void take(std::size_t part, std::uint32_t sector) {
        parts_[part] = sector;
        readLinks(reader_.sector(sector), static_cast<std::uint32_t>(part) * perSector_, table_);
        taken_[sector] = true;
    }

    void takeIfPlausible(std::size_t part, std::uint32_t sector, bool mustAgree) {
        if (part >= parts_.size() || parts_[part] != kNoEntry || sector >= reader_.sectors() ||
            taken_[sector])
            return;
        const auto bytes = reader_.sector(sector);
        if (looksLikeTable(bytes, reader_.sectors()) && (!mustAgree || agrees(bytes, part, sector)))
            take(part, sector);
    }

    /// Whether what the sector says of itself is that it is this part of the table.
    bool agrees(std::span<const std::byte> bytes, std::size_t part, std::uint32_t sector) const {
        const std::size_t place = sector % perSector_;
        if (sector / perSector_ == part && place < bytes.size() / sizeof(std::uint32_t))
            return numberAt(bytes, place) == kTableSector;
        return partOf(bytes) == part;
    }

    /// Takes the parts from where the header and the DIFAT say, with `mustAgree` those that say so
    /// themselves.
    void takeListed(bool mustAgree) {
        std::size_t part = 0;
        for (; part < std::min<std::size_t>(parts_.size(), header_.difat.size()); ++part)
            takeIfPlausible(part, header_.difat[part], mustAgree);
        std::vector<bool> met(reader_.sectors());
        std::uint32_t sector = header_.firstDifatSector;
        while (part < parts_.size() && sector < reader_.sectors() && !met[sector]) {
            output_.progress(0);
            met[sector] = true;
            const auto view = reader_.sector(sector);
            const std::vector<std::byte> bytes(view.begin(), view.end());
            if (bytes.size() < reader_.sectorBytes())
                return;
            difat_.push_back(sector);
            for (std::size_t place = 0; place + 1 < perSector_; ++place)
                takeIfPlausible(part++, numberAt(bytes, place), mustAgree);
            sector = numberAt(bytes, perSector_ - 1);
        }
    }

    void search() {
        output_.damage("the list of the allocation table's sectors is damaged; so many are searched for",
                       static_cast<std::uint64_t>(std::count(parts_.begin(), parts_.end(), kNoEntry)));
        for (std::uint32_t sector = 0; sector < reader_.sectors(); ++sector) {
            output_.progress(reader_.sectorBytes());
            if (isPartWithItself(sector))
                take(sector / perSector_, sector);
        }
        takeMarked();
    }

    /// Whether the sector can be the part of the table that it is in itself. A table of mini sectors has no
    /// mark for tables, and that of a document within this one has it in other places.
    bool isPartWithItself(std::uint32_t sector) {
        const std::size_t part = sector / perSector_;
        if (taken_[sector] || parts_[part] != kNoEntry)
            return false;
        const auto bytes = reader_.sector(sector);
        const std::uint32_t place = sector % perSector_;
        if (bytes.size() < reader_.sectorBytes() || numberAt(bytes, place) != kTableSector ||
            !looksLikeTable(bytes, reader_.sectors()))
            return false;
        const std::size_t voted = partOf(bytes);
        return voted == part || voted == parts_.size();
    }

    /// The part of the table that most of the numbers speak for; the number of parts if too few do.
    std::size_t partOf(std::span<const std::byte> bytes) const {
        std::map<std::size_t, unsigned> votes;
        for (std::uint32_t i = 0; i < bytes.size() / sizeof(std::uint32_t); ++i) {
            const std::uint32_t number = numberAt(bytes, i);
            if (number > i && number < reader_.sectors() && (number - 1 - i) % perSector_ == 0)
                ++votes[(number - 1 - i) / perSector_];
        }
        const auto most = std::max_element(votes.begin(), votes.end(),
                                           [](const auto& a, const auto& b) { return a.second < b.second; });
        return most == votes.end() || most->second < kFewestVotes ? parts_.size() : most->first;
    }

    /// The sectors that the parts that are there mark as the table's own: those whose numbers do not tell
    /// which part they are take the gaps that are left, in their order.
    void takeMarked() {
        std::vector<std::uint32_t> left;
        for (std::uint32_t sector = 0; sector < table_.count(); ++sector) {
            if (table_.next(sector) != kTableSector || taken_[sector])
                continue;
            output_.progress(0);
            const auto bytes = reader_.sector(sector);
            if (!looksLikeTable(bytes, reader_.sectors()))
                continue;
            const std::size_t part = partOf(bytes);
            if (part < parts_.size() && parts_[part] == kNoEntry)
                take(part, sector);
            else
                left.push_back(sector);
        }
        if (left.size() != static_cast<std::size_t>(std::count(parts_.begin(), parts_.end(), kNoEntry)))
            return;
        auto next = left.begin();
        for (std::size_t part = 0; part < parts_.size(); ++part)
            if (parts_[part] == kNoEntry)
                take(part, *next++);
    }

    Compound::SectorReader& reader_;
    const Compound::Header& header_;
    Output& output_;
    const std::uint32_t perSector_;
    std::vector<std::uint32_t> parts_; // where each part of the table is
    std::vector<bool> taken_;
    std::vector<std::uint32_t> difat_;
    ChainTable table_;
};

} // namespace

bool looksLikeTable(std::span<const std::byte> bytes, std::uint32_t sectors) {
    const std::size_t count = bytes.size() / sizeof(std::uint32_t);
    std::size_t good = 0;
    std::uint32_t before = kNoEntry;
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint32_t number = numberAt(bytes, i);
        good += isMark(number) || (number < sectors && number != before);
        before = number;
    }
    return count > 0 && good >= (count + 1) / 2;
}

void readLinks(std::span<const std::byte> bytes, std::uint32_t first, ChainTable& table) {
    for (std::size_t i = 0; i < bytes.size() / sizeof(std::uint32_t) && first + i < table.count(); ++i)
        table.setNext(first + static_cast<std::uint32_t>(i), numberAt(bytes, i));
}

ChainTable loadAllocation(Compound::SectorReader& reader, const Compound::Header& header, Output& output) {
    return AllocationLoader(reader, header, output).run();
}

} // namespace Vexel::Detail::Salvage
