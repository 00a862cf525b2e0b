#pragma once

#include "storage/salvage/compound_tables.h"

#include <vexel/salvage.h>

#include <cstdint>
#include <vector>

namespace Vexel::Detail::Salvage {

/// An element of the directory, and what is known of its contents.
struct Element {
    Compound::Entry entry;
    Compound::Label label;
    bool isUsable = false;  ///< it is there, and of a kind that exists
    bool isReached = false; ///< the tree leads to it from the root
    bool isStray = false; ///< of a sector that only looks like one of the directory: its number means nothing
    bool isHidden = false; ///< not worth telling of

    SalvageState state = SalvageState::Lost;
    std::uint64_t there = 0;
    const char* reason = "";
    bool isGuessed = false;

    bool isStream() const noexcept { return entry.type == Compound::EntryType::Stream; }
};

/// The directory of a file as far as it can be found. Element 0 is the root, if that is usable. Marks what
/// the tree leads to.
class Directory {
public:
    Directory(Compound::SectorReader& reader, ChainTable& allocation, Output& output)
        : reader_(reader), allocation_(allocation), output_(output) {}

    /// `first`: where the header says that it begins. If that is no beginning, it is searched for.
    void load(std::uint32_t first);
    /// Adds the elements of sectors that belong to nobody and look like sectors of the directory. To be
    /// called when what is known of streams has been given its sectors.
    void addStrays();

    std::vector<Element>& elements() noexcept { return elements_; }
    bool hasRoot() const noexcept {
        return !elements_.empty() && elements_[0].isUsable &&
               elements_[0].entry.type == Compound::EntryType::Root;
    }
    /// Whether a part of it is missing.
    bool isDamaged() const noexcept { return isDamaged_; }
    /// Siblings from `top` on in their order, as far as they are not taken yet.
    std::vector<std::uint32_t> takeSiblings(std::uint32_t top);
    bool isTaken(std::uint32_t number) const { return taken_[number]; }

private:
    bool beginsDirectory(std::uint32_t sector);
    bool looksLikeDirectory(std::uint32_t sector);
    std::uint32_t findBeginning();
    void readChain(std::uint32_t first);
    void readSector(std::uint32_t sector, bool isStray);
    void markTree();

    Compound::SectorReader& reader_;
    ChainTable& allocation_;
    Output& output_;
    std::vector<Element> elements_;
    std::vector<bool> taken_;  // by takeSiblings
    std::uint32_t listed_ = 0; // elements whose numbers are their places
    bool isDamaged_ = false;
};

} // namespace Vexel::Detail::Salvage
