// Reads what the format description says, number by number, and builds nothing from it but counts: the engine
// reads the same bytes again. A fault empties the reader, so that what follows gets zeros and comes to its
// end without a check after each number.

#include "archive/header_parser.h"

#include "archive/name_census.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace Vexel::Storage::Engine {

namespace {

/// Of a packed header: what is not known here, or not needed, or behind its end.
constexpr std::uint64_t kMostWasted = 0x1000000;
/// Of a coder; what is more is not of a method that anybody knows.
constexpr std::uint64_t kUsualProperties = 64;
constexpr std::uint64_t kSlice = 0x100000;
constexpr std::uint32_t kMostCoders = 64; // of a folder, and their inputs
constexpr std::uint64_t kMostIdBytes = 8;
constexpr std::uint64_t kLargestCount = 0x7FFFFFFF;
constexpr std::size_t kDigestBytes = 4;

constexpr std::size_t bitBytes(std::uint32_t count) noexcept { return (std::size_t{count} + 7) / 8; }

/// The number of 16-bit units that are 0. Names are half of a header: four units are looked at together.
std::size_t zeroUnits(std::span<const std::byte> units) noexcept {
    constexpr std::uint64_t kLow = 0x7FFF7FFF7FFF7FFF;
    std::size_t zeros = 0;
    std::uint64_t four = 0;
    for (; units.size() >= sizeof four; units = units.subspan(sizeof four)) {
        std::memcpy(&four, units.data(), sizeof four);
        // The highest bit of each unit that is 0, and no other.
        if (const std::uint64_t found = ~(((four & kLow) + kLow) | four | kLow); found != 0)
            zeros += static_cast<unsigned>(std::popcount(found));
    }
    for (; units.size() >= 2; units = units.subspan(2))
        zeros += units[0] == std::byte{0} && units[1] == std::byte{0};
    return zeros;
}

} // namespace

bool HeaderReader::refuse(HeaderFault fault, const char* what) noexcept {
    if (ok())
        verdict_ = {fault, S_OK, what, position()};
    position_ = available_ = bytes_.size(); // nothing more is to be had
    return false;
}

bool HeaderReader::accept(const HeaderReader& part) noexcept {
    if (part.ok())
        return ok();
    if (ok())
        verdict_ = part.verdict_;
    position_ = available_ = bytes_.size();
    return false;
}

bool HeaderReader::fetch(std::uint64_t size) noexcept {
    if (size <= available_ - position_)
        return true;
    if (size > left())
        return refuse(HeaderFault::Header, "the header ends too early");
    if (!supply_->supply(position_ + static_cast<std::size_t>(size)))
        return refuse(HeaderFault::Unreadable, "the packed header does not unpack");
    available_ = supply_->available();
    return true;
}

// The ones at the top of the first byte say how many bytes follow; the bits below them are the highest.
std::uint64_t HeaderReader::longNumber(std::uint8_t first) noexcept {
    const auto more = static_cast<unsigned>(std::countl_one(first));
    if (!fetch(more))
        return 0;
    std::uint64_t value = 0;
    for (unsigned i = 0; i < more; ++i)
        value |= std::to_integer<std::uint64_t>(bytes_[position_++]) << (8 * i);
    return more < 7 ? value | (std::uint64_t{first} & (0x7FU >> more)) << (8 * more) : value;
}

std::uint32_t HeaderReader::count() noexcept {
    const std::uint64_t value = number();
    if (value <= kLargestCount)
        return static_cast<std::uint32_t>(value);
    refuse(HeaderFault::Unsupported, "a count is beyond what the engine counts to");
    return 0;
}

std::span<const std::byte> HeaderReader::readBytes(std::uint64_t size) noexcept {
    if (!fetch(size))
        return {};
    const auto taken = bytes_.subspan(position_, static_cast<std::size_t>(size));
    position_ += taken.size();
    return taken;
}

bool HeaderReader::waste(std::uint64_t size) noexcept {
    if (supply_ && size > kMostWasted - wasted_)
        return refuse(HeaderFault::Header, "there is too much in the packed header that means nothing");
    wasted_ += supply_ ? size : 0;
    return true;
}

void HeaderReader::skip(std::uint64_t size) noexcept {
    constexpr std::uint64_t kLeastBefore = 2; // what it is, and its size
    if (size <= left() && waste(size + kLeastBefore))
        readBytes(size);
    else
        refuse(HeaderFault::Header, "the header ends too early");
}

DefinedSet::DefinedSet(std::span<const std::byte> bits, std::uint32_t size) noexcept : bits_(bits) {
    // Bits behind the last thing mean nothing.
    for (std::size_t i = 0; i < bits.size(); ++i) {
        auto eight = std::to_integer<unsigned>(bits[i]);
        if (i + 1 == bits.size() && size % 8 != 0)
            eight &= 0xFF00U >> (size % 8);
        count_ += static_cast<std::uint32_t>(std::popcount(eight & 0xFF));
    }
}

bool DefinedSet::contains(std::uint32_t index) const noexcept {
    if (all_)
        return true;
    return index / 8 < bits_.size() &&
           (std::to_integer<unsigned>(bits_[index / 8]) & (0x80U >> (index % 8))) != 0;
}

bool HeaderParser::refuseCount() noexcept {
    return reader_.refuse(HeaderFault::Header, "a count is higher than the header has bytes for");
}

bool HeaderParser::fits(std::uint64_t count, std::uint64_t leastBytes, std::uint64_t most) noexcept {
    return (count <= reader_.left() / leastBytes && count <= most) || refuseCount();
}

/// Skips what is not known here. The format ends each of its parts, so that this cannot miss what it looks
/// for.
bool HeaderParser::skipTo(std::uint64_t id) noexcept {
    while (reader_.ok()) {
        const std::uint64_t found = reader_.number();
        if (found == id)
            return reader_.ok();
        if (found == HeaderId::kEnd)
            return reader_.refuse(HeaderFault::Header, "a part of the header is missing");
        reader_.skip(reader_.number());
    }
    return false;
}

DefinedSet HeaderParser::defined(HeaderReader& reader, std::uint32_t count) noexcept {
    if (reader.byte() != 0)
        return DefinedSet::all(count);
    return {reader.readBytes(bitBytes(count)), count};
}

bool HeaderParser::parseHeader() {
    std::uint64_t id = reader_.number();
    if (id == HeaderId::kArchiveProperties) {
        while (reader_.ok() && reader_.number() != HeaderId::kEnd)
            reader_.skip(reader_.number());
        id = reader_.number();
    }
    if (id == HeaderId::kAdditionalStreamsInfo)
        return reader_.refuse(HeaderFault::Unsupported,
                              "there are streams of additional data for the header");
    HeaderStreams streams;
    if (id == HeaderId::kMainStreamsInfo) {
        if (!parseStreams(streams))
            return false;
        id = reader_.number();
    }
    if (id == HeaderId::kFilesInfo) {
        if (!parseFiles(streams.count))
            return false;
        reader_.number();
    }
    // The engine does not mind what it is, as long as it is there.
    return reader_.ok();
}

bool HeaderParser::parseStreams(HeaderStreams& streams) {
    std::uint64_t id = reader_.number();
    if (id == HeaderId::kPackInfo) {
        if (!parsePackInfo(streams))
            return false;
        id = reader_.number();
    }
    if (id == HeaderId::kUnpackInfo) {
        if (!parseFolders(streams) || !parseUnpackSizes(streams) || !parseFolderDigests(streams))
            return false;
        id = reader_.number();
    }
    streams.count = static_cast<std::uint32_t>(streams.folders.size());
    if (id == HeaderId::kSubStreamsInfo) {
        if (!parseSubStreams(streams))
            return false;
        id = reader_.number();
    }
    return id == HeaderId::kEnd
               ? reader_.ok()
               : reader_.refuse(HeaderFault::Header, "the streams are followed by something else");
}

bool HeaderParser::parsePackInfo(HeaderStreams& streams) noexcept {
    streams.offset = reader_.number();
    if (streams.offset > packedRange_)
        return reader_.refuse(HeaderFault::Header, "the packed streams begin behind the header");
    streams.packStreams = reader_.count();
    if (!skipTo(HeaderId::kSize) || !fits(streams.packStreams, 1, bounds_.things))
        return false;
    std::uint64_t room = packedRange_ - streams.offset;
    for (std::uint32_t i = 0; i < streams.packStreams; ++i) {
        const std::uint64_t size = reader_.number();
        if (size > room)
            return reader_.refuse(HeaderFault::Header,
                                  "the packed streams are longer than the file has room for");
        room -= size;
        if (i == 0)
            streams.firstPacked = size;
    }
    streams.packedEnd = packedRange_ - room;
    for (;;) {
        const std::uint64_t id = reader_.number();
        if (id == HeaderId::kEnd)
            return reader_.ok();
        if (id == HeaderId::kCrc) {
            const std::uint64_t size =
                std::uint64_t{defined(reader_, streams.packStreams).count()} * kDigestBytes;
            if (!reader_.waste(size + bitBytes(streams.packStreams) + 2))
                return false;
            reader_.readBytes(size);
        } else {
            reader_.skip(reader_.number());
        }
    }
}

bool HeaderParser::parseFolders(HeaderStreams& streams) {
    if (!skipTo(HeaderId::kFolder))
        return false;
    const std::uint32_t count = reader_.count();
    if (reader_.byte() != 0)
        return reader_.refuse(HeaderFault::Header, "the folders stand in additional data that do not exist");
    // Of a folder there is its number of coders, one coder and its size at least.
    if (!fits(count, 3, bounds_.folders))
        return false;
    streams.folders.resize(count);
    // Most are described as the one before.
    std::span<const std::byte> last;
    for (std::uint32_t i = 0; i < count; ++i) {
        if (!last.empty() && reader_.readIfEqual(last)) {
            streams.folders[i] = streams.folders[i - 1];
        } else {
            const std::size_t begin = reader_.position();
            if (!parseFolder(streams, streams.folders[i]))
                return false;
            last = reader_.since(begin);
            // Properties of more count as waste.
            if (last.size() > kUsualProperties)
                last = {};
        }
        if (!takePackStreams(streams))
            return false;
    }
    return skipTo(HeaderId::kCodersUnpackSize);
}

bool HeaderParser::takePackStreams(HeaderStreams& streams) noexcept {
    if (streams.inputs > streams.packStreams)
        return reader_.refuse(HeaderFault::Header, "there are fewer packed streams than the folders need");
    streams.packStreams -= streams.inputs;
    return reader_.ok();
}

bool HeaderParser::parseFolder(HeaderStreams& streams, HeaderFolder& folder) noexcept {
    const std::uint32_t coders = reader_.count();
    if (coders == 0 || coders > kMostCoders)
        return reader_.refuse(HeaderFault::Unsupported, "a folder has no coders or too many");
    folder.coders = static_cast<std::uint8_t>(coders);
    std::uint32_t inputs = 0;
    for (std::uint32_t i = 0; i < coders; ++i) {
        if (!parseCoder(streams, inputs))
            return false;
    }
    if ((coders > 1 || inputs > 1) && !parseBonds(folder, inputs))
        return false;
    streams.inputs = inputs + 1 - coders;
    return reader_.ok();
}

bool HeaderParser::parseCoder(HeaderStreams& streams, std::uint32_t& inputs) noexcept {
    const std::uint8_t kind = reader_.byte();
    const unsigned idBytes = kind & 0x0F;
    if ((kind & 0xC0) != 0 || idBytes > kMostIdBytes)
        return reader_.refuse(HeaderFault::Unsupported, "a coder is described in an unknown way");
    streams.method = 0;
    for (const std::byte part : reader_.readBytes(idBytes))
        streams.method = streams.method << 8 | std::to_integer<std::uint64_t>(part);

    std::uint32_t coderInputs = 1;
    if ((kind & 0x10) != 0) {
        coderInputs = reader_.count();
        if (reader_.count() != 1 || coderInputs > kMostCoders)
            return reader_.refuse(HeaderFault::Unsupported, "a coder has several outputs or too many inputs");
    }
    inputs += coderInputs;
    if (inputs > kMostCoders)
        return reader_.refuse(HeaderFault::Unsupported, "the coders of a folder have too many inputs");

    const std::uint32_t properties = (kind & 0x20) != 0 ? reader_.count() : 0;
    if (properties > kUsualProperties && !reader_.waste(properties))
        return false;
    streams.properties = reader_.readBytes(properties);
    return reader_.ok();
}

/// Which output goes into which input. What is left over is the folder's output and its packed streams.
bool HeaderParser::parseBonds(HeaderFolder& folder, std::uint32_t inputs) noexcept {
    constexpr const char* kWrong = "the coders of a folder are not tied together as they must be";
    std::uint64_t usedInputs = 0;
    std::uint64_t usedCoders = 0;
    const auto use = [this](std::uint64_t& used, std::uint32_t end) {
        const std::uint32_t index = reader_.count();
        if (index >= end || (used >> index & 1) != 0)
            return false;
        used |= std::uint64_t{1} << index;
        return true;
    };
    const std::uint32_t bonds = folder.coders - 1U;
    if (inputs < bonds)
        return reader_.refuse(HeaderFault::Unsupported, kWrong);
    for (std::uint32_t i = 0; i < bonds; ++i) {
        if (!use(usedInputs, inputs) || !use(usedCoders, folder.coders))
            return reader_.refuse(HeaderFault::Unsupported, kWrong);
    }
    // A single packed stream has but one place to go.
    const std::uint32_t packStreams = inputs - bonds;
    for (std::uint32_t i = 0; packStreams != 1 && i < packStreams; ++i) {
        if (!use(usedInputs, inputs))
            return reader_.refuse(HeaderFault::Unsupported, kWrong);
    }
    folder.mainCoder = static_cast<std::uint8_t>(std::countr_one(usedCoders));
    return reader_.ok();
}

bool HeaderParser::parseUnpackSizes(HeaderStreams& streams) noexcept {
    for (HeaderFolder& folder : streams.folders) {
        for (unsigned i = 0; i < folder.coders; ++i) {
            const std::uint64_t size = reader_.number();
            if (i == folder.mainCoder)
                folder.unpacked = size;
        }
        if (!reader_.ok())
            return false;
    }
    return true;
}

bool HeaderParser::parseFolderDigests(HeaderStreams& streams) noexcept {
    const auto count = static_cast<std::uint32_t>(streams.folders.size());
    bool found = false;
    for (;;) {
        const std::uint64_t id = reader_.number();
        if (id == HeaderId::kEnd)
            return reader_.ok();
        if (id != HeaderId::kCrc) {
            reader_.skip(reader_.number());
            continue;
        }
        if (found && count != 0)
            return reader_.refuse(HeaderFault::Header, "the folders have digests twice");
        if (found && !reader_.waste(2))
            return false;
        found = true;
        streams.digests = defined(reader_, count);
        streams.digestValues = reader_.readBytes(std::uint64_t{streams.digests.count()} * kDigestBytes);
        for (std::uint32_t i = 0; i < count; ++i)
            streams.folders[i].hasDigest = streams.digests.contains(i);
    }
}

bool HeaderParser::parseSubStreams(HeaderStreams& streams) noexcept {
    std::uint64_t id = reader_.number();
    for (bool counted = false; id != HeaderId::kCrc && id != HeaderId::kSize && id != HeaderId::kEnd;
         id = reader_.number()) {
        if (id != HeaderId::kNumUnpackStream) {
            reader_.skip(reader_.number());
            continue;
        }
        if (counted)
            return reader_.refuse(HeaderFault::Header, "the streams of the folders are counted twice");
        counted = true;
        if (!parseStreamCounts(streams))
            return false;
    }
    if (id == HeaderId::kSize) {
        if (!parseStreamSizes(streams))
            return false;
        id = reader_.number();
    } else if (std::any_of(streams.folders.begin(), streams.folders.end(),
                           [](const HeaderFolder& folder) { return folder.streams > 1; })) {
        return reader_.refuse(HeaderFault::Header, "the sizes of a folder's streams are missing");
    }
    return parseStreamDigests(streams, id);
}

bool HeaderParser::parseStreamCounts(HeaderStreams& streams) noexcept {
    std::uint64_t count = 0;
    std::uint64_t sizes = 0; // The last stream of a folder is what the others leave.
    for (HeaderFolder& folder : streams.folders) {
        folder.streams = reader_.count();
        count += folder.streams;
        sizes += folder.streams > 1 ? folder.streams - 1 : 0;
        if (sizes > reader_.left() || count > bounds_.things)
            return refuseCount();
    }
    if (count > kLargestCount)
        return reader_.refuse(HeaderFault::Unsupported, "a count is beyond what the engine counts to");
    streams.count = static_cast<std::uint32_t>(count);
    return reader_.ok();
}

bool HeaderParser::parseStreamSizes(const HeaderStreams& streams) noexcept {
    for (const HeaderFolder& folder : streams.folders) {
        std::uint64_t room = folder.unpacked;
        for (std::uint32_t i = 1; i < folder.streams; ++i) {
            const std::uint64_t size = reader_.number();
            if (size > room)
                return reader_.refuse(HeaderFault::Header,
                                      "the streams of a folder are larger than the folder");
            room -= size;
        }
    }
    return reader_.ok();
}

bool HeaderParser::parseStreamDigests(const HeaderStreams& streams, std::uint64_t id) noexcept {
    std::uint32_t count = 0;
    for (const HeaderFolder& folder : streams.folders)
        count += folder.streams == 1 && folder.hasDigest ? 0 : folder.streams;
    for (bool found = false; id != HeaderId::kEnd && reader_.ok(); id = reader_.number()) {
        if (id != HeaderId::kCrc) {
            reader_.skip(reader_.number());
            continue;
        }
        if (found && streams.count != 0)
            return reader_.refuse(HeaderFault::Header, "the streams have digests twice");
        if (found && !reader_.waste(2))
            return false;
        found = true;
        reader_.readBytes(std::uint64_t{defined(reader_, count).count()} * kDigestBytes);
    }
    return reader_.ok();
}

bool HeaderParser::parseFiles(std::uint32_t streams) {
    files_ = reader_.count();
    // Each has a stream, which was counted, or a bit that says that it has none.
    if (files_ > streams + 8 * headerBytes_ || files_ > bounds_.things)
        return refuseCount();
    for (;;) {
        const std::uint64_t id = reader_.number();
        if (id == HeaderId::kEnd)
            break;
        if (!parseFileProperty(id, reader_.number()))
            return false;
    }
    if (reader_.ok() && (seen_ >> HeaderId::kName & 1) == 0 && files_ > bounds_.alikeItems)
        return reader_.refuse(HeaderFault::Header, "there are too many items without a name");
    if (reader_.ok() && files_ - emptyFiles_ != streams)
        return reader_.refuse(HeaderFault::Unsupported, "there are not as many items as streams");
    return reader_.ok();
}

// A property may come twice: the engine takes the last.
bool HeaderParser::parseFileProperty(std::uint64_t id, std::uint64_t size) {
    if (id <= HeaderId::kStartPosition) {
        if ((seen_ >> id & 1) != 0 && !reader_.waste(size))
            return false;
        seen_ |= std::uint64_t{1} << id;
    }
    if (id == HeaderId::kName)
        return parseNames(size);
    const std::uint64_t most = mostBytes(id);
    if (most == 0) { // not known here; the engine skips it, too
        reader_.skip(size);
        return reader_.ok();
    }
    if (size > most)
        return reader_.refuse(HeaderFault::Header, "a property of the items is longer than it should be");
    const std::size_t begin = reader_.position();
    HeaderReader part(reader_.readBytes(size), begin);
    if (!reader_.ok())
        return false;
    parseProperty(id, part);
    if (part.ok() && part.left() != 0)
        part.refuse(HeaderFault::Header, "a property of the items is longer than it should be");
    return reader_.accept(part);
}

/// Of a property of the items; 0 for one that is not known here.
std::uint64_t HeaderParser::mostBytes(std::uint64_t id) const noexcept {
    // Which have a value, and where it stands, come first.
    const auto values = [this](std::uint64_t each) { return 2 + bitBytes(files_) + each * files_; };
    switch (id) {
    case HeaderId::kEmptyStream:
    case HeaderId::kEmptyFile:
    case HeaderId::kAnti:
        return 1 + bitBytes(files_);
    case HeaderId::kCreationTime:
    case HeaderId::kAccessTime:
    case HeaderId::kModificationTime:
    case HeaderId::kStartPosition:
        return values(sizeof(std::uint64_t));
    case HeaderId::kAttributes:
        return values(sizeof(std::uint32_t));
    default:
        return 0;
    }
}

void HeaderParser::parseProperty(std::uint64_t id, HeaderReader& part) noexcept {
    if (id == HeaderId::kEmptyStream)
        emptyFiles_ = DefinedSet(part.readBytes(bitBytes(files_)), files_).count();
    else if (id == HeaderId::kEmptyFile || id == HeaderId::kAnti)
        part.readBytes(bitBytes(emptyFiles_));
    else
        parseValues(part, id == HeaderId::kAttributes ? sizeof(std::uint32_t) : sizeof(std::uint64_t));
}

void HeaderParser::parseValues(HeaderReader& part, std::size_t bytesEach) noexcept {
    const std::uint32_t count = defined(part, files_).count();
    if (part.byte() != 0)
        part.refuse(HeaderFault::Header, "a property stands in additional data that do not exist");
    part.readBytes(std::uint64_t{count} * bytesEach);
}

// Each ends with a zero. What follows the last, the engine takes for an error.
bool HeaderParser::parseNames(std::uint64_t size) {
    if (size > reader_.left() || size == 0)
        return reader_.refuse(HeaderFault::Header, "the header ends too early");
    if (reader_.byte() != 0)
        return reader_.refuse(HeaderFault::Header, "the names stand in additional data that do not exist");
    --size;
    if (size / sizeof(wchar_t) > kLargestCount)
        return reader_.refuse(HeaderFault::Unsupported, "the names are longer than texts can be");
    if (size > bounds_.nameBytes)
        return reader_.refuse(HeaderFault::Header, "the names are longer than the header has bytes for");
    if (files_ > bounds_.alikeItems || size > bounds_.alikeNameBytes)
        return areNamesVaried(size);
    return zeroUnits(reader_.readBytes(size)) >= files_ || refuseNames();
}

bool HeaderParser::areNamesVaried(std::uint64_t size) {
    NameCensus census(files_);
    while (size > 0 && reader_.ok()) {
        const std::uint64_t slice = (std::min)(size, kSlice);
        census.add(reader_.readBytes(slice));
        size -= slice;
        if (!census.isVaried())
            return reader_.refuse(HeaderFault::Header, "there are too many items of the same name");
    }
    return census.count() >= files_ || refuseNames();
}

bool HeaderParser::refuseNames() noexcept {
    return reader_.refuse(HeaderFault::Header, "there are fewer names than items");
}

} // namespace Vexel::Storage::Engine
