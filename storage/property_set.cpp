// The sets of a stream.

#include "storage/property_set.h"

#include "storage/property_bytes.h"

#include <cstring>

namespace Vexel::Detail {

namespace {

// Header (28 bytes): byte order (2), version (2), system (4), class (16), number of sets (4). Then for each
// set its format (16) and where its section begins (4), and then the sections, which begin with their size.
constexpr std::size_t headerSize = 28;
constexpr std::size_t entrySize = 20;
constexpr std::size_t smallestSection = 8;
constexpr std::uint32_t byteOrder = 0xFFFE;     // with version 0
constexpr std::uint32_t system = 2U << 16 | 10; // Windows 10

} // namespace

std::optional<std::vector<PropertySet>> splitPropertySets(ByteView stream) {
    if (!has(stream, 0, headerSize) || (numberAt(stream, 0) & 0xFFFF) != byteOrder)
        return std::nullopt;
    const std::uint32_t count = numberAt(stream, headerSize - 4);
    if (count == 0 || count > 2) // no more can share a stream
        return std::nullopt;
    std::vector<PropertySet> sets(count);
    for (std::size_t entry = headerSize; PropertySet & set : sets) {
        if (!has(stream, entry, entrySize))
            return std::nullopt;
        std::memcpy(&set.format, stream.data() + entry, sizeof set.format);
        const std::size_t offset = numberAt(stream, entry + sizeof set.format);
        if (!has(stream, offset, smallestSection))
            return std::nullopt;
        // Some writers count the padding of the last value without writing it.
        constexpr std::size_t padding = 3;
        const std::size_t size = numberAt(stream, offset);
        if (size < smallestSection || !has(stream, offset, size - padding))
            return std::nullopt;
        const ByteView rest = stream.subspan(offset);
        set.section.assign(rest.begin(),
                           rest.begin() + static_cast<std::ptrdiff_t>((std::min)(size, rest.size())));
        set.section.resize(size);
        entry += entrySize;
    }
    return sets;
}

std::vector<unsigned char> joinPropertySets(const std::vector<PropertySet>& sets) {
    std::vector<unsigned char> stream;
    appendNumber(stream, byteOrder);
    appendNumber(stream, system);
    stream.resize(headerSize - 4); // no class
    appendNumber(stream, sets.size());
    std::size_t offset = headerSize + sets.size() * entrySize;
    for (const PropertySet& set : sets) {
        appendBytes(stream, &set.format, sizeof set.format);
        appendNumber(stream, offset);
        offset += paddedSize(set.section.size());
    }
    for (const PropertySet& set : sets) {
        appendBytes(stream, set.section.data(), set.section.size());
        padToFour(stream);
    }
    return stream;
}

} // namespace Vexel::Detail
