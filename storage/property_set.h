#pragma once

#include <vexel/properties.h>

#include <map>
#include <optional>
#include <span>
#include <vector>

/// Property sets as bytes (MS-OLEPS). They are read and written here and not by the system: some versions of
/// it end the process on vectors, cut narrow strings off, refuse booleans and fractions, and take the first
/// set of a stream for any other.
namespace Vexel::Detail {

using ByteView = std::span<const unsigned char>;
using PropertyNames = std::map<PROPID, CStringW>;

/// One of the sets in a stream. Offsets in the section count from its start, so that it can be moved.
struct PropertySet {
    FMTID format{};
    std::vector<unsigned char> section;
};

/// The sets of a stream; nothing when it is none.
std::optional<std::vector<PropertySet>> splitPropertySets(ByteView stream);

std::vector<unsigned char> joinPropertySets(const std::vector<PropertySet>& sets);

/// False when counts, offsets or lengths lead out of the section, or values share bytes. Throws
/// std::bad_alloc.
bool decodeProperties(ByteView section, Properties& properties);

/// The names that a user gave to properties of the section; of damaged ones those before the damage.
PropertyNames decodePropertyNames(ByteView section);

/// Fills the section, with the names of those properties that there are. False when there is a type or number
/// that is not written.
bool encodeProperties(const Properties& properties, const PropertyNames& names,
                      std::vector<unsigned char>& section);

} // namespace Vexel::Detail
