// Behind damage, a beginning is a guess: a byte 0, where a stream may end, and one that may begin the next.
// It is believed when the chunks lead from there to an end mark and everything decodes, which LZMA checks by
// the way: each chunk must come out just as long as it says, of just as many packed bytes. A stream that is
// stored as it is must have another one behind it. A stream that begins where the one before ended needs none
// of this; but if its chunks lead astray, they may have led over others.

#include "storage/salvage/lzma2_scan.h"

#include "storage/salvage/salvage_output.h"

#include <Alloc.h>
#include <Lzma2Dec.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>
#include <vector>

namespace Vexel::Detail::Salvage {

namespace {

constexpr std::uint8_t kEndMark = 0;
constexpr std::uint8_t kRawWithReset = 1;
constexpr std::uint8_t kRaw = 2;
constexpr std::uint8_t kLzma = 0x80;
constexpr std::uint8_t kLzmaWithProperties = 0xC0;
constexpr std::uint8_t kLzmaWithReset = 0xE0;
constexpr std::uint8_t kMostProperties = 9 * 5 * 5;

constexpr std::size_t kPieceBytes = 0x10000;
/// What is read where a chunk begins far from the one before; what it takes to read at all, and to begin to
/// decode.
constexpr std::size_t kChunkWindow = 256;
constexpr std::uint64_t kReadWork = 1024;
constexpr std::uint64_t kDecoderWork = 3 * kPieceBytes;
/// No dictionary is taken to be larger, for it is memory. Its size is coded by its exponent, with halves.
constexpr std::uint64_t kLargestDictionary = 0x10000000;
constexpr unsigned kSmallestExponent = 11;

Byte dictionaryCode(std::uint64_t unpacked) noexcept {
    const std::uint64_t wanted = std::min(unpacked, kLargestDictionary);
    Byte code = 0;
    while ((std::uint64_t{2 | (code & 1U)} << (code / 2 + kSmallestExponent)) < wanted)
        ++code;
    return code;
}

bool isBeginning(std::optional<std::uint8_t> control) noexcept {
    return control && (*control == kRawWithReset || *control >= kLzmaWithReset);
}

class Decoder {
public:
    explicit Decoder(std::uint64_t unpacked) {
        if (Lzma2Dec_Allocate(&state_, dictionaryCode(unpacked), &g_Alloc) != SZ_OK)
            throw std::bad_alloc();
        Lzma2Dec_Init(&state_);
    }
    Decoder(const Decoder&) = delete;
    Decoder& operator=(const Decoder&) = delete;
    ~Decoder() { Lzma2Dec_Free(&state_, &g_Alloc); }

    /// Decodes some of `packed`, takes that off it, and tells how many bytes have come out; none: there is
    /// nothing more, or it does not decode.
    std::size_t decode(std::span<const std::byte>& packed, std::span<std::byte> target) {
        SizeT taken = packed.size();
        SizeT made = target.size();
        ELzmaStatus status = LZMA_STATUS_NOT_SPECIFIED;
        const SRes result = Lzma2Dec_DecodeToBuf(&state_, reinterpret_cast<Byte*>(target.data()), &made,
                                                 reinterpret_cast<const Byte*>(packed.data()), &taken,
                                                 LZMA_FINISH_ANY, &status);
        packed = packed.subspan(taken);
        isDone_ = result != SZ_OK || status == LZMA_STATUS_FINISHED_WITH_MARK;
        return made;
    }
    bool isDone() const noexcept { return isDone_; }

private:
    CLzma2Dec state_{};
    bool isDone_ = false;
};

} // namespace

std::optional<std::uint8_t> Lzma2Scanner::byteAt(Window& window, std::uint64_t offset, std::size_t most) {
    if (offset >= end_)
        return std::nullopt;
    if (offset < window.begin || offset >= window.begin + window.count) {
        window.begin = offset;
        window.count = source_.read(offset, std::span(window.bytes).first(most));
        if (window.count == 0)
            return std::nullopt;
    }
    return std::to_integer<std::uint8_t>(window.bytes[static_cast<std::size_t>(offset - window.begin)]);
}

std::optional<std::uint8_t> Lzma2Scanner::chunkByteAt(std::uint64_t offset) {
    const std::uint64_t before = chunks_.begin;
    const bool goesOn = offset == chunks_.begin + chunks_.count;
    const auto byte = byteAt(chunks_, offset, goesOn ? chunks_.bytes.size() : kChunkWindow);
    if (chunks_.begin != before)
        work(kReadWork + chunks_.count);
    return byte;
}

std::optional<std::uint8_t> Lzma2Scanner::passedByteAt(std::uint64_t offset) {
    return byteAt(passed_, offset, passed_.bytes.size());
}

void Lzma2Scanner::work(std::uint64_t bytes) {
    workLeft_ -= std::min(workLeft_, bytes);
    unasked_ += bytes;
    if (unasked_ < kPieceBytes)
        return;
    unasked_ = 0;
    progress_(0);
}

/// Adds the chunk behind the stream's bytes so far; false if it is none. One that is cut off is not counted.
bool Lzma2Scanner::addChunk(Lzma2Stream& stream, std::uint8_t control, bool& hasProperties) {
    const std::uint64_t at = stream.begin + stream.packed;
    const auto size = [&](std::uint64_t offset) {
        return std::uint64_t{chunkByteAt(at + offset).value_or(0)} << 8 |
               chunkByteAt(at + offset + 1).value_or(0);
    };
    if (control < kLzma) {
        stream.unpacked += size(1) + 1;
        stream.packed += 3 + size(1) + 1;
        return control == kRawWithReset || control == kRaw;
    }
    const bool givesProperties = control >= kLzmaWithProperties;
    const auto properties = chunkByteAt(at + 5);
    if (givesProperties ? properties && *properties >= kMostProperties : !hasProperties)
        return false;
    hasProperties = true;
    stream.isPacked = true;
    stream.unpacked += (std::uint64_t{control & 0x1FU} << 16) + size(1) + 1;
    stream.packed += (givesProperties ? 6 : 5) + size(3) + 1;
    return true;
}

/// Whether all of the chunk's control byte, sizes and properties can be read. Those behind the end are cut
/// off.
bool Lzma2Scanner::hasReadableStart(std::uint64_t offset, std::optional<std::uint8_t> control) {
    if (!control)
        return offset >= end_;
    if (*control == kEndMark)
        return true;
    std::uint64_t last = offset + 2;
    if (*control >= kLzma)
        last = offset + (*control >= kLzmaWithProperties ? 5 : 4);
    return last >= end_ || chunkByteAt(last);
}

/// The stream as far as its chunks lead, or can be read.
Lzma2Stream Lzma2Scanner::measure(std::uint64_t begin) {
    Lzma2Stream stream;
    stream.begin = begin;
    bool hasProperties = false;
    while (!stream.isEnded) {
        const Lzma2Stream before = stream;
        const auto control = chunkByteAt(begin + stream.packed);
        if (!hasReadableStart(begin + stream.packed, control))
            return before;
        if (!control) { // cut off
            stream.packed = end_ - begin;
            return stream;
        }
        work(1);
        if (*control == kEndMark) {
            ++stream.packed;
            stream.isEnded = true;
        } else if (!addChunk(stream, *control, hasProperties)) {
            return before;
        }
    }
    return stream;
}

bool Lzma2Scanner::isSound(const Lzma2Stream& stream) {
    if (!stream.isEnded)
        return false;
    const std::uint64_t behind = stream.begin + stream.packed;
    if (!stream.isPacked)
        return behind == end_ || (isBeginning(chunkByteAt(behind)) && measure(behind).isEnded);
    work(kDecoderWork);
    return decodeLzma2(source_, stream, [this](std::span<const std::byte> bytes) { work(bytes.size()); }) ==
           stream.unpacked;
}

/// Whether there is something to look at. Behind too much that was in vain that is only where streams ended.
bool Lzma2Scanner::hasMore() {
    ends_.erase(ends_.begin(), ends_.lower_bound(position_));
    if (workLeft_ == 0 && position_ < end_ && !isAtEnd()) {
        givenUpAt_ = givenUpAt_.value_or(position_);
        position_ = ends_.empty() ? end_ : *ends_.begin();
    }
    return position_ < end_;
}

std::optional<Lzma2Stream> Lzma2Scanner::next() {
    for (std::uint64_t passed = 0; hasMore(); ++position_) {
        const bool isBelieved = isAtEnd();
        if (++passed % kPieceBytes == 0)
            progress_(kPieceBytes);
        const bool isBehindEnd = passedByteAt(position_ - 1) == kEndMark;
        const auto control = passedByteAt(position_);
        if (!control) {
            progress_(0);
            position_ = nextSector(position_) - 1;
        }
        if (!(isBelieved || isBehindEnd) || !isBeginning(control))
            continue;
        const std::uint64_t before = workLeft_;
        Lzma2Stream stream = measure(position_);
        if (isBelieved ? stream.packed == 0 : !isSound(stream))
            continue;
        stream.isAdjacent = isBelieved;
        stream.mayBePart = ends_.contains(stream.begin + stream.packed);
        take(stream, before);
        return stream;
    }
    return std::nullopt;
}

void Lzma2Scanner::take(const Lzma2Stream& stream, std::uint64_t workBefore) {
    lastWork_ = workBefore - std::exchange(workLeft_, workBefore); // was not in vain
    position_ = (std::min)(stream.begin + stream.packed, end_);
    if (stream.isEnded)
        ends_.insert(position_);
}

/// How many packed bytes of the stream are known to be its own: up to the last chunk of LZMA behind which
/// other bytes came out.
std::uint64_t Lzma2Scanner::ownBytes(const Lzma2Stream& stream, std::uint64_t unpacked) {
    Lzma2Stream walked;
    walked.begin = stream.begin;
    std::uint64_t own = 0;
    bool hasProperties = false;
    while (walked.unpacked < unpacked) {
        const auto control = chunkByteAt(walked.begin + walked.packed);
        if (!control || !addChunk(walked, *control, hasProperties))
            break;
        if (*control >= kLzma && walked.unpacked < unpacked)
            own = walked.packed;
    }
    return own;
}

void Lzma2Scanner::wasDecoded(const Lzma2Stream& stream, std::uint64_t unpacked) {
    if (stream.isEnded && unpacked == stream.unpacked)
        return;
    work(lastWork_ + kDecoderWork + stream.packed); // or this could be repeated without end
    const std::uint64_t behindOwn = stream.begin + (std::max)(ownBytes(stream, unpacked), std::uint64_t{1});
    if (workLeft_ > 0)
        position_ = behindOwn;
    else // nothing is gone through twice any more
        givenUpAt_ = givenUpAt_.value_or(behindOwn);
}

std::uint64_t decodeLzma2(SalvageSource& source, const Lzma2Stream& stream,
                          const std::function<void(std::span<const std::byte>)>& sink) {
    Decoder decoder(stream.unpacked);
    std::vector<std::byte> buffer(kPieceBytes);
    std::vector<std::byte> made(kPieceBytes);
    std::uint64_t done = 0;
    std::uint64_t offset = 0;
    for (std::span<const std::byte> packed; !decoder.isDone();) {
        if (packed.empty() && offset < stream.packed) {
            const auto wanted =
                static_cast<std::size_t>(std::min<std::uint64_t>(kPieceBytes, stream.packed - offset));
            packed =
                std::span(buffer).first(source.read(stream.begin + offset, std::span(buffer).first(wanted)));
            offset += packed.size();
        }
        const std::size_t before = packed.size();
        const std::size_t count = decoder.decode(packed, made);
        sink(std::span(made).first(count));
        done += count;
        if (count == 0 && packed.size() == before)
            break; // nothing more can be had
    }
    return done;
}

} // namespace Vexel::Detail::Salvage
