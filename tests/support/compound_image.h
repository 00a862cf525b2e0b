#pragma once

#include "storage/compound/compound_check.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Support {

/// A compound file in memory, with every number of its tables within reach of a test that damages it.
class CompoundImage final : public Vexel::Detail::CompoundSource {
public:
    static constexpr std::uint32_t none = 0xFFFFFFFF; ///< no element; a free sector
    static constexpr std::uint32_t end = 0xFFFFFFFE;  ///< of a chain

    // Where numbers are: in the header, and in an element.
    enum HeaderField {
        FatSectors = 44,
        Directory = 48,
        MiniFat = 60,
        Difat = 68,
        DifatSectors = 72,
        Fat = 76
    };
    enum ElementField {
        Name = 0,
        Type = 64,
        Left = 68,
        Right = 72,
        Child = 76,
        Start = 116,
        Size = 120,
        SizeHigh = 124
    };

    /// An element; the first one is the root.
    struct Item {
        std::wstring name;
        unsigned char type;
        std::uint32_t size;
        std::uint32_t left = none, right = none, child = none;
    };
    struct Form {
        unsigned shift = 9;
        bool tablesLast = false;       ///< behind the contents instead of before them
        std::uint32_t freeSectors = 0; ///< behind the tables, or before them
    };

    /// Written by our own few lines. The root's size does not count.
    CompoundImage(const std::vector<Item>& items, Form form);
    /// A sample, or any file.
    explicit CompoundImage(const std::wstring& path);

    /// Root, "Big" (4096 bytes), "Ole" (100 bytes, behind the character 1 when `foreign`), "Box", and in it
    /// "Bigger" (5000 bytes) unless `small`.
    static CompoundImage document(Form form, bool foreign = false, bool small = false);
    /// A root with this many elements in one line, each the `direction` of the one before.
    static CompoundImage line(unsigned elements, ElementField direction);

    std::uint64_t size() const noexcept override { return size_; }
    std::size_t read(std::uint64_t offset, std::span<std::byte> target) noexcept override;
    std::string_view bytes() const noexcept {
        return {reinterpret_cast<const char*>(numbers_.data()), size_};
    }
    void cutTo(std::uint64_t length) { size_ = length; }

    std::uint32_t& number(std::size_t offset) { return numbers_[offset / 4]; }
    std::uint32_t& number(std::size_t sector, std::size_t index) {
        return number(((sector + 1) << shift()) + index * 4);
    }
    /// The allocation table's entry of a sector.
    std::uint32_t& next(std::uint32_t sector);
    /// The sector that is so many steps behind another one.
    std::uint32_t follow(std::uint32_t sector, unsigned steps);
    std::uint32_t& element(std::uint32_t index, ElementField field);

private:
    unsigned shift() const { return numbers_[7] >> 16; }
    std::size_t sectorBytes() const { return std::size_t{1} << shift(); }
    void chain(std::uint32_t first, std::uint32_t count);
    void writeElement(std::uint32_t index, const Item& item);

    std::vector<std::uint32_t> numbers_;
    std::size_t size_ = 0;
};

} // namespace Support
