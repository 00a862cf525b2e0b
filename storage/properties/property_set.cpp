// The sets of a stream.

#include "storage/properties/property_set.h"

#include <algorithm>
#include <cstring>

namespace Vexel::Detail {

namespace {

// Header (28 bytes): byte order (2), version (2), system (4), class (16), number of sets (4). Then for each
// set its format (16) and where its section begins (4), and then the sections, which begin with their size.
constexpr std::size_t kHeaderSize = 28;
constexpr std::size_t kEntrySize = 20;
constexpr std::size_t kSmallestSection = 8;
constexpr std::uint32_t kByteOrder = 0xFFFE;
constexpr std::uint32_t kNewestVersion = 1;
constexpr std::uint32_t kSystem = 2U << 16 | 10; // Windows 10
constexpr std::uint32_t kMostSets = 2;

/// The number of sets; 0 when the stream is none, or its table is cut off.
std::uint32_t countSets(ByteView stream) noexcept {
    if (!has(stream, 0, kHeaderSize) || (numberAt(stream, 0) & 0xFFFF) != kByteOrder ||
        numberAt(stream, 0) >> 16 > kNewestVersion)
        return 0;
    const std::uint32_t count = numberAt(stream, kHeaderSize - 4);
    return count <= kMostSets && has(stream, kHeaderSize, std::uint64_t{count} * kEntrySize) ? count : 0;
}

FMTID formatAt(ByteView stream, std::size_t index) noexcept {
    FMTID format{};
    std::memcpy(&format, stream.data() + kHeaderSize + index * kEntrySize, sizeof format);
    return format;
}

std::size_t offsetAt(ByteView stream, std::size_t index) noexcept {
    return numberAt(stream, kHeaderSize + index * kEntrySize + sizeof(FMTID));
}

/// The section at the begin of the bytes, empty when it is damaged. Some writers count the padding of the
/// last value without writing it.
ByteView sectionAt(ByteView bytes) noexcept {
    constexpr std::size_t kPadding = 3;
    if (bytes.size() < kSmallestSection)
        return {};
    const std::size_t size = numberAt(bytes, 0);
    if (size < kSmallestSection || size > bytes.size() + kPadding)
        return {};
    return bytes.first((std::min)(size, bytes.size()));
}

} // namespace

// Looks only at the set that is asked for: the other one in the stream may be damaged.
std::optional<ByteView> findSection(ByteView stream, REFFMTID format) {
    const std::uint32_t count = countSets(stream);
    if (count == 0)
        return std::nullopt;
    for (std::uint32_t i = 0; i < count; ++i) {
        if (formatAt(stream, i) != format)
            continue;
        const std::size_t offset = offsetAt(stream, i);
        const ByteView section = offset < stream.size() ? sectionAt(stream.subspan(offset)) : ByteView();
        return section.empty() ? std::nullopt : std::optional(section);
    }
    return ByteView();
}

// For writing, all sets must be sound, since all of them move.
bool PropertyStream::split(ByteView stream) {
    const std::uint32_t count = countSets(stream);
    if (count == 0)
        return false;
    std::vector<std::size_t> offsets;
    for (std::uint32_t i = 0; i < count; ++i) {
        formats_.push_back(formatAt(stream, i));
        offsets.push_back(offsetAt(stream, i));
    }
    auto blocks = splitBlocks(stream, kHeaderSize + count * kEntrySize, offsets);
    if (!blocks || (count > 1 && formats_.front() == formats_.back()))
        return false;
    header_ = stream.first(kHeaderSize);
    version_ = numberAt(stream, 0) >> 16;
    blocks_ = std::move(*blocks);
    return std::ranges::all_of(blocks_.list, [](const Block& block) {
        PropertySection section;
        const ByteView bytes = sectionAt(block.bytes);
        return !bytes.empty() && section.split(bytes) && section.isSound();
    });
}

ByteView PropertyStream::section(REFFMTID format) const noexcept {
    const auto at = std::ranges::find(formats_, format);
    return at == formats_.end()
               ? ByteView()
               : sectionAt(blocks_.list[static_cast<std::size_t>(at - formats_.begin())].bytes);
}

// What stands behind a section, up to the next one, belongs to nobody and stays behind it. A set that is new
// can only join the one stream that holds two: the document summary, and behind it the user's own properties.
bool PropertyStream::put(REFFMTID format, std::vector<unsigned char>&& section) {
    if (const auto at = std::ranges::find(formats_, format); at != formats_.end()) {
        Block& block = blocks_.list[static_cast<std::size_t>(at - formats_.begin())];
        const ByteView behind = block.bytes.subspan(sectionAt(block.bytes).size());
        appendBytes(section, behind.data(), behind.size());
        block.bytes = made_.emplace_back(std::move(section));
        return true;
    }
    // The set of the user's own properties is always a stream's second one.
    const bool isSecond = format == FMTID_UserDefinedProperties;
    const FMTID& other = isSecond ? FMTID_DocSummaryInformation : FMTID_UserDefinedProperties;
    const bool isAlone = formats_.size() == 1 && formats_.front() == other &&
                         (isSecond || format == FMTID_DocSummaryInformation);
    if (!formats_.empty() && !isAlone)
        return false;
    if (isSecond && formats_.empty())
        add(other, PropertySection().join());
    add(format, std::move(section));
    if (!isSecond) {
        std::ranges::reverse(formats_);
        std::ranges::reverse(blocks_.list);
    }
    return true;
}

void PropertyStream::add(REFFMTID format, std::vector<unsigned char>&& section) {
    formats_.push_back(format);
    blocks_.list.push_back({kNewBlock, made_.emplace_back(std::move(section))});
}

std::vector<unsigned char> PropertyStream::join() {
    std::vector<unsigned char> stream;
    appendNumber(stream, kByteOrder | version_ << 16);
    if (header_.empty()) {
        appendNumber(stream, kSystem);
        stream.resize(kHeaderSize - 4); // no class
    } else {
        appendBytes(stream, header_.data() + 4, kHeaderSize - 8);
    }
    appendNumber(stream, formats_.size());
    const std::size_t table = stream.size();
    stream.resize(table + formats_.size() * kEntrySize);
    joinBlocks(blocks_, stream);
    std::vector<unsigned char> entries;
    for (std::size_t i = 0; i < formats_.size(); ++i) {
        appendBytes(entries, &formats_[i], sizeof formats_[i]);
        appendNumber(entries, blocks_.list[i].offset);
    }
    std::ranges::copy(entries, stream.begin() + static_cast<std::ptrdiff_t>(table));
    return stream;
}

} // namespace Vexel::Detail
