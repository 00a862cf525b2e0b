#pragma once

#include "archive/header_check.h"
#include "archive/header_layout.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <span>
#include <vector>

/// The inside of an archive's header, read with nothing believed. Its layout is described in header_layout.h.
namespace Vexel::Storage::Engine {

/// Where the bytes of a header come from that is not there as a whole yet.
class HeaderSupply {
public:
    HeaderSupply() = default;
    HeaderSupply(const HeaderSupply&) = delete;
    HeaderSupply& operator=(const HeaderSupply&) = delete;
    virtual ~HeaderSupply() = default;

    /// Sees that the first `count` bytes are there, of as many as the header has. False: they cannot be had.
    virtual bool supply(std::size_t count) noexcept = 0;
    virtual std::size_t available() const noexcept = 0;
};

/// Reads numbers off bytes. Whoever wants more than there is gets zeros, and the verdict tells of it: the
/// first fault is the one that counts, and loops need to look for it only where they would run long.
class HeaderReader {
public:
    /// `supply`, if any, puts the bytes in their places.
    explicit HeaderReader(std::span<const std::byte> bytes, std::size_t begin = 0,
                          HeaderSupply* supply = nullptr) noexcept
        : bytes_(bytes), begin_(begin), available_(supply ? supply->available() : bytes.size()),
          supply_(supply) {}

    bool ok() const noexcept { return verdict_.fault == HeaderFault::None; }
    const HeaderVerdict& verdict() const noexcept { return verdict_; }
    std::size_t left() const noexcept { return bytes_.size() - position_; }
    std::size_t position() const noexcept { return begin_ + position_; }

    bool refuse(HeaderFault fault, const char* what) noexcept;
    /// Takes over the fault of a reader of a part of this one's bytes; whether there is none.
    bool accept(const HeaderReader& part) noexcept;

    std::uint8_t byte() noexcept {
        return position_ < available_ || fetch(1) ? std::to_integer<std::uint8_t>(bytes_[position_++])
                                                  : std::uint8_t{0};
    }
    std::uint64_t number() noexcept {
        const std::uint8_t first = byte();
        return first < 0x80 ? first : longNumber(first);
    }
    /// A number that the engine counts with.
    std::uint32_t count() noexcept;
    std::span<const std::byte> readBytes(std::uint64_t size) noexcept;
    /// What was read since an earlier position.
    std::span<const std::byte> since(std::size_t begin) const noexcept {
        return bytes_.subspan(begin - begin_, position() - begin);
    }
    /// Passes over these bytes if they are what comes next and is there already.
    bool readIfEqual(std::span<const std::byte> bytes) noexcept {
        if (bytes.size() > available_ - position_ ||
            std::memcmp(bytes_.data() + position_, bytes.data(), bytes.size()) != 0)
            return false;
        position_ += bytes.size();
        return true;
    }
    /// Counts bytes that nobody needs. Of a packed header these may not be many: they would be unpacked for
    /// nothing.
    bool waste(std::uint64_t size) noexcept;
    /// Passes over something with its size before it.
    void skip(std::uint64_t size) noexcept;

private:
    std::uint64_t longNumber(std::uint8_t first) noexcept;
    /// Whether the next bytes are there.
    bool fetch(std::uint64_t size) noexcept;

    std::span<const std::byte> bytes_;
    std::size_t begin_;
    std::size_t position_ = 0;
    std::size_t available_;
    HeaderSupply* supply_;
    std::uint64_t wasted_ = 0;
    HeaderVerdict verdict_;
};

/// For which of several things there is a value.
class DefinedSet {
public:
    DefinedSet() = default;
    DefinedSet(std::span<const std::byte> bits, std::uint32_t size) noexcept;

    static DefinedSet all(std::uint32_t size) noexcept {
        DefinedSet set;
        set.count_ = size;
        set.all_ = true;
        return set;
    }

    bool contains(std::uint32_t index) const noexcept;
    std::uint32_t count() const noexcept { return count_; }

private:
    std::span<const std::byte> bits_;
    std::uint32_t count_ = 0;
    bool all_ = false;
};

/// Streams in the file that are unpacked together.
struct HeaderFolder {
    std::uint64_t unpacked = 0; ///< bytes
    std::uint32_t streams = 1;  ///< that it unpacks to
    std::uint8_t coders = 0;
    std::uint8_t mainCoder = 0; ///< the one whose output is the folder's
    bool hasDigest = false;
};

struct HeaderStreams {
    std::uint64_t offset = 0;      ///< of the first packed stream, after the archive's first bytes
    std::uint64_t firstPacked = 0; ///< bytes of that stream
    std::uint64_t packedEnd = 0;   ///< of the last packed stream, counted as `offset`
    std::uint32_t packStreams = 0; ///< how many no folder has taken yet
    std::vector<HeaderFolder> folders;
    std::uint32_t count = 0; ///< of the streams that come out of all folders

    // Of the last folder, and its last coder.
    std::uint32_t inputs = 0; ///< packed streams that go into it
    std::uint64_t method = 0;
    std::span<const std::byte> properties;
    DefinedSet digests;                      ///< of the folders
    std::span<const std::byte> digestValues; ///< of those that have one, 4 bytes each
};

/// What a header's bytes can stand for; see header_check.h.
struct HeaderBounds {
    std::uint64_t things = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t folders = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t nameBytes = std::numeric_limits<std::uint64_t>::max();
    /// Names must differ where there are more, of the items or of the bytes of their names.
    std::uint64_t alikeItems = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t alikeNameBytes = std::numeric_limits<std::uint64_t>::max();
};

class HeaderParser {
public:
    /// `packedRange`: the bytes between the archive's first ones and the header. `supply` as in HeaderReader.
    HeaderParser(std::span<const std::byte> bytes, std::uint64_t packedRange, const HeaderBounds& bounds = {},
                 HeaderSupply* supply = nullptr) noexcept
        : reader_(bytes, 0, supply), headerBytes_(bytes.size()), packedRange_(packedRange), bounds_(bounds) {}

    HeaderReader& reader() noexcept { return reader_; }

    /// Reads a header from behind the number that says that it is one.
    bool parseHeader();
    bool parseStreams(HeaderStreams& streams);

private:
    bool refuseCount() noexcept;
    bool fits(std::uint64_t count, std::uint64_t leastBytes, std::uint64_t most) noexcept;
    bool skipTo(std::uint64_t id) noexcept;
    DefinedSet defined(HeaderReader& reader, std::uint32_t count) noexcept;

    bool parsePackInfo(HeaderStreams& streams) noexcept;
    bool parseFolders(HeaderStreams& streams);
    bool parseFolder(HeaderStreams& streams, HeaderFolder& folder) noexcept;
    bool takePackStreams(HeaderStreams& streams) noexcept;
    bool parseCoder(HeaderStreams& streams, std::uint32_t& inputs) noexcept;
    bool parseBonds(HeaderFolder& folder, std::uint32_t inputs) noexcept;
    bool parseUnpackSizes(HeaderStreams& streams) noexcept;
    bool parseFolderDigests(HeaderStreams& streams) noexcept;

    bool parseSubStreams(HeaderStreams& streams) noexcept;
    bool parseStreamCounts(HeaderStreams& streams) noexcept;
    bool parseStreamSizes(const HeaderStreams& streams) noexcept;
    bool parseStreamDigests(const HeaderStreams& streams, std::uint64_t id) noexcept;

    bool parseFiles(std::uint32_t streams);
    bool parseFileProperty(std::uint64_t id, std::uint64_t size);
    std::uint64_t mostBytes(std::uint64_t id) const noexcept;
    void parseProperty(std::uint64_t id, HeaderReader& part) noexcept;
    void parseValues(HeaderReader& part, std::size_t bytesEach) noexcept;
    bool parseNames(std::uint64_t size);
    bool areNamesVaried(std::uint64_t size);
    bool refuseNames() noexcept;

    HeaderReader reader_;
    const std::uint64_t headerBytes_;
    const std::uint64_t packedRange_;
    const HeaderBounds bounds_;
    std::uint32_t files_ = 0;
    std::uint32_t emptyFiles_ = 0;
    std::uint64_t seen_ = 0; // properties of the items, a bit each
};

} // namespace Vexel::Storage::Engine
