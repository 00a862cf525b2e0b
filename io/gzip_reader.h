#pragma once

#include <vexel/byte_streams.h>

#include <zlib.h>

#include <cstdint>

namespace Vexel::Detail {

/// Inflates the gzip member (RFC 1952) that a byte stream begins with. What follows the member is left alone,
/// except for what was read ahead.
///
/// A member with a stored file name or comment is refused: documents never held such streams, and callers
/// rely on getting those as they are.
class GzipReader {
public:
    GzipReader() noexcept;
    GzipReader(const GzipReader&) = delete;
    GzipReader& operator=(const GzipReader&) = delete;
    ~GzipReader();

    /// Reads the header from the position of `source`, which is borrowed until `close`. Where it is not a
    /// gzip header at all, the source is rewound; then the result is false with `requireGzip`, else `read`
    /// passes the source's bytes through.
    bool open(vxio::IReadStream& source, bool requireGzip);

    /// The number of bytes produced; 0 at the end of the member, and after damage for good.
    std::uint64_t read(void* buffer, std::uint64_t count);

    /// Whether `read` inflates, as opposed to passing through.
    bool inflating() const noexcept { return inflating_; }

    /// Checks the trailer if the member was read to its end; faults are logged and change nothing.
    void close();

private:
    bool readHeader();
    bool skipString();
    bool startInflate();
    void refill();
    void checkTrailer();
    void endInflate() noexcept;

    z_stream inflate_{};
    bool inflating_ = false; // `inflate_` is to be ended
    vxio::IReadStream* source_ = nullptr;
    std::uint32_t crc_ = 0;     // of the bytes produced
    int status_ = Z_DATA_ERROR; // zlib's last; this one while not open
    bool endOfInput_ = false;
    bool passThrough_ = false;
    unsigned char input_[4096]; // read ahead from the source
};

} // namespace Vexel::Detail
