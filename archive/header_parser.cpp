#include "archive/header_parser.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace Vexel::Storage::Engine {

namespace {

constexpr std::uint64_t kMostExpansion = 8192;
constexpr std::uint64_t kExpansionSlack = 0x10000;
/// What packers set for small data, too.
constexpr std::uint32_t kUsualDictionary = 0x4000000;

constexpr std::uint32_t kMostCoders = 64; // of a folder, and their inputs
constexpr std::uint64_t kMostIdBytes = 8;
constexpr std::uint64_t kLargestCount = 0x7FFFFFFF;
constexpr std::size_t kDigestBytes = 4;

constexpr std::size_t bitBytes(std::uint32_t count) noexcept { return (std::size_t{count} + 7) / 8; }

std::uint32_t lzmaDictionary(std::span<const std::byte> properties) noexcept {
    std::uint32_t size = 0;
    if (properties.size() == 5)
        std::memcpy(&size, properties.data() + 1, sizeof size);
    return size;
}

/// Of a size given by its exponent, with halves.
std::uint32_t lzma2Dictionary(std::span<const std::byte> properties) noexcept {
    if (properties.size() != 1)
        return 0;
    const auto code = std::to_integer<std::uint32_t>(properties[0]);
    return code >= 40 ? 0xFFFFFFFF : (2 | (code & 1)) << (code / 2 + 11);
}

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
    position_ = bytes_.size(); // nothing more is to be had
    return false;
}

bool HeaderReader::accept(const HeaderReader& part) noexcept {
    if (part.ok())
        return ok();
    if (ok())
        verdict_ = part.verdict_;
    position_ = bytes_.size();
    return false;
}

void HeaderReader::noMore() noexcept { refuse(HeaderFault::Header, "the header ends too early"); }

// The ones at the top of the first byte say how many bytes follow; the bits below them are the highest.
std::uint64_t HeaderReader::longNumber(std::uint8_t first) noexcept {
    const auto more = static_cast<unsigned>(std::countl_one(first));
    if (left() < more) {
        noMore();
        return 0;
    }
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

std::span<const std::byte> HeaderReader::take(std::uint64_t size) noexcept {
    if (size > left()) {
        noMore();
        return {};
    }
    const auto taken = bytes_.subspan(position_, static_cast<std::size_t>(size));
    position_ += taken.size();
    return taken;
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

bool HeaderParser::fits(std::uint64_t count, std::uint64_t leastBytes) noexcept {
    return (count <= reader_.left() / leastBytes && count <= mostThings_) ||
           reader_.refuse(HeaderFault::Header, "a count is higher than the header has bytes for");
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
        reader_.take(reader_.number());
    }
    return false;
}

DefinedSet HeaderParser::defined(HeaderReader& reader, std::uint32_t count) noexcept {
    if (reader.byte() != 0)
        return DefinedSet::all(count);
    return {reader.take(bitBytes(count)), count};
}

bool HeaderParser::parseHeader() {
    std::uint64_t id = reader_.number();
    if (id == HeaderId::kArchiveProperties) {
        while (reader_.ok() && reader_.number() != HeaderId::kEnd)
            reader_.take(reader_.number());
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
    if (!skipTo(HeaderId::kSize) || !fits(streams.packStreams, 1))
        return false;
    streams.packSizes = reader_; // they are looked at once more, for less than it costs to keep them
    std::uint64_t room = packedRange_ - streams.offset;
    for (std::uint32_t i = 0; i < streams.packStreams; ++i) {
        const std::uint64_t size = reader_.number();
        if (size > room)
            return reader_.refuse(HeaderFault::Header,
                                  "the packed streams are longer than the file has room for");
        room -= size;
    }
    for (;;) {
        const std::uint64_t id = reader_.number();
        if (id == HeaderId::kEnd)
            return reader_.ok();
        if (id == HeaderId::kCrc)
            reader_.take(std::uint64_t{defined(reader_, streams.packStreams).count()} * kDigestBytes);
        else
            reader_.take(reader_.number());
    }
}

bool HeaderParser::parseFolders(HeaderStreams& streams) {
    if (!skipTo(HeaderId::kFolder))
        return false;
    const std::uint32_t count = reader_.count();
    if (reader_.byte() != 0)
        return reader_.refuse(HeaderFault::Header, "the folders stand in additional data that do not exist");
    // Of a folder there is its number of coders, one coder and its size at least.
    if (!fits(count, 3))
        return false;
    streams.folders.resize(count);
    for (HeaderFolder& folder : streams.folders) {
        if (!parseFolder(streams, folder))
            return false;
    }
    return skipTo(HeaderId::kCodersUnpackSize);
}

bool HeaderParser::parseFolder(HeaderStreams& streams, HeaderFolder& folder) noexcept {
    const std::uint32_t coders = reader_.count();
    if (coders == 0 || coders > kMostCoders)
        return reader_.refuse(HeaderFault::Unsupported, "a folder has no coders or too many");
    folder.coders = static_cast<std::uint8_t>(coders);
    std::uint32_t inputs = 0;
    for (std::uint32_t i = 0; i < coders; ++i) {
        if (!parseCoder(streams, folder, inputs))
            return false;
    }
    if ((coders > 1 || inputs > 1) && !parseBonds(folder, inputs))
        return false;
    const std::uint32_t taken = inputs + 1 - coders;
    if (taken > streams.packStreams)
        return reader_.refuse(HeaderFault::Header, "there are fewer packed streams than the folders need");
    streams.packStreams -= taken;
    for (std::uint32_t i = 0; i < taken; ++i)
        folder.packed += streams.packSizes.number();
    return true;
}

bool HeaderParser::parseCoder(HeaderStreams& streams, HeaderFolder& folder, std::uint32_t& inputs) noexcept {
    const std::uint8_t kind = reader_.byte();
    const unsigned idBytes = kind & 0x0F;
    if ((kind & 0xC0) != 0 || idBytes > kMostIdBytes)
        return reader_.refuse(HeaderFault::Unsupported, "a coder is described in an unknown way");
    streams.method = 0;
    for (const std::byte part : reader_.take(idBytes))
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

    streams.properties = (kind & 0x20) != 0 ? reader_.take(reader_.count()) : std::span<const std::byte>();
    if (streams.method == MethodId::kLzma)
        folder.dictionary = (std::max)(folder.dictionary, lzmaDictionary(streams.properties));
    else if (streams.method == MethodId::kLzma2)
        folder.dictionary = (std::max)(folder.dictionary, lzma2Dictionary(streams.properties));
    else if (streams.method != MethodId::kCopy)
        folder.isKnown = false;
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
        std::uint64_t largest = 0;
        for (unsigned i = 0; i < folder.coders; ++i) {
            const std::uint64_t size = reader_.number();
            largest = (std::max)(largest, size);
            if (i == folder.mainCoder)
                folder.unpacked = size;
        }
        if (!reader_.ok() || !checkExpansion(folder, largest))
            return false;
    }
    return true;
}

bool HeaderParser::checkExpansion(const HeaderFolder& folder, std::uint64_t largest) noexcept {
    if (folder.dictionary > kUsualDictionary && folder.dictionary / 2 > largest)
        return reader_.refuse(HeaderFault::Header, "a dictionary is much larger than the data");
    const std::uint64_t over = largest > kExpansionSlack ? largest - kExpansionSlack : 0;
    if (folder.isKnown && over / kMostExpansion + (over % kMostExpansion != 0) > folder.packed)
        return reader_.refuse(HeaderFault::Header, "a folder promises more than its packed bytes can hold");
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
            reader_.take(reader_.number());
            continue;
        }
        if (found && count != 0)
            return reader_.refuse(HeaderFault::Header, "the folders have digests twice");
        found = true;
        streams.digests = defined(reader_, count);
        streams.digestValues = reader_.take(std::uint64_t{streams.digests.count()} * kDigestBytes);
        for (std::uint32_t i = 0; i < count; ++i)
            streams.folders[i].hasDigest = streams.digests.contains(i);
    }
}

bool HeaderParser::parseSubStreams(HeaderStreams& streams) noexcept {
    std::uint64_t id = reader_.number();
    for (bool counted = false; id != HeaderId::kCrc && id != HeaderId::kSize && id != HeaderId::kEnd;
         id = reader_.number()) {
        if (id != HeaderId::kNumUnpackStream) {
            reader_.take(reader_.number());
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
        if (sizes > reader_.left() || count > mostThings_)
            return fits(std::numeric_limits<std::uint64_t>::max(), 1);
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
            reader_.take(reader_.number());
            continue;
        }
        if (found && streams.count != 0)
            return reader_.refuse(HeaderFault::Header, "the streams have digests twice");
        found = true;
        reader_.take(std::uint64_t{defined(reader_, count).count()} * kDigestBytes);
    }
    return reader_.ok();
}

bool HeaderParser::parseFiles(std::uint32_t streams) noexcept {
    files_ = reader_.count();
    // The items' bytes are partly behind us: those with contents are described by their streams.
    if (files_ > headerBytes_ || files_ > mostThings_)
        return fits(std::numeric_limits<std::uint64_t>::max(), 1);
    std::uint64_t seen = 0;
    for (;;) {
        const std::uint64_t id = reader_.number();
        if (id == HeaderId::kEnd)
            break;
        const std::uint64_t size = reader_.number();
        const std::size_t begin = reader_.position();
        HeaderReader part(reader_.take(size), begin);
        if (!reader_.ok())
            return false;
        if (id <= HeaderId::kStartPosition) {
            if ((seen >> id & 1) != 0)
                return reader_.refuse(HeaderFault::Header, "the items have a property twice");
            seen |= std::uint64_t{1} << id;
        }
        parseProperty(id, part);
        if (!reader_.accept(part))
            return false;
    }
    if (reader_.ok() && files_ - emptyFiles_ != streams)
        return reader_.refuse(HeaderFault::Unsupported, "there are not as many items as streams");
    return reader_.ok();
}

void HeaderParser::parseProperty(std::uint64_t id, HeaderReader& part) noexcept {
    switch (id) {
    case HeaderId::kName:
        parseNames(part);
        break;
    case HeaderId::kEmptyStream:
        emptyFiles_ = DefinedSet(part.take(bitBytes(files_)), files_).count();
        break;
    case HeaderId::kEmptyFile:
    case HeaderId::kAnti:
        part.take(bitBytes(emptyFiles_));
        break;
    case HeaderId::kCreationTime:
    case HeaderId::kAccessTime:
    case HeaderId::kModificationTime:
    case HeaderId::kStartPosition:
        parseValues(part, sizeof(std::uint64_t));
        break;
    case HeaderId::kAttributes:
        parseValues(part, sizeof(std::uint32_t));
        break;
    default:
        return; // the engine skips it
    }
    if (part.ok() && part.left() != 0)
        part.refuse(HeaderFault::Header, "a property of the items is longer than it should be");
}

void HeaderParser::parseValues(HeaderReader& part, std::size_t bytesEach) noexcept {
    const std::uint32_t count = defined(part, files_).count();
    if (part.byte() != 0)
        part.refuse(HeaderFault::Header, "a property stands in additional data that do not exist");
    part.take(std::uint64_t{count} * bytesEach);
}

// Each ends with a zero. What follows the last, the engine passes over.
void HeaderParser::parseNames(HeaderReader& part) noexcept {
    if (part.byte() != 0) {
        part.refuse(HeaderFault::Header, "the names stand in additional data that do not exist");
        return;
    }
    const auto names = part.take(part.left());
    if (names.size() / sizeof(wchar_t) > kLargestCount)
        part.refuse(HeaderFault::Unsupported, "the names are longer than texts can be");
    if (zeroUnits(names) < files_)
        part.refuse(HeaderFault::Header, "there are fewer names than items");
}

} // namespace Vexel::Storage::Engine
