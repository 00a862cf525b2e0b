// Where the fields are, by the published description of the format. Fields that the look does not need are
// not decoded.

#include "storage/compound/compound_layout.h"

#include <algorithm>

namespace Vexel::Detail::Compound {

namespace {

constexpr std::array<unsigned char, 8> kSignature = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
constexpr unsigned kSmallSectorShift = 9;
constexpr unsigned kLargeSectorShift = 12;
constexpr unsigned kMiniSectorShift = 6;

// Where the header's fields are.
constexpr std::size_t kSectorShiftAt = 30;
constexpr std::size_t kMiniSectorShiftAt = 32;
constexpr std::size_t kFatSectorsAt = 44;
constexpr std::size_t kFirstDirectorySectorAt = 48;
constexpr std::size_t kCutoffAt = 56;
constexpr std::size_t kFirstMiniFatSectorAt = 60;
constexpr std::size_t kFirstDifatSectorAt = 68;
constexpr std::size_t kDifatSectorsAt = 72;
constexpr std::size_t kDifatAt = 76;

// Where an entry's fields are.
constexpr std::size_t kNameUnits = 32;
constexpr std::size_t kNameBytesAt = 64;
constexpr std::size_t kTypeAt = 66;
constexpr std::size_t kLeftAt = 68;
constexpr std::size_t kRightAt = 72;
constexpr std::size_t kChildAt = 76;
constexpr std::size_t kClassIdAt = 80;
constexpr std::size_t kCreatedAt = 100;
constexpr std::size_t kModifiedAt = 108;
constexpr std::size_t kStartAt = 116;
constexpr std::size_t kSizeAt = 120;

} // namespace

bool hasSignature(std::span<const std::byte> bytes) noexcept {
    return bytes.size() >= kSignature.size() &&
           std::memcmp(bytes.data(), kSignature.data(), kSignature.size()) == 0;
}

Header decodeHeaderFields(std::span<const std::byte, kHeaderBytes> bytes) noexcept {
    Header header;
    header.sectorShift = load<std::uint16_t>(bytes, kSectorShiftAt);
    header.fatSectors = load<std::uint32_t>(bytes, kFatSectorsAt);
    header.firstDirectorySector = load<std::uint32_t>(bytes, kFirstDirectorySectorAt);
    header.firstMiniFatSector = load<std::uint32_t>(bytes, kFirstMiniFatSectorAt);
    header.firstDifatSector = load<std::uint32_t>(bytes, kFirstDifatSectorAt);
    header.difatSectors = load<std::uint32_t>(bytes, kDifatSectorsAt);
    std::memcpy(header.difat.data(), bytes.data() + kDifatAt, sizeof header.difat);
    return header;
}

std::optional<Header> decodeHeader(std::span<const std::byte, kHeaderBytes> bytes) noexcept {
    const Header header = decodeHeaderFields(bytes);
    if (header.sectorShift != kSmallSectorShift && header.sectorShift != kLargeSectorShift)
        return std::nullopt;
    if (load<std::uint16_t>(bytes, kMiniSectorShiftAt) != kMiniSectorShift ||
        load<std::uint32_t>(bytes, kCutoffAt) != kMiniStreamCutoff)
        return std::nullopt;
    return header;
}

Entry decodeEntry(std::span<const std::byte, kEntryBytes> bytes, unsigned sectorShift) noexcept {
    Entry entry;
    entry.nameBytes = load<std::uint16_t>(bytes, kNameBytesAt);
    entry.type = static_cast<EntryType>(load<std::uint8_t>(bytes, kTypeAt));
    entry.left = load<std::uint32_t>(bytes, kLeftAt);
    entry.right = load<std::uint32_t>(bytes, kRightAt);
    entry.child = load<std::uint32_t>(bytes, kChildAt);
    entry.start = load<std::uint32_t>(bytes, kStartAt);
    entry.size = load<std::uint64_t>(bytes, kSizeAt);
    // With small sectors only the lower half of the size counts; old writers left anything in the upper one.
    if (sectorShift == kSmallSectorShift)
        entry.size &= 0xFFFFFFFF;
    return entry;
}

Label decodeLabel(std::span<const std::byte, kEntryBytes> bytes) {
    Label label;
    for (std::size_t i = 0; i < kNameUnits; ++i) {
        const auto unit = load<char16_t>(bytes, i * sizeof(char16_t));
        if (unit == 0)
            break;
        label.name += unit;
    }
    const std::size_t nameBytes = load<std::uint16_t>(bytes, kNameBytesAt);
    label.isWellFormed = !label.name.empty() && nameBytes == (label.name.size() + 1) * sizeof(char16_t);
    std::memcpy(label.classId.data(), bytes.data() + kClassIdAt, label.classId.size());
    label.created = load<std::uint64_t>(bytes, kCreatedAt);
    label.modified = load<std::uint64_t>(bytes, kModifiedAt);
    return label;
}

} // namespace Vexel::Detail::Compound
