// The order of the checks is that of trust: the first 32 bytes by their checksum, the packed header by its
// checksum, its description, and then the header itself while it is being unpacked. Nothing that a step has
// not vouched for is used by the next.
//
// The unpacked header is the exception: the parser believes none of its bytes, and the engine compares its
// checksum in any case. So the checksum is compared here only where the header cannot be parsed, to say which
// of the two is wrong with it. It takes a fifth of the time of reading a header that is not packed.

#include "archive/header_check.h"

#include "archive/header_layout.h"
#include "archive/header_parser.h"
#include "archive/header_unpacker.h"
#include "archive/start_bytes.h"

#include <7zCrc.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace Vexel::Storage::Engine {

namespace {

constexpr std::size_t kLargestRead = 0x40000000;
/// Where an unfinished archive's header is looked for: at the end, in so many bytes.
constexpr std::uint64_t kRescueBytes = 512;

// Of a packed header; see header_check.h. Small ones are unpacked before they are looked at.
constexpr std::uint64_t kSmallHeader = 0x1000000;
constexpr std::uint64_t kMostExpansion = 2048;
constexpr std::uint64_t kFewThings = 0x10000;
constexpr std::uint64_t kThingsPerByte = 20;
constexpr std::uint64_t kFoldersPerByte = 10;

std::uint32_t startChecksum(const StartBytes& start) noexcept {
    return checksum(std::span(start).subspan(StartAt::kOffset));
}

HRESULT statusOf(HeaderFault fault) noexcept {
    switch (fault) {
    case HeaderFault::NotAnArchive:
    case HeaderFault::Header:
        return STG_E_INVALIDHEADER;
    case HeaderFault::Unsupported:
        return HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);
    case HeaderFault::Unreadable:
    case HeaderFault::Input:
        return E_FAIL;
    case HeaderFault::None:
        break;
    }
    return S_OK;
}

HeaderBounds boundsFor(std::uint64_t packed) noexcept {
    HeaderBounds bounds;
    bounds.things = (std::max)(kFewThings, packed * kThingsPerByte);
    bounds.folders = (std::max)(kFewThings, packed * kFoldersPerByte);
    bounds.alikeItems = (std::max)(kFewThings, packed);
    bounds.alikeNameBytes = kSmallHeader;
    bounds.nameBytes = mostUnpacked(packed);
    return bounds;
}

class HeaderChecker {
public:
    explicit HeaderChecker(HeaderSource& source) noexcept : source_(source), fileSize_(source.size()) {}

    const HeaderVerdict& verdict() const noexcept { return verdict_; }

    bool run() {
        if (!readStart())
            return false;
        if (headerBytes_ == 0)
            return true;
        if (!read(header_, kStartBytes + headerOffset_, headerBytes_))
            return false;
        HeaderParser parser(header_.all(), headerOffset_);
        const std::uint64_t id = parser.reader().number();
        if (id == HeaderId::kHeader && parser.parseHeader())
            return true;
        if (!isIntact(header_, "the header's checksum is wrong", kStartBytes + headerOffset_))
            return false;
        if (id == HeaderId::kHeader)
            return accept(parser, false);
        if (id != HeaderId::kEncodedHeader)
            return refuse(HeaderFault::Header, "the header is none", kStartBytes + headerOffset_);
        HeaderStreams streams;
        return accept(parser, parser.parseStreams(streams)) && runPacked(streams);
    }

    PlainHeader plain() noexcept {
        PlainHeader plain;
        std::copy_n(start_.begin(), StartAt::kChecksum, plain.start.begin());
        plain.offset = kStartBytes + (header_.size() > 0 ? headerOffset_ : 0);
        if (header_.size() > 0) {
            store(plain.start, StartAt::kOffset, headerOffset_);
            store<std::uint64_t>(plain.start, StartAt::kSize, header_.size());
            store(plain.start, StartAt::kHeaderChecksum, headerChecksum_);
        }
        store(plain.start, StartAt::kChecksum, startChecksum(plain.start));
        plain.bytes = std::move(header_);
        return plain;
    }

private:
    bool refuse(HeaderFault fault, const char* what, std::uint64_t where) noexcept {
        verdict_ = {fault, statusOf(fault), what, where};
        return false;
    }

    bool accept(HeaderParser& parser, bool parsed) noexcept {
        const HeaderVerdict& verdict = parser.reader().verdict();
        return parsed || refuse(verdict.fault, verdict.what, verdict.where);
    }

    bool read(std::uint64_t offset, std::span<std::byte> target, HeaderFault atEnd) noexcept {
        for (std::size_t done = 0, count = 0; done < target.size(); done += count) {
            const auto rest = target.subspan(done, (std::min)(target.size() - done, kLargestRead));
            count = 0;
            if (const HRESULT status = source_.read(offset + done, rest, count); FAILED(status)) {
                refuse(HeaderFault::Input, "the file cannot be read", offset + done);
                verdict_.status = status;
                return false;
            }
            if (count == 0)
                return refuse(atEnd, "the file ends too early", offset + done);
        }
        return true;
    }

    /// The range has been held against the file's size.
    bool read(PageBuffer& bytes, std::uint64_t offset, std::uint64_t size) {
        bytes = allocate(size);
        if (!bytes.grow(bytes.size()))
            throw std::bad_alloc();
        return read(offset, bytes.all(), HeaderFault::Unreadable);
    }

    static PageBuffer allocate(std::uint64_t size) {
        if (size > static_cast<std::uint64_t>(PTRDIFF_MAX))
            throw std::bad_alloc();
        return PageBuffer(static_cast<std::size_t>(size));
    }

    bool readStart() {
        if (!read(0, start_, HeaderFault::NotAnArchive))
            return false;
        if (std::memcmp(start_.data(), kSignature.data(), kSignature.size()) != 0)
            return refuse(HeaderFault::NotAnArchive, "it does not begin as an archive", 0);
        const bool isWhole = startChecksum(start_) == load<std::uint32_t>(start_, StartAt::kChecksum);
        if (!isWhole && !isUnfinished())
            return refuse(HeaderFault::NotAnArchive, "the checksum of the first bytes is wrong",
                          StartAt::kChecksum);
        if (start_[StartAt::kVersion] != std::byte{0})
            return refuse(HeaderFault::Unreadable, "it is of an unknown version", StartAt::kVersion);
        if (!isWhole)
            return findHeader();
        headerOffset_ = load<std::uint64_t>(start_, StartAt::kOffset);
        headerBytes_ = load<std::uint64_t>(start_, StartAt::kSize);
        headerChecksum_ = load<std::uint32_t>(start_, StartAt::kHeaderChecksum);
        if (headerBytes_ == 0)
            return (headerOffset_ == 0 && headerChecksum_ == 0) ||
                   refuse(HeaderFault::Unreadable, "a header of no bytes has a place", StartAt::kOffset);
        const std::uint64_t room = fileSize_ - (std::min<std::uint64_t>)(fileSize_, kStartBytes);
        if (headerOffset_ > room || headerBytes_ > room - headerOffset_)
            return refuse(HeaderFault::Header, "the header lies behind the end of the file",
                          StartAt::kOffset);
        return true;
    }

    /// A writer that did not get to the end leaves zeros behind the version.
    bool isUnfinished() const noexcept {
        return start_[StartAt::kVersion + 1] != std::byte{0} &&
               std::all_of(start_.begin() + StartAt::kChecksum, start_.end(),
                           [](std::byte byte) { return byte == std::byte{0}; });
    }

    /// The engine reads such an archive all the same if it finds the last header at its end.
    bool findHeader() {
        constexpr const char* kNone = "the archive was not finished";
        const std::uint64_t room = fileSize_ - (std::min<std::uint64_t>)(fileSize_, kStartBytes);
        PageBuffer end;
        if (!read(end, fileSize_ - (std::min)(room, kRescueBytes), (std::min)(room, kRescueBytes)))
            return false;
        const auto at = [&](std::size_t index) { return std::to_integer<std::uint64_t>(end.data()[index]); };
        if (end.size() < 3 || at(end.size() - 1) != HeaderId::kEnd)
            return refuse(HeaderFault::Unreadable, kNone, StartAt::kChecksum);
        for (std::size_t i = end.size() - 1; i-- > 0;) {
            if ((at(i) != HeaderId::kEncodedHeader || at(i + 1) != HeaderId::kPackInfo) &&
                (at(i) != HeaderId::kHeader || at(i + 1) != HeaderId::kMainStreamsInfo))
                continue;
            headerBytes_ = end.size() - i;
            headerOffset_ = room - headerBytes_;
            headerChecksum_ = checksum(end.all().subspan(i));
            return true;
        }
        return refuse(HeaderFault::Unreadable, kNone, StartAt::kChecksum);
    }

    bool isIntact(const PageBuffer& header, const char* otherwise, std::uint64_t where) noexcept {
        return checksum(header.all()) == headerChecksum_ || refuse(HeaderFault::Header, otherwise, where);
    }

    bool runPacked(const HeaderStreams& streams) {
        if (streams.folders.empty()) { // the engine takes that for an archive without items
            header_ = {};
            return true;
        }
        if (!isUnpackable(streams))
            return false;
        PageBuffer packed;
        if (!read(packed, kStartBytes + streams.offset, streams.firstPacked))
            return false;
        PageBuffer plain = allocate(streams.folders[0].unpacked);
        HeaderUnpacker unpacker(streams.method, packed.all(), plain, source_);
        if (!unpacker.start(streams.properties))
            return refuseUnpacking(streams, unpacker);
        if (!parsePacked(streams, plain, unpacker))
            return false;
        // The streams refer into the header that is replaced.
        header_ = std::move(plain);
        return true;
    }

    bool isUnpackable(const HeaderStreams& streams) noexcept {
        const HeaderFolder& folder = streams.folders[0];
        const std::uint64_t where = kStartBytes + streams.offset;
        if (streams.folders.size() > 1)
            return refuse(HeaderFault::Header, "there are several packed headers", where);
        // An encrypted header, for one.
        const bool isKnown = streams.method == MethodId::kCopy || streams.method == MethodId::kLzma ||
                             streams.method == MethodId::kLzma2;
        if (!isKnown || folder.coders != 1 || streams.inputs != 1)
            return refuse(HeaderFault::Unsupported, "the header is packed with an unknown method", where);
        const std::uint64_t most = mostUnpacked(streams.firstPacked + header_.size());
        if (folder.unpacked > most)
            return refuse(HeaderFault::Header, "the packed header promises more than its bytes can hold",
                          where);
        return true;
    }

    bool refuseUnpacking(const HeaderStreams& streams, const HeaderUnpacker& unpacker) {
        if (unpacker.isOutOfMemory())
            throw std::bad_alloc();
        return refuse(unpacker.fault(),
                      unpacker.fault() == HeaderFault::Unsupported ? "the header is packed in an unknown way"
                                                                   : "the packed header does not unpack",
                      kStartBytes + streams.offset);
    }

    /// What is large is looked at while it is unpacked, and refused before it takes much memory.
    bool parsePacked(const HeaderStreams& streams, const PageBuffer& plain, HeaderUnpacker& unpacker) {
        const bool isSmall = plain.size() <= kSmallHeader;
        if (isSmall && !finishUnpacking(streams, plain, unpacker))
            return false;
        HeaderParser parser(plain.all(), headerOffset_, boundsFor(streams.firstPacked + header_.size()),
                            &unpacker);
        // Headers packed several times over do not exist for the engine either.
        if (parser.reader().number() != HeaderId::kHeader)
            parser.reader().refuse(HeaderFault::Header, "the packed header is none");
        const bool isParsed = parser.parseHeader() && parser.reader().waste(parser.reader().left());
        if (unpacker.fault() != HeaderFault::None)
            return refuseUnpacking(streams, unpacker);
        if (isParsed)
            return isSmall || finishUnpacking(streams, plain, unpacker);
        return (!isSmall ||
                isIntact(plain, "the packed header's checksum is wrong", kStartBytes + streams.offset)) &&
               accept(parser, false);
    }

    bool finishUnpacking(const HeaderStreams& streams, const PageBuffer& plain, HeaderUnpacker& unpacker) {
        if (!unpacker.supply(plain.size()))
            return refuseUnpacking(streams, unpacker);
        if (streams.folders[0].hasDigest)
            std::memcpy(&headerChecksum_, streams.digestValues.data(), sizeof headerChecksum_);
        else
            headerChecksum_ = checksum(plain.all());
        return true;
    }

    HeaderSource& source_;
    const std::uint64_t fileSize_;
    HeaderVerdict verdict_;
    StartBytes start_{};
    std::uint64_t headerOffset_ = 0; // behind the first bytes
    std::uint64_t headerBytes_ = 0;
    std::uint32_t headerChecksum_ = 0; // that the header is to have, the unpacked one once there is one
    PageBuffer header_;
};

} // namespace

std::uint64_t mostUnpacked(std::uint64_t packed) noexcept {
    return (std::max)(kSmallHeader, kMostExpansion * packed);
}

HeaderVerdict checkHeaders(HeaderSource& source, PlainHeader* plain) {
    HeaderChecker checker(source);
    if (checker.run() && plain)
        *plain = checker.plain();
    return checker.verdict();
}

} // namespace Vexel::Storage::Engine
