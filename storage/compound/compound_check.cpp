// The look goes in the order in which the system would come to things: header, DIFAT, allocation tables,
// directory, the tree of elements, then the chains of the streams. A table is followed only once it is known
// to end, and sectors and elements are marked as they are met, so that time and memory are bounded by the
// size of the file. How much is asked depends on what the system is going to do (CompoundAccess): a fault
// ends the look only if it matters for that. The limits below are measured: where the system begins to fail,
// with room to spare.

#include "storage/compound/compound_check.h"

#include "storage/compound/compound_layout.h"
#include "storage/compound/sector_reader.h"

#include <algorithm>
#include <array>
#include <vector>

namespace Vexel::Detail {

namespace {

using namespace Compound;

/// The system destroys a tree of storages by recursion and overflows a stack of 1 MiB beyond about 2000
/// levels.
constexpr unsigned kDeepestStorage = 1000;
/// Copying a tree as a whole, it recurses with each step to a sibling too, and ends the process beyond about
/// ten thousand.
constexpr unsigned kMostStepsCopied = 4000;
/// Otherwise it walks, but from the beginning for each element: listing this many in one row takes half a
/// minute.
constexpr unsigned kMostStepsWalked = 16000;
/// How often over the streams may claim what the file has. Once is right; the rest of a file that was cut
/// off, and streams that share sectors, claim more.
constexpr std::uint64_t kMostClaims = 16;

/// An allocation table, and which of its sectors have been met in a chain.
class AllocationTable {
public:
    enum class End {
        Clean,
        Circle,
        Shared, ///< runs into another chain, and ends with that
        Table,  ///< runs into a sector of a table, which has a successor as any
        CutOff, ///< its next link is behind the end of the file
        Broken, ///< runs out of the table or onto a mark that ends no chain
    };
    struct Chain {
        End end = End::Clean;
        std::uint32_t last = 0;  ///< where it ends, or leads to what it must not
        std::size_t length = 0;  ///< in sectors
        bool leavesRoom = false; ///< whether it has sectors that the table lists but the room does not hold
    };

    /// The number of sectors that really exist.
    void setRoom(std::uint64_t sectors) noexcept { room_ = sectors; }

    /// Only the file's last sector can be cut short, so that there is one gap in the table at most.
    void append(std::span<const std::byte> sector, std::size_t wholeBytes) {
        const std::size_t old = next_.size();
        next_.resize(old + wholeBytes / sizeof(std::uint32_t));
        std::memcpy(next_.data() + old, sector.data(), std::min(sector.size(), wholeBytes));
        used_.resize(next_.size());
        tables_.resize(next_.size());
        if (sector.size() < wholeBytes) {
            gapBegin_ = old + sector.size() / sizeof(std::uint32_t);
            gapEnd_ = next_.size();
        }
    }

    /// Takes a sector for a table; false if it is one already.
    bool claim(std::uint32_t sector) { return sector >= next_.size() || tables_.insert(sector); }

    bool isFree(std::uint32_t sector) const noexcept {
        return sector < next_.size() && next_[sector] == kFreeSector;
    }

    /// Follows the chain from `start`, takes its sectors and hands each to `visit`. Every sector is taken
    /// once, so that all chains together cost no more than the table has entries.
    template <class Visit>
    Chain follow(std::uint32_t start, Visit visit) {
        Chain chain{End::Clean, start};
        for (std::uint32_t sector = start; sector != kEndOfChain; sector = next_[sector]) {
            if (sector >= next_.size() || tables_.contains(sector)) {
                chain.end = sector < next_.size() ? End::Table : End::Broken;
                return chain;
            }
            if (!used_.insert(sector)) {
                chain.end = isAmongFirst(chain.length, start, sector) ? End::Circle : End::Shared;
                return chain;
            }
            chain.last = sector;
            chain.leavesRoom = chain.leavesRoom || sector >= room_;
            ++chain.length;
            visit(sector);
            if (sector >= gapBegin_ && sector < gapEnd_) {
                chain.end = End::CutOff;
                return chain;
            }
        }
        return chain;
    }

private:
    /// Tells a circle from two chains that meet: the sector is in this chain, or was taken by another one.
    /// Asked once for a chain at most, when it ends.
    bool isAmongFirst(std::size_t length, std::uint32_t start, std::uint32_t wanted) const noexcept {
        for (std::uint32_t sector = start; length > 0; --length, sector = next_[sector])
            if (sector == wanted)
                return true;
        return false;
    }

    std::vector<std::uint32_t> next_;
    std::size_t gapBegin_ = 0, gapEnd_ = 0; ///< the numbers that are cut off
    NumberSet used_;
    NumberSet tables_;
    std::uint64_t room_ = 0;
};

/// The look at one file. Each step returns false when a fault is found that matters for what the system is
/// going to do; then the verdict tells it, and no further step is taken.
class CompoundChecker {
public:
    CompoundChecker(CompoundSource& source, CompoundAccess access) : reader_(source), access_(access) {}

    CompoundVerdict run() {
        if (checkHeader() && loadFat() && loadDirectory() && loadMiniFat() && checkTree())
            checkStreams();
        return verdict_;
    }

private:
    bool refuse(HRESULT status, const char* what, std::uint64_t where = 0) {
        verdict_ = {status, what, where};
        return false;
    }
    bool damaged(const char* what, std::uint64_t where = 0) {
        return refuse(STG_E_DOCFILECORRUPT, what, where);
    }
    /// For what the system reports by itself while it reads and trips over when it writes.
    bool unfitForWriting(const char* what, std::uint64_t where = 0) {
        return !writing() || damaged(what, where);
    }
    /// For what leaves a part to read, which nobody must take for the whole.
    bool incomplete(const char* what, std::uint64_t where = 0) {
        return access_ == CompoundAccess::Read || damaged(what, where);
    }

    bool writing() const noexcept { return access_ == CompoundAccess::Write; }
    bool recursing() const noexcept { return access_ == CompoundAccess::Snapshot; }

    bool checkHeader() {
        const auto bytes = reader_.header();
        if (!hasSignature(bytes))
            return refuse(STG_E_INVALIDHEADER, "it does not begin as a compound file");
        if (bytes.size() < kHeaderBytes)
            return damaged("the header is cut short");
        const auto header = decodeHeader(bytes.first<kHeaderBytes>());
        if (!header)
            return damaged("the header gives sector sizes that do not exist");
        header_ = *header;
        reader_.setSectorShift(header_.sectorShift);
        return true;
    }

    bool loadFat() { return listFatSectors() && readFat() && claimFat(); }

    /// The sectors of the table: the first from the header, the others from the DIFAT sectors. Both counts
    /// are held against the file's size.
    bool listFatSectors() {
        const std::uint32_t count = header_.fatSectors;
        if (count > reader_.sectors())
            return damaged("the header counts more sectors of the allocation table than the file has");
        const std::size_t inHeader = std::min<std::size_t>(count, kHeaderDifatEntries);
        const auto unused = header_.difat.begin() + static_cast<std::ptrdiff_t>(inHeader);
        fatSectors_.assign(header_.difat.begin(), unused);
        if (std::any_of(unused, header_.difat.end(), [](auto sector) { return sector != kFreeSector; }) &&
            !unfitForWriting("the header lists more sectors of the allocation table than it counts"))
            return false;
        if (header_.difatSectors > reader_.sectors())
            return damaged("the header counts more DIFAT sectors than the file has");
        return listFatSectorsFromDifat(count) &&
               (fatSectors_.size() == count ||
                damaged("the header counts more sectors of the allocation table than are listed"));
    }

    /// The header's count of DIFAT sectors decides how far their chain is followed, not the mark at its end.
    bool listFatSectorsFromDifat(std::uint32_t count) {
        NumberSet met;
        met.resize(header_.difatSectors > 0 ? reader_.sectors() : 0);
        std::uint32_t sector = header_.firstDifatSector;
        for (std::uint32_t i = 0; i < header_.difatSectors; ++i) {
            const auto bytes = reader_.sector(sector);
            if (sector >= reader_.sectors() || bytes.size() < reader_.sectorBytes())
                return damaged("a DIFAT sector is missing", sector);
            if (!met.insert(sector))
                return damaged("the DIFAT sectors run in a circle", sector);
            difatSectors_.push_back(sector);
            const std::size_t places = bytes.size() / sizeof(std::uint32_t) - 1;
            for (std::size_t place = 0; place < places && fatSectors_.size() < count; ++place)
                fatSectors_.push_back(load<std::uint32_t>(bytes, place * sizeof(std::uint32_t)));
            sector = load<std::uint32_t>(bytes, places * sizeof(std::uint32_t));
        }
        return true;
    }

    bool readFat() {
        for (const std::uint32_t sector : fatSectors_) {
            if (sector >= reader_.sectors())
                return damaged("a sector of the allocation table is missing", sector);
            const auto bytes = reader_.sector(sector);
            if (bytes.size() < reader_.sectorBytes() &&
                !unfitForWriting("a sector of the allocation table is cut short", sector))
                return false;
            fat_.append(bytes, reader_.sectorBytes());
        }
        fat_.setRoom(reader_.sectors());
        return true;
    }

    /// Marks the tables' own sectors, before any chain is followed. The system follows a chain into a table
    /// without noticing: a table's sector has an entry as every other has.
    bool claimFat() {
        for (const auto* list : {&fatSectors_, &difatSectors_}) {
            for (const std::uint32_t sector : *list) {
                if (!fat_.claim(sector))
                    return damaged("two parts of the allocation table lie in one sector", sector);
                if (fat_.isFree(sector) &&
                    !unfitForWriting("a sector of the allocation table counts as free", sector))
                    return false;
            }
        }
        return true;
    }

    /// Which ends of a chain are damage. Reading gets over a chain that runs into another one, for it ends
    /// with that; from the other faulty ends it does not come back, or not with a count of bytes.
    bool acceptEnd(const AllocationTable::Chain& chain) {
        switch (chain.end) {
        case AllocationTable::End::Circle:
            return damaged("a chain of sectors runs in a circle", chain.last);
        case AllocationTable::End::Shared:
            return incomplete("a chain of sectors runs into another one", chain.last);
        case AllocationTable::End::Table:
            return damaged("a chain of sectors runs into the allocation table", chain.last);
        case AllocationTable::End::CutOff:
            return damaged("a chain of sectors leads to where its table is cut off", chain.last);
        case AllocationTable::End::Broken:
            return damaged("a chain of sectors breaks off", chain.last);
        case AllocationTable::End::Clean:
            break;
        }
        return !chain.leavesRoom || incomplete("a chain of sectors leads behind the end", chain.last);
    }

    /// Reads all entries of the directory, also those that nobody refers to: their numbers are their places.
    bool loadDirectory() {
        bool complete = true;
        std::vector<std::byte> whole(reader_.sectorBytes());
        const std::size_t entriesPerSector = reader_.sectorBytes() / kEntryBytes;
        const auto chain = fat_.follow(header_.firstDirectorySector, [&](std::uint32_t sector) {
            const auto bytes = reader_.sector(sector);
            complete = complete && bytes.size() == reader_.sectorBytes();
            const std::size_t first = entries_.size();
            // The table may list many times the sectors that exist; they are not worth memory.
            if (first / entriesPerSector >= reader_.sectors())
                return;
            std::copy(bytes.begin(), bytes.end(), whole.begin());
            for (std::size_t at = 0; at < reader_.sectorBytes(); at += kEntryBytes) {
                entries_.push_back(
                    decodeEntry(std::span(whole).subspan(at).first<kEntryBytes>(), header_.sectorShift));
                entries_.back().isThere = at + kEntryBytes <= bytes.size();
            }
        });
        if (entries_.empty() || !entries_[0].isThere)
            return damaged("there is no directory", header_.firstDirectorySector);
        return acceptEnd(chain) && (complete || unfitForWriting("the directory is cut short"));
    }

    bool loadMiniFat() {
        if (header_.firstMiniFatSector == kFreeSector)
            return true;
        bool isThere = true;
        return acceptEnd(fat_.follow(header_.firstMiniFatSector, [&](std::uint32_t sector) {
            isThere = isThere && sector < reader_.sectors();
            if (isThere) // else the table ends there, for who may read what is left
                miniFat_.append(reader_.sector(sector), reader_.sectorBytes());
        }));
    }

    /// Every element stands in one place of one tree, or searches and listings do not end.
    bool checkTree() {
        reached_.resize(entries_.size());
        reached_.insert(0);
        if (entries_[0].nameBytes == 0 && !unfitForWriting("the root has no name"))
            return false;
        std::vector<TreeStep> pending;
        if (!reach(entries_[0].child, {0, 1, 1}, pending))
            return false;
        while (!pending.empty()) {
            TreeStep step = pending.back();
            pending.pop_back();
            const Entry& entry = entries_[step.entry];
            if (entry.nameBytes == 0 && !unfitForWriting("an element has no name", step.entry))
                return false;
            ++step.steps;
            if (!reach(entry.left, step, pending) || !reach(entry.right, step, pending))
                return false;
            ++step.storages;
            if ((entry.type == EntryType::Storage || recursing()) && !reach(entry.child, step, pending))
                return false;
        }
        return true;
    }

    struct TreeStep {
        std::uint32_t entry;
        unsigned storages; ///< above the element
        unsigned steps;    ///< from the root to it, from sibling to sibling too
    };

    /// Takes an element up for the walk. The list of pending ones stands for the recursion, whose depth would
    /// come from the file.
    bool reach(std::uint32_t entry, TreeStep step, std::vector<TreeStep>& pending) {
        if (entry == kNoEntry)
            return true;
        if (entry >= entries_.size())
            return damaged("the directory refers to an element that does not exist", entry);
        if (!entries_[entry].isThere)
            return damaged("an element is cut off", entry);
        if (!reached_.insert(entry))
            return damaged("an element stands in more than one place", entry);
        if (step.storages > kDeepestStorage)
            return damaged("storages are nested too deeply", entry);
        if (step.steps > (recursing() ? kMostStepsCopied : kMostStepsWalked)) {
            damaged("too many elements stand in one row", entry);
            verdict_.isTooLong = true;
            return false;
        }
        step.entry = entry;
        pending.push_back(step);
        return true;
    }

    bool checkStreams() {
        miniFat_.setRoom((entries_[0].size + kMiniSectorBytes - 1) / kMiniSectorBytes);
        std::uint64_t claims = 0;
        if (!addClaim(claims, 0))
            return false;
        for (std::uint32_t i = 1; i < entries_.size(); ++i) {
            const Entry& entry = entries_[i];
            // An empty stream has no chain, whatever its start says: some writers leave 0 there.
            if (!reached_.contains(i) || entry.type != EntryType::Stream || entry.size == 0)
                continue;
            if (!addClaim(claims, i) || !checkContents(i))
                return false;
        }
        // The root's stream holds the mini sectors; the system follows its chain even if that is empty.
        return checkLarge(0);
    }

    /// Sizes are believed by whoever makes room for a stream, so they are held against the file.
    bool addClaim(std::uint64_t& claims, std::uint32_t number) {
        const std::uint64_t limit = kMostClaims * reader_.fileBytes();
        const std::uint64_t size = entries_[number].size;
        if (size > limit || claims > limit - size)
            return damaged("the streams claim to be far larger than the file", number);
        claims += size;
        return true;
    }

    bool checkContents(std::uint32_t number) {
        if (entries_[number].size >= kMiniStreamCutoff)
            return checkLarge(number);
        const auto chain = miniFat_.follow(entries_[number].start, [](std::uint32_t) {});
        // Who only reads follows a chain of mini sectors no further than the stream's few bytes, and is told
        // where it breaks off.
        if (access_ == CompoundAccess::Read && chain.end != AllocationTable::End::CutOff)
            return true;
        return acceptEnd(chain) && checkLength(number, chain.length * kMiniSectorBytes);
    }

    /// The last sector of a file need not be whole, but what a stream has in it.
    bool checkLarge(std::uint32_t number) {
        std::uint64_t rest = entries_[number].size;
        bool complete = true;
        const auto chain = fat_.follow(entries_[number].start, [&](std::uint32_t sector) {
            const auto wanted = std::min<std::uint64_t>(rest, reader_.sectorBytes());
            complete = complete && reader_.bytesThere(sector) >= wanted;
            rest -= wanted;
        });
        return acceptEnd(chain) && checkLength(number, entries_[number].size - rest) &&
               (complete || incomplete("the end of a stream is cut off", number));
    }

    bool checkLength(std::uint32_t number, std::uint64_t room) {
        return room >= entries_[number].size ||
               incomplete("a stream is longer than its chain of sectors", number);
    }

    SectorReader reader_;
    const CompoundAccess access_;
    CompoundVerdict verdict_;
    Header header_;
    std::vector<std::uint32_t> fatSectors_;
    std::vector<std::uint32_t> difatSectors_;
    AllocationTable fat_;
    AllocationTable miniFat_;
    std::vector<Entry> entries_;
    NumberSet reached_;
};

} // namespace

CompoundVerdict checkCompound(CompoundSource& source, CompoundAccess access) {
    return CompoundChecker(source, access).run();
}

} // namespace Vexel::Detail
