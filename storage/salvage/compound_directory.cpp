// An element's number is its place in the chain of the directory's sectors, and elements refer to each other
// by these numbers. So what is found in a sector that no chain leads to is an element without a place in the
// tree; but an element that only its neighbour has lost keeps what is below it.

#include "storage/salvage/compound_directory.h"

#include <algorithm>

namespace Vexel::Detail::Salvage {

using Compound::Entry;
using Compound::EntryType;
using Compound::kEntryBytes;
using Compound::kNoEntry;

namespace {

/// Numbers of elements above this are none that a file could have.
constexpr std::uint32_t kElementLimit = 0x1000000;

bool isLink(std::uint32_t link) noexcept { return link == kNoEntry || link < kElementLimit; }

bool isElement(EntryType type) noexcept { return type == EntryType::Storage || type == EntryType::Stream; }

/// Whether everything about an element is as writers make it.
bool isWellFormed(const Entry& entry, const Compound::Label& label) noexcept {
    return label.isWellFormed && (isElement(entry.type) || entry.type == EntryType::Root) &&
           isLink(entry.left) && isLink(entry.right) && isLink(entry.child);
}

} // namespace

bool Directory::beginsDirectory(std::uint32_t sector) {
    const auto bytes = reader_.sector(sector);
    if (bytes.size() < kEntryBytes)
        return false;
    const auto first = bytes.first<kEntryBytes>();
    const Entry entry = Compound::decodeEntry(first, reader_.sectorShift());
    return entry.type == EntryType::Root && isWellFormed(entry, Compound::decodeLabel(first));
}

bool Directory::looksLikeDirectory(std::uint32_t sector) {
    const auto bytes = reader_.sector(sector);
    std::size_t good = 0;
    std::size_t elements = 0;
    for (std::size_t at = 0; at + kEntryBytes <= bytes.size(); at += kEntryBytes) {
        const auto place = bytes.subspan(at).first<kEntryBytes>();
        const Entry entry = Compound::decodeEntry(place, reader_.sectorShift());
        const bool isGood = isWellFormed(entry, Compound::decodeLabel(place));
        elements += isGood;
        good += isGood || (entry.type == EntryType::Unused && entry.nameBytes == 0);
    }
    return elements > 0 && good * 2 * kEntryBytes >= bytes.size();
}

/// A document within this one lies in a stream, so that the beginning of its directory is in the middle of a
/// chain, as a rule.
std::uint32_t Directory::findBeginning() {
    std::vector<bool> isLedTo(allocation_.count());
    for (std::uint32_t sector = 0; sector < allocation_.count(); ++sector)
        if (allocation_.next(sector) < allocation_.count())
            isLedTo[allocation_.next(sector)] = true;
    std::uint32_t second = kNoEntry;
    for (std::uint32_t sector = 0; sector < allocation_.count(); ++sector) {
        output_.progress(reader_.sectorBytes());
        if (!beginsDirectory(sector))
            continue;
        if (!isLedTo[sector])
            return sector;
        if (second == kNoEntry)
            second = sector;
    }
    return second;
}

void Directory::load(std::uint32_t first) {
    if (first >= allocation_.count() || (!beginsDirectory(first) && !looksLikeDirectory(first))) {
        output_.damage("the directory does not begin where it should; its beginning is searched for", first);
        isDamaged_ = true;
        first = findBeginning();
    }
    if (first != kNoEntry)
        readChain(first);
    listed_ = static_cast<std::uint32_t>(elements_.size());
    if (!hasRoot())
        output_.damage("the root's own element of the directory is lost", 0);
    markTree();
}

void Directory::readChain(std::uint32_t first) {
    const auto visit = [this](std::uint32_t sector) {
        allocation_.setOwner(sector, ChainTable::kDirectory);
        readSector(sector, false);
        output_.progress(reader_.sectorBytes());
    };
    for (;;) {
        const auto walk = allocation_.walk(first, allocation_.count(), ChainTable::kNobody,
                                           ChainTable::LostLinks::End, visit);
        if (walk.end == ChainTable::End::Clean)
            return;
        isDamaged_ = true;
        // Where only the link is lost, a directory mostly goes on in the sector behind.
        first = walk.last + 1;
        if (walk.end != ChainTable::End::Unknown || first >= allocation_.count() ||
            allocation_.owner(first) != ChainTable::kNobody || !looksLikeDirectory(first)) {
            output_.damage("the chain of the directory's sectors breaks off", walk.last);
            return;
        }
    }
}

void Directory::readSector(std::uint32_t sector, bool isStray) {
    const auto bytes = reader_.sector(sector);
    if (bytes.size() < reader_.sectorBytes()) {
        output_.damage("a sector of the directory is cut off", sector);
        isDamaged_ = true;
    }
    for (std::size_t at = 0; at < reader_.sectorBytes(); at += kEntryBytes) {
        Element element;
        if (at + kEntryBytes <= bytes.size()) {
            const auto place = bytes.subspan(at).first<kEntryBytes>();
            element.entry = Compound::decodeEntry(place, reader_.sectorShift());
            element.label = Compound::decodeLabel(place);
            const bool isRoot = elements_.empty() && element.entry.type == EntryType::Root;
            element.isUsable = isRoot || isElement(element.entry.type);
        }
        element.isStray = isStray;
        if (isStray) {
            if (!element.isUsable || !isWellFormed(element.entry, element.label))
                continue;
            element.entry.left = element.entry.right = element.entry.child = kNoEntry;
        }
        elements_.push_back(std::move(element));
    }
}

void Directory::markTree() {
    std::vector<std::uint32_t> pending;
    const auto reach = [&](std::uint32_t number) {
        if (number == kNoEntry)
            return;
        if (number >= listed_ || !elements_[number].isUsable) {
            output_.damage("an element that the tree leads to is lost", number);
            isDamaged_ = true;
        } else if (!elements_[number].isReached && number != 0) {
            elements_[number].isReached = true;
            pending.push_back(number);
        }
    };
    if (hasRoot())
        reach(elements_[0].entry.child);
    while (!pending.empty()) {
        const Entry& entry = elements_[pending.back()].entry;
        pending.pop_back();
        reach(entry.left);
        reach(entry.right);
        if (entry.type == EntryType::Storage)
            reach(entry.child);
    }
    // What nobody leads to must at least be right in itself.
    for (std::uint32_t number = 1; number < listed_; ++number) {
        Element& element = elements_[number];
        if (!element.isReached)
            element.isUsable = element.isUsable && isWellFormed(element.entry, element.label);
    }
    taken_.resize(listed_);
}

void Directory::addStrays() {
    for (std::uint32_t sector = 0; sector < allocation_.count(); ++sector) {
        output_.progress(reader_.sectorBytes());
        if (allocation_.owner(sector) != ChainTable::kNobody ||
            allocation_.next(sector) == Compound::kFreeSector || !looksLikeDirectory(sector))
            continue;
        output_.damage("a sector that the directory has lost is taken up", sector);
        allocation_.setOwner(sector, ChainTable::kDirectory);
        readSector(sector, true);
    }
    taken_.resize(elements_.size());
}

std::vector<std::uint32_t> Directory::takeSiblings(std::uint32_t top) {
    std::vector<std::uint32_t> row;
    std::vector<std::uint32_t> above;
    const auto descend = [&](std::uint32_t number) {
        while (number < elements_.size() && number != 0 && elements_[number].isUsable && !taken_[number]) {
            taken_[number] = true;
            above.push_back(number);
            number = elements_[number].entry.left;
        }
    };
    for (descend(top); !above.empty();) {
        row.push_back(above.back());
        above.pop_back();
        descend(elements_[row.back()].entry.right);
    }
    return row;
}

} // namespace Vexel::Detail::Salvage
