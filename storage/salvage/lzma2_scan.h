#pragma once

#include <vexel/salvage.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <span>
#include <utility>

/// Finding LZMA2 streams in bytes that nothing describes. A stream is a row of chunks, each with a control
/// byte and its sizes before it, and a byte 0 at the end:
///     0                                  the end of the stream
///     1 or 2, size (2)                   bytes as they are; 1 resets the dictionary
///     0x80 and more, size (2),           LZMA; the control byte's lower five bits are the highest of the
///       packed size (2)[, properties]    unpacked size. 0xC0 and more have properties, 0xE0 and more reset
///                                        the dictionary, too
/// Sizes are one less than what they say, and big-endian. A stream begins with a reset of the dictionary.
namespace Vexel::Detail::Salvage {

struct Lzma2Stream {
    std::uint64_t begin = 0;
    std::uint64_t packed = 0; ///< bytes, the end mark included
    std::uint64_t unpacked = 0;
    bool isEnded = false;    ///< its chunks lead to an end mark
    bool isPacked = false;   ///< it has chunks of LZMA, which cannot be anything else
    bool isAdjacent = false; ///< it begins where another one ended
    bool mayBePart = false;  ///< it ends where a damaged one did, whose last part it may be
};

class Lzma2Scanner {
public:
    using Progress = std::function<void(std::uint64_t)>;

    /// Looks at the bytes from `begin` to `end` of the source. `progress` is told of those that were passed,
    /// and asked at least for each 64 KiB of what is tried beside; it may throw.
    Lzma2Scanner(SalvageSource& source, std::uint64_t begin, std::uint64_t end, Progress progress)
        : source_(source), progress_(std::move(progress)), position_(begin), end_(end), ends_{begin},
          workLeft_(kMostWork * (end - begin) + kFreeWork) {}

    /// The next stream. One that is not adjacent is only given when all of it decodes, or nothing in it
    /// is packed and another stream follows.
    std::optional<Lzma2Stream> next();
    /// To be told how many bytes of the last stream came out. If these are not all, or it did not end, its
    /// chunks may have led over other streams: the next is looked for behind what is known to be its own,
    /// unless too much was tried in vain before.
    void wasDecoded(const Lzma2Stream& stream, std::uint64_t unpacked);
    /// Where the bytes begin that were not looked at, because too much was tried in vain before. Behind it
    /// only what follows the streams that were found is looked at.
    std::optional<std::uint64_t> givenUpAt() const noexcept { return givenUpAt_; }

private:
    static constexpr std::uint64_t kMostWork = 16;
    static constexpr std::uint64_t kFreeWork = 0x1000000;

    /// Some bytes of the source. Chunks lie far apart: who follows them reads little at a time.
    struct Window {
        std::array<std::byte, 4096> bytes{};
        std::uint64_t begin = 0;
        std::size_t count = 0;
    };

    std::optional<std::uint8_t> byteAt(Window& window, std::uint64_t offset, std::size_t most);
    std::optional<std::uint8_t> passedByteAt(std::uint64_t offset);
    std::optional<std::uint8_t> chunkByteAt(std::uint64_t offset);
    bool hasReadableStart(std::uint64_t offset, std::optional<std::uint8_t> control);
    Lzma2Stream measure(std::uint64_t begin);
    bool addChunk(Lzma2Stream& stream, std::uint8_t control, bool& hasProperties);
    bool isSound(const Lzma2Stream& stream);
    bool isAtEnd() const { return !ends_.empty() && *ends_.begin() == position_; }
    bool hasMore();
    void take(const Lzma2Stream& stream, std::uint64_t workBefore);
    std::uint64_t ownBytes(const Lzma2Stream& stream, std::uint64_t unpacked);
    void work(std::uint64_t bytes);

    SalvageSource& source_;
    const Progress progress_;
    std::uint64_t position_;
    const std::uint64_t end_;
    /// Where streams ended, so that others begin, from `position_` on: behind a damaged stream's end the next
    /// is believed to begin even if others, which do not lead over it, were found in between.
    std::set<std::uint64_t> ends_;
    std::uint64_t workLeft_; // bounds what is tried in vain
    std::optional<std::uint64_t> givenUpAt_;
    std::uint64_t lastWork_ = 0; // for the last stream
    std::uint64_t unasked_ = 0;  // work since `progress_` was asked
    Window passed_;              // at `position_`
    Window chunks_;              // where a chunk begins
};

/// Decodes a stream and hands its bytes to `sink`; how many there were. Fewer than the stream's are damaged
/// or missing. Throws std::bad_alloc, and what `sink` throws.
std::uint64_t decodeLzma2(SalvageSource& source, const Lzma2Stream& stream,
                          const std::function<void(std::span<const std::byte>)>& sink);

} // namespace Vexel::Detail::Salvage
