// The gzip reader on whatever bytes, in pieces of any size, against the same in one piece, and against what
// zlib makes of the bytes behind the header.

#include "fuzz/targets/byte_source.h"
#include "fuzz/targets/memory.h"
#include "io/gzip_reader.h"

using namespace Vexel::Fuzz;

namespace {

struct Result {
    bool isOpen = false;
    bool inflates = false;
    std::vector<std::uint8_t> bytes;
};

// A member may hold a thousand times its bytes: enough is enough.
constexpr std::size_t kMost = 0x20000;

Result readAll(std::span<const std::uint8_t> bytes, bool requireGzip, std::size_t most, Input sizes) {
    ByteSource source(bytes, most);
    Vexel::Detail::GzipReader reader;
    Result result;
    result.isOpen = reader.open(source, requireGzip);
    result.inflates = reader.inflating();
    if (!result.isOpen)
        return result;
    while (result.bytes.size() < kMost) {
        const std::size_t wanted =
            (std::min)(kMost - result.bytes.size(), sizes.isEmpty() ? kMost : 1 + std::size_t{sizes.byte()});
        std::vector<std::uint8_t> piece(wanted);
        const std::uint64_t count = reader.read(piece.data(), wanted);
        REQUIRE(count <= wanted);
        if (count == 0)
            break;
        result.bytes.insert(result.bytes.end(), piece.begin(),
                            piece.begin() + static_cast<std::ptrdiff_t>(count));
    }
    reader.close();
    return result;
}

/// Where the packed bytes begin, of a header that was taken. What leads behind the end is not followed.
std::size_t headerSize(std::span<const std::uint8_t> bytes) {
    std::size_t position = 4;
    const auto skip = [&](std::size_t count) {
        if (count <= bytes.size() - position)
            position += count;
    };
    skip(6);
    if (bytes[3] & 0x04) {
        const std::size_t extra = bytes[position] | bytes[position + 1] << 8;
        position += 2;
        skip(extra);
    }
    if (bytes[3] & 0x02)
        skip(4);
    return position;
}

std::vector<std::uint8_t> inflated(std::span<const std::uint8_t> bytes) {
    std::vector<std::uint8_t> result(kMost);
    z_stream stream{};
    REQUIRE(inflateInit2(&stream, -MAX_WBITS) == Z_OK);
    stream.next_in = const_cast<Bytef*>(bytes.data());
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = result.data();
    stream.avail_out = static_cast<uInt>(result.size());
    inflate(&stream, Z_NO_FLUSH);
    result.resize(kMost - stream.avail_out);
    inflateEnd(&stream);
    return result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const std::uint8_t choices = input.byte();
    const bool requireGzip = choices % 2 != 0;
    // What the source gives at once. A single byte would be taken for the end where two are needed.
    const std::size_t most = choices < 4 ? ~std::size_t{0} : choices / 2;
    const auto sizes = input.bytes(input.byte() % 16);
    const auto bytes = input.rest();
    Result whole;
    {
        const MemoryWatch memory;
        whole = readAll(bytes, requireGzip, ~std::size_t{0}, {nullptr, 0});
        // The pieces and what is made of them, which doubles as it grows, and zlib's window and tables.
        REQUIRE(memory.most() <= 4 * kMost + 0x10000);
    }
    const Result pieces = readAll(bytes, requireGzip, most, {sizes.data(), sizes.size()});
    REQUIRE(whole.isOpen == pieces.isOpen && whole.inflates == pieces.inflates);
    REQUIRE(whole.bytes == pieces.bytes);
    if (whole.inflates)
        REQUIRE(whole.bytes == inflated(bytes.subspan(headerSize(bytes))));
    else if (whole.isOpen)
        REQUIRE(std::ranges::equal(whole.bytes, bytes.first((std::min)(bytes.size(), kMost))));
    return 0;
}
