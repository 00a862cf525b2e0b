#pragma once

#include "archive/engine_api.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Vexel::Storage::Engine {

/// The coders of a folder: what decoding them takes. An archive may declare a dictionary much larger than the
/// data, and the engine would take memory for all of it. No byte is found further back than the data begin,
/// so that a dictionary of the data's size does as well.
class FolderCoders {
public:
    FolderCoders(const NArchive::N7z::CFolders& folders, unsigned folder);

    /// Whether the methods of all of them are known here.
    bool isKnown() const noexcept { return isKnown_; }
    /// The most bytes that one of them hands on.
    std::uint64_t largest() const noexcept { return largest_; }
    /// The largest dictionary that they need.
    std::uint32_t dictionary() const noexcept { return dictionary_; }
    /// Whether one of them declares much more than it needs.
    bool isExcessive() const noexcept { return isExcessive_; }
    /// Makes `target`, which is empty, of this folder alone, with dictionaries as they are needed.
    void copyTo(NArchive::N7z::CFolders& target) const;

private:
    void parse();
    void cutLzma(std::size_t properties, std::uint64_t size) noexcept;
    void cutLzma2(std::size_t properties, std::uint64_t size) noexcept;
    void noteDictionary(std::uint32_t declared, std::uint32_t needed) noexcept;

    const NArchive::N7z::CFolders& folders_;
    const unsigned folder_;
    std::vector<std::byte> description_; // of the coders, as it stands in the header
    std::uint64_t largest_ = 0;
    std::uint32_t dictionary_ = 0;
    bool isKnown_ = true;
    bool isExcessive_ = false;
};

} // namespace Vexel::Storage::Engine
