// A header that is there although the package's beginning does not lead to it is put behind a beginning that
// does, and goes through the same checks as every other. What it says of names and times may be wrong where
// its checksum is, but contents have checksums of their own.

#include "storage/salvage/package_header.h"

#include "archive/database.h"
#include "archive/engine_status.h"
#include "archive/header_check.h"
#include "archive/header_layout.h"
#include "archive/header_parser.h"
#include "archive/header_stream.h"
#include "archive/start_bytes.h"
#include "archive/stream_calls.h"
#include "base/com_pointer.h"

#include <7zCrc.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <exception>
#include <optional>
#include <utility>
#include <vector>

namespace Vexel::Detail::Salvage {

using namespace Vexel::Storage::Engine;

namespace {

/// Where the end of a file is looked through for a header.
constexpr std::uint64_t kSearched = 0x100000;
/// What may be gone through there in vain, for each byte and in any case: beginnings of headers can stand as
/// thick as names, and each be parsed to the end of the file.
constexpr std::uint64_t kMostWork = 64;
constexpr std::uint64_t kFreeWork = 0x1000000;
constexpr std::size_t kReadBytes = 0x1000;
/// How often the observer is asked at least, in bytes.
constexpr std::size_t kPieceBytes = 0x10000;
/// What a try counts as besides its bytes: a decoder has tables to fill, however little it decodes.
constexpr std::uint64_t kTryWork = 0x10000;

/// The file, with another beginning if one is given. The observer is asked for each piece that is read, or
/// that a header unpacks to.
class StartedSource final : public HeaderSource {
public:
    StartedSource(SalvageSource& source, Output& output) noexcept : source_(source), output_(output) {}

    void setStart(const StartBytes& start) noexcept { start_ = start; }
    /// Throws what ended the reading, if that was not the file.
    void rethrow() const {
        if (failure_)
            std::rethrow_exception(failure_);
    }

    std::uint64_t size() const noexcept override { return source_.size(); }
    HRESULT read(std::uint64_t offset, std::span<std::byte> target, std::size_t& count) noexcept override {
        if (!start_ || offset >= start_->size()) {
            if (!mayGoOn())
                return E_ABORT;
            count = source_.read(offset, target.first((std::min)(target.size(), kPieceBytes)));
            return S_OK;
        }
        const auto rest = std::span(*start_).subspan(static_cast<std::size_t>(offset));
        count = (std::min)(rest.size(), target.size());
        std::copy_n(rest.begin(), count, target.begin());
        return S_OK;
    }
    bool mayGoOn() noexcept override {
        try {
            output_.progress(0);
            return true;
        } catch (...) {
            failure_ = std::current_exception();
            return false;
        }
    }

private:
    SalvageSource& source_;
    Output& output_;
    std::optional<StartBytes> start_;
    std::exception_ptr failure_;
};

class HeaderSearch {
public:
    HeaderSearch(SalvageSource& source, NArchive::N7z::CDbEx& database, Output& output) noexcept
        : source_(source), database_(database), output_(output), started_(source, output) {}

    bool asItIs() { return isReadable(false); }

    /// Where the beginning says, whatever the checksums are.
    bool whereItShouldBe() {
        StartBytes start{};
        if (source_.read(0, start) != start.size())
            return false;
        return isReadableAt(load<std::uint64_t>(start, StartAt::kOffset),
                            load<std::uint64_t>(start, StartAt::kSize));
    }

    /// At the end of the file.
    bool atTheEnd() {
        const std::uint64_t room = source_.size() - (std::min<std::uint64_t>)(source_.size(), kStartBytes);
        std::vector<std::byte> end(static_cast<std::size_t>((std::min)(room, kSearched)));
        const std::uint64_t begin = source_.size() - end.size();
        readAll(begin, end);
        workLeft_ = kMostWork * end.size() + kFreeWork;
        const auto at = [&](std::size_t index) { return std::to_integer<std::uint64_t>(end[index]); };
        std::size_t passed = 0;
        for (std::size_t i = end.size(); i-- > 1 && workLeft_ > 0;) {
            const bool isPacked = at(i - 1) == HeaderId::kEncodedHeader && at(i) == HeaderId::kPackInfo;
            const bool isPlain = at(i - 1) == HeaderId::kHeader &&
                                 (at(i) == HeaderId::kMainStreamsInfo || at(i) == HeaderId::kFilesInfo);
            if (++passed < kPieceBytes && !isPacked && !isPlain)
                continue;
            output_.progress(std::exchange(passed, 0));
            const auto header = std::span<const std::byte>(end).subspan(i - 1);
            const std::uint64_t offset = begin + i - 1 - kStartBytes;
            HeaderStreams streams;
            std::uint64_t size = 0;
            if (isPacked)
                size = packedHeaderSize(header, offset, streams);
            else if (isPlain)
                size = plainHeaderSize(header, offset, streams);
            // Of nothing but empty items, a few bytes by chance tell as well.
            const bool isByChance = size < header.size() && streams.packedEnd == 0 && offset != 0;
            if (size == 0 || isByChance || isInner(offset, streams))
                continue;
            if (isReadableAt(offset, size))
                return true;
            work(2 * size + kTryWork); // it was read twice
        }
        return false;
    }

private:
    /// Leaves zeros, which are no header, where sectors cannot be read.
    void readAll(std::uint64_t begin, std::span<std::byte> target) {
        for (std::size_t done = 0; done < target.size();) {
            const std::size_t wanted = (std::min)(kReadBytes, target.size() - done);
            const std::size_t count = source_.read(begin + done, target.subspan(done, wanted));
            done += count;
            if (count == wanted)
                continue;
            output_.progress(0);
            done = static_cast<std::size_t>(nextSector(begin + done) - begin);
        }
    }

    /// Whether a header is that of a package within this one, which begins where its streams are counted
    /// from.
    bool isInner(std::uint64_t offset, const HeaderStreams& streams) {
        return streams.packedEnd != offset && beginsAsPackage(source_, offset - streams.packedEnd);
    }

    void work(std::uint64_t bytes) noexcept { workLeft_ -= (std::min)(workLeft_, bytes); }

    /// What a parser has gone through, and the list of folders that it has made room for.
    void work(HeaderParser& parser, const HeaderStreams& streams) noexcept {
        work(parser.reader().ok() ? parser.reader().position() : parser.reader().verdict().where);
        work(streams.folders.size() * sizeof(HeaderFolder));
    }

    /// How many of these bytes tell of a packed header, without a look at that; 0 if they do not.
    std::uint64_t packedHeaderSize(std::span<const std::byte> bytes, std::uint64_t offset,
                                   HeaderStreams& streams) {
        HeaderParser parser(bytes, offset);
        parser.reader().number();
        const bool isSound = parser.parseStreams(streams) && !streams.folders.empty();
        work(parser, streams);
        if (!isSound)
            return 0;
        const std::uint64_t size = parser.reader().position();
        // What claims more is refused before anything of it is read.
        if (streams.folders[0].unpacked > mostUnpacked(streams.firstPacked + size))
            return 0;
        work(streams.firstPacked);
        work(streams.folders[0].unpacked);
        return size;
    }

    /// How many of these bytes are a header with items; 0 if they are none. Names, too, end as headers
    /// without any begin.
    std::uint64_t plainHeaderSize(std::span<const std::byte> bytes, std::uint64_t offset,
                                  HeaderStreams& streams) {
        HeaderParser beginning(bytes, offset);
        beginning.reader().number();
        std::uint64_t id = beginning.reader().number();
        if (id == HeaderId::kMainStreamsInfo && beginning.parseStreams(streams))
            id = beginning.reader().number();
        const bool hasItems = id == HeaderId::kFilesInfo && beginning.reader().count() > 0;
        work(beginning, streams);
        if (!hasItems)
            return 0;
        HeaderParser parser(bytes, offset);
        parser.reader().number();
        const bool isSound = parser.parseHeader();
        work(parser, streams);
        return isSound ? parser.reader().position() : 0;
    }

    bool isReadableAt(std::uint64_t offset, std::uint64_t size) {
        const std::uint64_t room = source_.size() - (std::min<std::uint64_t>)(source_.size(), kStartBytes);
        if (size == 0 || offset > room || size > room - offset)
            return false;
        const auto digest = digestOf(kStartBytes + offset, size);
        if (!digest)
            return false;
        StartBytes start{};
        std::memcpy(start.data(), kSignature.data(), kSignature.size());
        start[StartAt::kVersion + 1] = std::byte{4};
        store(start, StartAt::kOffset, offset);
        store(start, StartAt::kSize, size);
        store(start, StartAt::kHeaderChecksum, *digest);
        store(start, StartAt::kChecksum, checksum(std::span(start).subspan(StartAt::kOffset)));
        started_.setStart(start);
        return isReadable(true);
    }

    /// The checksum of what may be a header, and can be read. What a damaged beginning claims of its size is
    /// not believed before that.
    std::optional<std::uint32_t> digestOf(std::uint64_t offset, std::uint64_t size) {
        std::vector<std::byte> piece(static_cast<std::size_t>((std::min<std::uint64_t>)(size, kPieceBytes)));
        std::uint32_t crc = 0xFFFFFFFF;
        for (std::uint64_t done = 0; done < size; done += piece.size()) {
            output_.progress(0);
            piece.resize(static_cast<std::size_t>((std::min<std::uint64_t>)(size - done, piece.size())));
            if (source_.read(offset + done, piece) != piece.size())
                return std::nullopt;
            const auto id = std::to_integer<std::uint64_t>(piece[0]);
            if (done == 0 && id != HeaderId::kHeader && id != HeaderId::kEncodedHeader)
                return std::nullopt;
            crc = CrcUpdate(crc, piece.data(), piece.size());
        }
        return ~crc;
    }

    bool isReadable(bool mustHaveItems) {
        PlainHeader header;
        const HeaderFault fault = checkHeaders(started_, &header).fault;
        started_.rethrow();
        if (fault != HeaderFault::None)
            return false;
        database_.Clear();
        const auto input = Detail::adopt<IInStream>(new HeaderStream(std::move(header)));
        NArchive::N7z::CInArchive archive(false);
        const UInt64 searchLimit = 0;
        const HRESULT status = withEngine(E_FAIL, [&] {
            const HRESULT opened = archive.Open(input.Get(), &searchLimit);
            return opened == S_OK ? archive.ReadDatabase(database_) : opened;
        });
        if (status != S_OK || database_.ThereIsHeaderError || database_.UnexpectedEnd ||
            database_.UnsupportedFeatureError)
            return false;
        adoptFolderDigests(database_);
        return !mustHaveItems || database_.Files.Size() > 0;
    }

    SalvageSource& source_;
    NArchive::N7z::CDbEx& database_;
    Output& output_;
    StartedSource started_;
    std::uint64_t workLeft_ = 0; // bounds what is tried in vain
};

} // namespace

HRESULT SourceInStream::Read(void* data, UInt32 size, UInt32* processed) noexcept {
    const std::size_t read = source_.read(position_, {static_cast<std::byte*>(data), size});
    position_ += read;
    reportCount(processed, static_cast<std::uint32_t>(read));
    return S_OK;
}

HRESULT SourceInStream::Seek(Int64 offset, UInt32 origin, UInt64* newPosition) noexcept {
    const auto position = moved(position_, source_.size(), offset, origin);
    if (!position)
        return STG_E_INVALIDFUNCTION;
    position_ = *position;
    if (newPosition)
        *newPosition = position_;
    return S_OK;
}

HRESULT SourceInStream::GetSize(UInt64* size) noexcept {
    *size = source_.size();
    return S_OK;
}

bool beginsAsPackage(SalvageSource& source, std::uint64_t offset) {
    std::array<std::byte, kSignature.size()> bytes{};
    return source.read(offset, bytes) == bytes.size() &&
           std::memcmp(bytes.data(), kSignature.data(), bytes.size()) == 0;
}

bool readHeader(SalvageSource& source, NArchive::N7z::CDbEx& database, Output& output) {
    HeaderSearch search(source, database, output);
    if (search.asItIs())
        return true;
    output.damage("the header is not what the package's beginning says", 0);
    return search.whereItShouldBe() || search.atTheEnd();
}

} // namespace Vexel::Detail::Salvage
