// The order is that of trust: tables, directory, then the streams' sectors, and only when these have their
// owners is the rest of the file looked through for what nobody leads to.

#include "storage/salvage/compound_salvage.h"

#include "storage/salvage/compound_contents.h"

#include <algorithm>
#include <array>
#include <memory>
#include <optional>

namespace Vexel::Detail::Salvage {

using Compound::EntryType;
using Compound::kMiniSectorBytes;

namespace {

constexpr unsigned kSectorShifts[] = {9, 12};
constexpr std::size_t kPieceBytes = 0x10000;
/// How often over the streams may claim what the file has.
constexpr std::uint64_t kMostClaims = 16;
/// Handles go 512 storages deep; what is deeper stands beside.
constexpr std::size_t kDeepest = 500;

constexpr const char* kUnreadable = "it cannot be read to its end";

/// The sectors of a chain one by one, and in the tables' order.
std::vector<std::uint32_t> sectorsOf(ChainTable& table, std::uint32_t start, std::uint64_t most,
                                     ChainTable::Owner owner) {
    std::vector<std::uint32_t> sectors;
    table.walk(start, most, owner, ChainTable::LostLinks::AreGuessed,
               [&](std::uint32_t sector) { sectors.push_back(sector); });
    return sectors;
}

/// A compound file that is taken to have sectors of one size.
class CompoundSalvage {
public:
    CompoundSalvage(CompoundSource& source, const Compound::Header& header, unsigned sectorShift,
                    Output& output)
        : source_(source), reader_(source), header_(header), output_(output),
          directory_(reader_, allocation_, output_) {
        reader_.setSectorShift(sectorShift);
    }

    void load() {
        allocation_ = loadAllocation(reader_, header_, output_);
        directory_.load(header_.firstDirectorySector);
        loadMiniTable();
        settle(0);
        if (directory_.isDamaged()) {
            const std::size_t known = elements().size();
            directory_.addStrays();
            settle(known);
        }
    }

    /// How much speaks for this size of sectors.
    std::size_t score() {
        const auto count = [this](const auto& counts) {
            return static_cast<std::size_t>(std::count_if(elements().begin(), elements().end(), counts));
        };
        return count([](const Element& element) { return element.isUsable; }) +
               count([](const Element& element) { return element.state == SalvageState::Whole; });
    }

    /// Whether anything comes back but the root.
    bool hasNodes() {
        return std::any_of(elements().begin(), elements().end(), [](const Element& element) {
            return element.isUsable && !element.isHidden &&
                   (element.entry.type == EntryType::Storage ||
                    (element.entry.type == EntryType::Stream && element.state != SalvageState::Lost));
        });
    }

    void deliver() {
        output_.format(SalvageFormat::CompoundFile);
        SalvagedNode root;
        root.isStorage = true;
        if (directory_.hasRoot()) {
            describe(root, elements()[0]);
            output_.storage(root);
            topNames_ = deliverTree(directory_.takeSiblings(elements()[0].entry.child), {});
        } else {
            output_.storage(root);
        }
        deliverOrphans();
    }

private:
    std::vector<Element>& elements() noexcept { return directory_.elements(); }
    std::uint32_t minisPerSector() const noexcept {
        return static_cast<std::uint32_t>(reader_.sectorBytes() / kMiniSectorBytes);
    }
    bool isMini(const Element& element) const noexcept {
        return element.entry.size < Compound::kMiniStreamCutoff && element.entry.type != EntryType::Root;
    }

    // --- the table of mini sectors

    void loadMiniTable() {
        const std::uint64_t minis =
            directory_.hasRoot() ? (elements()[0].entry.size + kMiniSectorBytes - 1) / kMiniSectorBytes : 0;
        const std::uint64_t perSector = reader_.sectorBytes() / sizeof(std::uint32_t);
        const std::uint64_t expected = (minis + perSector - 1) / perSector;
        looks_.resize(allocation_.count());
        miniTable_ = miniTableAt(header_.firstMiniFatSector, expected);
        if (expected > 0 && miniTable_.size() != expected) {
            output_.damage("the table of small streams is not where it should be, or not whole",
                           header_.firstMiniFatSector);
            if (auto found = findMiniTable(expected); !found.empty())
                miniTable_ = std::move(found);
            miniTable_.resize(std::min<std::uint64_t>(miniTable_.size(), expected));
        }
        looks_ = {};
        for (const std::uint32_t sector : miniTable_)
            allocation_.setOwner(sector, ChainTable::kTables);
    }

    /// Chains lead into one another, so each sector is looked at once.
    bool looksLikeMiniTable(std::uint32_t sector) {
        Look& look = looks_[sector];
        if (look == Look::None) {
            output_.progress(reader_.sectorBytes());
            const std::uint64_t minis = std::uint64_t{reader_.sectors()} * minisPerSector();
            const bool isOne = looksLikeTable(
                reader_.sector(sector),
                static_cast<std::uint32_t>(std::min<std::uint64_t>(minis, Compound::kSectorLimit)));
            look = isOne ? Look::IsTable : Look::IsNone;
        }
        return look == Look::IsTable;
    }

    void cutToMiniTable(std::vector<std::uint32_t>& sectors) {
        const auto end = std::find_if(sectors.begin(), sectors.end(),
                                      [this](std::uint32_t sector) { return !looksLikeMiniTable(sector); });
        sectors.erase(end, sectors.end());
    }

    /// The sectors of the table if it begins there: all of the chain if it is as long as is expected, else as
    /// far as they look like it.
    std::vector<std::uint32_t> miniTableAt(std::uint32_t first, std::uint64_t expected) {
        const std::uint64_t most = expected > 0 ? expected + 1 : allocation_.count();
        std::vector<std::uint32_t> sectors = sectorsOf(allocation_, first, most, ChainTable::kNobody);
        if (expected > 0 && sectors.size() == expected)
            return sectors;
        cutToMiniTable(sectors);
        return sectors;
    }

    /// A chain of the right length that nothing leads to, and of which each sector can be one of the table.
    std::vector<std::uint32_t> findMiniTable(std::uint64_t expected) {
        std::vector<bool> isLedTo(allocation_.count());
        const auto mark = [&](std::uint32_t sector) {
            if (sector < isLedTo.size())
                isLedTo[sector] = true;
        };
        for (std::uint32_t sector = 0; sector < allocation_.count(); ++sector)
            mark(allocation_.next(sector));
        for (const Element& element : elements())
            if (element.isUsable && !isMini(element))
                mark(element.entry.start);
        std::uint64_t stepsLeft = kMostClaims * allocation_.count();
        for (std::uint32_t sector = 0; sector < allocation_.count() && stepsLeft > 0; ++sector) {
            output_.progress(0);
            if (isLedTo[sector] || allocation_.owner(sector) != ChainTable::kNobody ||
                allocation_.next(sector) == Compound::kFreeSector || !looksLikeMiniTable(sector))
                continue;
            auto sectors = sectorsOf(allocation_, sector, expected + 1, ChainTable::kNobody);
            stepsLeft -= std::min<std::uint64_t>(stepsLeft, sectors.size() + 1);
            cutToMiniTable(sectors);
            if (sectors.size() == expected)
                return sectors;
        }
        return {};
    }

    // --- the streams' sectors

    /// Settles the streams among the elements from `first` on.
    void settle(std::size_t first) {
        std::vector<std::uint32_t> large;
        std::vector<std::uint32_t> small;
        if (first == 0 && directory_.hasRoot())
            large.push_back(0);
        for (auto i = static_cast<std::uint32_t>(std::max<std::size_t>(first, 1)); i < elements().size();
             ++i) {
            const Element& element = elements()[i];
            if (element.isUsable && element.isStream())
                (isMini(element) ? small : large).push_back(i);
        }
        std::uint64_t stepsLeft = kMostClaims * (std::uint64_t{reader_.sectors()} + elements().size());
        ContentsClaims(
            allocation_, static_cast<std::uint32_t>(reader_.sectorBytes()), elements(),
            [this](std::uint32_t sector) { return reader_.bytesThere(sector); }, output_)
            .settle(large, stepsLeft);
        if (first == 0)
            loadMiniSectors();
        stepsLeft = kMostClaims * (std::uint64_t{minis_.count()} + elements().size());
        ContentsClaims(
            minis_, kMiniSectorBytes, elements(), [this](std::uint32_t mini) { return miniBytesThere(mini); },
            output_)
            .settle(small, stepsLeft);
    }

    /// The root's own stream holds the mini sectors. As far as its chain goes it is used, whatever its size.
    void loadMiniSectors() {
        if (directory_.hasRoot())
            container_ = sectorsOf(allocation_, elements()[0].entry.start, allocation_.count(), 0);
        for (const std::uint32_t sector : container_)
            allocation_.setOwner(sector, 0);
        const std::uint64_t minis = std::uint64_t{container_.size()} * minisPerSector();
        minis_ = ChainTable(
            static_cast<std::uint32_t>(std::min<std::uint64_t>(minis, Compound::kSectorLimit - 1)));
        const auto perSector = static_cast<std::uint32_t>(reader_.sectorBytes() / sizeof(std::uint32_t));
        for (std::uint32_t i = 0; i < miniTable_.size() && std::uint64_t{i} * perSector < minis; ++i)
            readLinks(reader_.sector(miniTable_[i]), i * perSector, minis_);
    }

    std::uint64_t miniOffset(std::uint32_t mini) const {
        return ((std::uint64_t{container_[mini / minisPerSector()]} + 1) << reader_.sectorShift()) +
               mini % minisPerSector() * kMiniSectorBytes;
    }

    std::uint64_t miniBytesThere(std::uint32_t mini) const {
        const std::uint64_t begin = std::min(miniOffset(mini), reader_.fileBytes());
        return std::min<std::uint64_t>(reader_.fileBytes() - begin, kMiniSectorBytes);
    }

    // --- handing out

    struct Level {
        std::vector<std::uint32_t> row;
        std::size_t next = 0;
        SiblingNames names;
    };

    void describe(SalvagedNode& node, const Element& element) const {
        node.path = path_;
        node.isStorage = !element.isStream();
        node.classId = node.isStorage ? element.label.classId : std::array<std::byte, 16>{};
        node.created = element.label.created;
        node.modified = element.label.modified;
        if (node.isStorage)
            return;
        node.state = element.state;
        node.size = element.entry.size;
        node.there = element.there;
        node.reason = element.reason;
    }

    /// Hands out a row of elements, which stand below path_, with all that is below them; gives back the
    /// names that were taken in the row.
    SiblingNames deliverTree(std::vector<std::uint32_t> row, SiblingNames names) {
        std::vector<Level> levels;
        levels.push_back({std::move(row), 0, std::move(names)});
        for (;;) {
            Level& level = levels.back();
            if (level.next == level.row.size()) {
                if (levels.size() == 1)
                    return std::move(level.names);
                levels.pop_back();
                path_.pop_back();
                continue;
            }
            const std::uint32_t number = level.row[level.next++];
            if (elements()[number].isHidden)
                continue;
            path_.push_back(nameOf(elements()[number], level.names));
            if (deliver(number) && path_.size() < kDeepest)
                levels.push_back({directory_.takeSiblings(elements()[number].entry.child), 0, {}});
            else
                path_.pop_back();
        }
    }

    std::u16string nameOf(const Element& element, SiblingNames& names) {
        std::u16string name = names.take(element.label.name);
        if (name != element.label.name)
            output_.damage("an element's name is none, or that of a sibling; it gets another one", 0);
        return name;
    }

    /// Whether it is a storage.
    bool deliver(std::uint32_t number) {
        const Element& element = elements()[number];
        SalvagedNode node;
        describe(node, element);
        output_.progress(0);
        if (node.isStorage) {
            output_.countNode();
            output_.storage(node);
            return true;
        }
        if (node.state == SalvageState::Lost || !output_.stream(node)) {
            output_.streamEnd(node);
            return false;
        }
        const std::uint64_t read = isMini(element) ? deliverSmall(number) : deliverLarge(number);
        if (read < node.there) {
            node.state = read > 0 ? SalvageState::CutShort : SalvageState::Lost;
            node.there = read;
            node.reason = kUnreadable;
        }
        output_.streamEnd(node);
        return false;
    }

    std::uint64_t deliverSmall(std::uint32_t number) {
        const Element& element = elements()[number];
        std::array<std::byte, Compound::kMiniStreamCutoff> bytes;
        std::size_t read = 0;
        for (const std::uint32_t mini :
             sectorsOf(minis_, element.entry.start, (element.there + kMiniSectorBytes - 1) / kMiniSectorBytes,
                       number)) {
            const std::size_t wanted = std::min<std::size_t>(element.there - read, kMiniSectorBytes);
            const std::size_t got = source_.read(miniOffset(mini), std::span(bytes).subspan(read, wanted));
            read += got;
            if (got < wanted)
                break;
        }
        output_.bytes(std::span(bytes).first(read));
        return read;
    }

    /// Reads sectors that lie one behind the other at once.
    std::uint64_t deliverLarge(std::uint32_t number) {
        const Element& element = elements()[number];
        const std::uint64_t count = (element.there + reader_.sectorBytes() - 1) >> reader_.sectorShift();
        const auto sectors = sectorsOf(allocation_, element.entry.start, count, number);
        std::vector<std::byte> piece(kPieceBytes);
        std::uint64_t done = 0;
        for (std::size_t i = 0; i < sectors.size() && done < element.there;) {
            std::size_t run = 1;
            while (i + run < sectors.size() && run < kPieceBytes >> reader_.sectorShift() &&
                   sectors[i + run] == sectors[i] + run)
                ++run;
            const auto wanted = static_cast<std::size_t>(
                std::min<std::uint64_t>(element.there - done, std::uint64_t{run} << reader_.sectorShift()));
            const std::size_t got = source_.read((std::uint64_t{sectors[i]} + 1) << reader_.sectorShift(),
                                                 std::span(piece).first(wanted));
            output_.bytes(std::span(piece).first(got));
            output_.progress(got);
            done += got;
            i += run;
            if (got < wanted)
                break;
        }
        return done;
    }

    /// What the tree did not lead to: first what nobody refers to, with all that it leads to, then what
    /// remains of circles.
    void deliverOrphans() {
        std::vector<bool> isReferred(elements().size());
        std::size_t count = 0;
        for (std::uint32_t number = 1; number < elements().size(); ++number) {
            if (!isOrphan(number))
                continue;
            ++count;
            const Compound::Entry& entry = elements()[number].entry;
            for (const std::uint32_t link : {entry.left, entry.right, entry.child})
                if (link < isReferred.size() && link != number)
                    isReferred[link] = true;
        }
        if (count == 0)
            return;
        path_ = {topNames_.take(u"Recovered")};
        SalvagedNode node;
        node.path = path_;
        node.isStorage = true;
        output_.damage("so many elements that the tree does not lead to are in the storage \"Recovered\"",
                       count);
        output_.storage(node);
        SiblingNames names;
        for (const bool isLate : {false, true})
            for (std::uint32_t number = 1; number < elements().size(); ++number)
                if (isOrphan(number) && (isLate || !isReferred[number]))
                    names = deliverTree(directory_.takeSiblings(number), std::move(names));
        path_.clear();
    }

    bool isOrphan(std::uint32_t number) {
        const Element& element = elements()[number];
        return element.isUsable && !element.isHidden && !directory_.isTaken(number);
    }

    CompoundSource& source_;
    Compound::SectorReader reader_;
    const Compound::Header header_;
    Output& output_;
    ChainTable allocation_;
    Directory directory_;
    enum class Look : std::uint8_t { None, IsTable, IsNone };
    std::vector<Look> looks_;              // at each sector, for the table of mini sectors
    std::vector<std::uint32_t> miniTable_; // its sectors
    std::vector<std::uint32_t> container_; // the sectors with the mini sectors
    ChainTable minis_;
    SiblingNames topNames_;
    std::vector<std::u16string> path_; // to the element at hand
};

/// The size of sectors with which most is found.
unsigned findSectorShift(CompoundSource& source, const Compound::Header& header, Output& output) {
    const Output::Quiet quiet(output);
    unsigned best = kSectorShifts[0];
    std::size_t most = 0;
    for (const unsigned shift : kSectorShifts) {
        CompoundSalvage attempt(source, header, shift, output);
        attempt.load();
        if (attempt.score() > most) {
            most = attempt.score();
            best = shift;
        }
    }
    return best;
}

} // namespace

void salvageCompound(CompoundSource& source, Output& output) {
    std::array<std::byte, Compound::kHeaderBytes> bytes{};
    source.read(0, bytes);
    const auto header = Compound::decodeHeader(bytes);
    // What does not even begin as one may be something else: that is told only of what has something to give.
    const bool isOne = Compound::hasSignature(bytes);
    if (!isOne)
        output.hold();
    if (!header || !isOne)
        output.damage("the header is damaged", 0);
    const Compound::Header fields = Compound::decodeHeaderFields(bytes);
    const unsigned shift = header ? header->sectorShift : findSectorShift(source, fields, output);
    CompoundSalvage salvage(source, fields, shift, output);
    salvage.load();
    const bool isTold = isOne || salvage.hasNodes();
    output.release(isTold);
    if (isOne ? salvage.score() > 0 : isTold)
        salvage.deliver();
}

} // namespace Vexel::Detail::Salvage
