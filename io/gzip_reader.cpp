// The header and the trailer are read here and only the deflated data are left to zlib. Its own gzip mode
// would accept and refuse other headers than documents and callers rely on.

#include "io/gzip_reader.h"

#include <vexel/diagnostics.h>

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace Vexel::Detail {

namespace {

// RFC 1952, 2.3.1: the bits of the header's flags.
enum : unsigned {
    HeaderCrc = 0x02,
    ExtraField = 0x04,
    FileName = 0x08,
    Comment = 0x10,
    Reserved = 0xE0,
};

std::uint32_t littleEndian(const unsigned char* bytes) noexcept {
    return bytes[0] | std::uint32_t{bytes[1]} << 8 | std::uint32_t{bytes[2]} << 16 |
           std::uint32_t{bytes[3]} << 24;
}

bool readByte(vxio::IReadStream& source, unsigned char& byte) { return source.ReadBytes(&byte, 1) == 1; }

void skip(vxio::IReadStream& source, long long count) { source.Seek(vxio::IStream::Current, count); }

} // namespace

GzipReader::GzipReader() noexcept = default;

GzipReader::~GzipReader() { endInflate(); }

bool GzipReader::open(vxio::IReadStream& source, bool requireGzip) {
    close();
    passThrough_ = false;
    source_ = &source;
    unsigned char magic[2];
    if (source.ReadBytes(magic, sizeof magic) == sizeof magic && magic[0] == 0x1F && magic[1] == 0x8B)
        return readHeader() && startInflate();
    status_ = Z_OK;
    passThrough_ = true;
    source.SeekToBegin();
    return !requireGzip;
}

bool GzipReader::readHeader() {
    unsigned char method = 0;
    if (!readByte(*source_, method) || method != Z_DEFLATED) {
        VxLog_Write(VxLog_Error, "Failed to read gzip compression method or the method is invalid");
        return false;
    }
    unsigned char flags = 0;
    // Only all reserved bits together are refused: streams with one or two of them set are in use.
    if (!readByte(*source_, flags) || (flags & Reserved) == Reserved) {
        VxLog_Write(VxLog_Error,
                    "Failed to read gzip compression flags or some of the reserved flags are set");
        return false;
    }
    skip(*source_, 6); // modification time, extra flags, operating system
    if (flags & ExtraField) {
        unsigned char length[2];
        if (source_->ReadBytes(length, sizeof length) != sizeof length) {
            VxLog_Write(VxLog_Error, "Failed to read length of extra gzip data");
            return false;
        }
        skip(*source_, length[0] | length[1] << 8);
    }
    if (((flags & FileName) && !skipString()) || ((flags & Comment) && !skipString()))
        return false;
    if (flags & HeaderCrc)
        skip(*source_, 4); // two more than there are: kept, like all of what is accepted here
    return source_->GetPosition() != source_->GetLength();
}

/// Passes over a name or comment. Never lets it count as passed, see the class.
bool GzipReader::skipString() {
    unsigned char byte = 0;
    while (readByte(*source_, byte) && byte != 0) {
    }
    VxLog_Write(VxLog_Error, "Failed to skip a null-terminated string");
    return false;
}

bool GzipReader::startInflate() {
    // The version that the application was built with; negative bits: the header has been read already.
    status_ = inflateInit2_(&inflate_, -MAX_WBITS, "1.2.11", static_cast<int>(sizeof inflate_));
    if (status_ == Z_OK)
        return inflating_ = true;
    VxLog_Write(VxLog_Error, "Failed to initialize zlib: %d \"%s\"", status_, zError(status_));
    return false;
}

void GzipReader::endInflate() noexcept {
    if (std::exchange(inflating_, false))
        inflateEnd(&inflate_);
    inflate_ = {};
}

void GzipReader::refill() {
    inflate_.next_in = input_;
    inflate_.avail_in = static_cast<uInt>(source_->ReadBytes(input_, sizeof input_));
    endOfInput_ = inflate_.avail_in == 0;
}

// The checksum is taken as bytes come out and compared only at the end: callers read on in parts, and what
// was handed out cannot be taken back.
std::uint64_t GzipReader::read(void* buffer, std::uint64_t count) {
    if (status_ != Z_OK || !buffer || count == 0)
        return 0;
    if (passThrough_)
        return source_->ReadBytes(buffer, count);
    auto* const bytes = static_cast<unsigned char*>(buffer);
    std::uint64_t done = 0;
    do {
        if (inflate_.avail_in == 0 && !endOfInput_)
            refill();
        const auto room = static_cast<uInt>((std::min)(count - done, std::uint64_t{0xFFFFFFFF}));
        inflate_.next_out = bytes + done;
        inflate_.avail_out = room;
        status_ = inflate(&inflate_, Z_NO_FLUSH);
        const uInt produced = room - inflate_.avail_out;
        crc_ = static_cast<std::uint32_t>(crc32_z(crc_, bytes + done, produced));
        done += produced;
    } while (done < count && status_ == Z_OK && !endOfInput_);
    return done;
}

// The trailer begins with what was read ahead of the inflated data, and may go on in the source.
void GzipReader::checkTrailer() {
    unsigned have = inflate_.avail_in;
    const unsigned char* trailer = inflate_.next_in;
    if (have < 8 && !endOfInput_) {
        std::memmove(input_, trailer, have);
        have += static_cast<unsigned>(source_->ReadBytes(input_ + have, 8));
        trailer = input_;
    }
    if (have < 8) {
        VxLog_Write(VxLog_Error, "Incomplete gzip data");
        return;
    }
    const std::uint32_t storedCrc = littleEndian(trailer);
    const std::uint32_t storedSize = littleEndian(trailer + 4);
    if (storedCrc != crc_) // the size alone is not compared
        VxLog_Write(VxLog_Error, "Broken gzip data: size %lu/%u, CRC 0x%08x/0x%08x", inflate_.total_out,
                    storedSize, crc_, storedCrc);
}

void GzipReader::close() {
    if (inflating_ && status_ == Z_STREAM_END)
        checkTrailer();
    endInflate();
    status_ = Z_DATA_ERROR;
    source_ = nullptr;
    crc_ = 0;
    endOfInput_ = false;
}

} // namespace Vexel::Detail
