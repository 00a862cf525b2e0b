// A header that is there although the package's beginning does not lead to it is put behind a beginning that
// does, and goes through the same checks as every other. What it says of names and times may be wrong where
// its checksum is, but contents have checksums of their own.

#include "storage/salvage/package_header.h"

#include "archive/database.h"
#include "archive/engine_status.h"
#include "archive/header_check.h"
#include "archive/header_layout.h"
#include "archive/header_stream.h"
#include "archive/start_bytes.h"
#include "archive/stream_calls.h"
#include "base/com_pointer.h"

#include <7zCrc.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <vector>

namespace Vexel::Detail::Salvage {

using namespace Vexel::Storage::Engine;

namespace {

/// Where the end of a file is looked through for a header.
constexpr std::uint64_t kSearched = 0x100000;

/// The file, with another beginning if one is given.
class StartedSource final : public HeaderSource {
public:
    explicit StartedSource(SalvageSource& source) noexcept : source_(source) {}

    void setStart(const StartBytes& start) noexcept { start_ = start; }

    std::uint64_t size() const noexcept override { return source_.size(); }
    HRESULT read(std::uint64_t offset, std::span<std::byte> target, std::size_t& count) noexcept override {
        if (!start_ || offset >= start_->size()) {
            count = source_.read(offset, target);
            return S_OK;
        }
        const auto rest = std::span(*start_).subspan(static_cast<std::size_t>(offset));
        count = (std::min)(rest.size(), target.size());
        std::copy_n(rest.begin(), count, target.begin());
        return S_OK;
    }

private:
    SalvageSource& source_;
    std::optional<StartBytes> start_;
};

class HeaderSearch {
public:
    HeaderSearch(SalvageSource& source, NArchive::N7z::CDbEx& database) noexcept
        : source_(source), database_(database), started_(source) {}

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
        if (source_.read(begin, end) != end.size())
            return false;
        const auto at = [&](std::size_t index) { return std::to_integer<std::uint64_t>(end[index]); };
        for (std::size_t i = end.size(); i-- > 1;) {
            const bool isPacked = at(i - 1) == HeaderId::kEncodedHeader && at(i) == HeaderId::kPackInfo;
            const bool isPlain = at(i - 1) == HeaderId::kHeader &&
                                 (at(i) == HeaderId::kMainStreamsInfo || at(i) == HeaderId::kFilesInfo);
            if ((isPacked || isPlain) &&
                isReadableAt(begin + i - 1 - kStartBytes, source_.size() - (begin + i - 1)))
                return true;
        }
        return false;
    }

private:
    bool isReadableAt(std::uint64_t offset, std::uint64_t size) {
        const std::uint64_t room = source_.size() - (std::min<std::uint64_t>)(source_.size(), kStartBytes);
        if (size == 0 || offset > room || size > room - offset)
            return false;
        std::vector<std::byte> header(static_cast<std::size_t>(size));
        if (source_.read(kStartBytes + offset, header) != header.size())
            return false;
        StartBytes start{};
        std::memcpy(start.data(), kSignature.data(), kSignature.size());
        start[StartAt::kVersion + 1] = std::byte{4};
        store(start, StartAt::kOffset, offset);
        store(start, StartAt::kSize, size);
        store(start, StartAt::kHeaderChecksum, checksum(header));
        store(start, StartAt::kChecksum, checksum(std::span(start).subspan(StartAt::kOffset)));
        started_.setStart(start);
        return isReadable(true);
    }

    bool isReadable(bool mustHaveItems) {
        PlainHeader header;
        if (checkHeaders(started_, &header).fault != HeaderFault::None)
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
    StartedSource started_;
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

bool readHeader(SalvageSource& source, NArchive::N7z::CDbEx& database, Output& output) {
    HeaderSearch search(source, database);
    if (search.asItIs())
        return true;
    output.damage("the header is not what the package's beginning says", 0);
    return search.whereItShouldBe() || search.atTheEnd();
}

} // namespace Vexel::Detail::Salvage
