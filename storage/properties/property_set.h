#pragma once

#include "storage/properties/property_bytes.h"

#include <vexel/properties.h>

#include <deque>
#include <map>
#include <optional>
#include <vector>

/// Property sets as bytes (MS-OLEPS). They are read and written here and not by the system: some versions of
/// it end the process on vectors, cut narrow strings off, refuse booleans and fractions, and take the first
/// set of a stream for any other. What is changed is changed within the bytes that are there, so that all
/// else stays as its writer left it; only offsets follow. All functions throw std::bad_alloc.
namespace Vexel::Detail {

/// The bytes of one of a stream's sets: its section, which begins with its size. Nothing when the stream is
/// damaged there; empty when it has no such set.
std::optional<ByteView> findSection(ByteView stream, REFFMTID format);

/// A section taken apart. It refers to the bytes that it was made of.
class PropertySection {
public:
    /// With nothing but the code page, for wide text.
    PropertySection();
    PropertySection(const PropertySection&) = delete;
    PropertySection& operator=(const PropertySection&) = delete;
    ~PropertySection() = default;

    /// False when counts or offsets lead out of the section, or properties share bytes. The section may lack
    /// three of the bytes that its size counts.
    bool split(ByteView section);

    /// False when a value is damaged.
    bool decode(Properties& properties) const;
    bool decodeNames(PropertyNames& names) const;
    /// Whether all that is known of its form is as it should be, so that it can be moved.
    bool isSound() const;

    /// Replaces those values that differ from what they are read as. False when there is a type or number
    /// that is not written.
    bool set(const Properties& properties);
    /// False for a number as above, and a name that is empty, another property's, or not in the code page.
    bool setNames(const PropertyNames& names);

    /// Whether anything was replaced or added, and by what no reader of the first version knows.
    bool isChanged() const noexcept { return !made_.empty(); }
    bool isNewer() const noexcept { return isNewer_; }

    std::vector<unsigned char> join();

private:
    /// Whether the last value reads the same with padding behind it, which it gets when something comes
    /// behind it. What does not is cut off, and padding would make up what is missing.
    bool isLastWhole() const;
    /// The bytes of a property; empty when there is none.
    ByteView find(PROPID id) const noexcept;
    void put(PROPID id, std::vector<unsigned char>&& bytes);

    std::vector<PROPID> ids_;              // of the blocks, in the order of the table
    std::map<PROPID, std::size_t> places_; // of the numbers in that order
    Blocks blocks_;
    std::deque<std::vector<unsigned char>> made_; // new blocks' bytes, which stay where they are
    UINT codePage_ = 1200;                        // wide text
    std::size_t padding_ = 0;                     // that the section lacks at its end
    bool isNewer_ = false;
};

/// A stream of one or two sets. It refers to the bytes that it was made of.
class PropertyStream {
public:
    /// False unless the stream is sound in all its parts.
    bool split(ByteView stream);

    /// The section of a set that is there, or an empty view.
    ByteView section(REFFMTID format) const noexcept;
    /// Puts a section in place of the set's, or beside the set that it may share the stream with. False when
    /// the stream has other sets.
    bool put(REFFMTID format, std::vector<unsigned char>&& section);
    void makeNewer() noexcept { version_ = 1; }

    std::vector<unsigned char> join();

private:
    void add(REFFMTID format, std::vector<unsigned char>&& section);

    ByteView header_; // empty for a new stream
    unsigned version_ = 0;
    std::vector<FMTID> formats_; // of the blocks, in the order of the table
    Blocks blocks_;
    std::deque<std::vector<unsigned char>> made_;
};

} // namespace Vexel::Detail
