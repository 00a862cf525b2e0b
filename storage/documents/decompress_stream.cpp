// Whether a stream is gzip shows only when it has been inflated to its end. So the bytes are written as they
// come, and taken back when the source turns out to be something else.

#include "io/com_stream.h"
#include "io/gzip_reader.h"

#include <vexel/compressed_stream.h>

#include <array>

using Vexel::Detail::position;
using Vexel::Detail::seek;

namespace {

HRESULT writeAll(::IStream* destination, const void* bytes, ULONG count) {
    ULONG written = 0;
    const HRESULT status = destination->Write(bytes, count, &written);
    if (status != S_OK)
        return FAILED(status) ? status : STG_E_WRITEFAULT;
    return written < count ? STG_E_MEDIUMFULL : S_OK;
}

/// S_OK, or why a write failed; S_FALSE when the source does not begin as gzip does.
HRESULT inflateInto(vxio::IReadStream& source, ::IStream* destination) {
    Vexel::Detail::GzipReader reader;
    if (!reader.open(source, true))
        return S_FALSE;
    std::array<unsigned char, 65536> buffer;
    HRESULT status = S_OK;
    while (const auto count = reader.read(buffer.data(), buffer.size())) {
        status = writeAll(destination, buffer.data(), static_cast<ULONG>(count));
        if (FAILED(status))
            break;
    }
    reader.close();
    return FAILED(status) ? status : S_OK;
}

/// Whether nothing of the stream is left: what was read ahead counts as read.
bool isConsumed(::IStream* stream) {
    STATSTG info{};
    return SUCCEEDED(stream->Stat(&info, STATFLAG_NONAME)) && position(stream) == info.cbSize.QuadPart;
}

} // namespace

HRESULT DecompressStream(::IStream* source, ::IStream* destination) {
    if (!source || !destination)
        return STG_E_INVALIDPOINTER;
    unsigned long long sourceStart = 0, destinationStart = 0, end = 0;
    const bool isSourceKnown = seek(source, STREAM_SEEK_CUR, 0, sourceStart);
    const bool isDestinationKnown = seek(destination, STREAM_SEEK_CUR, 0, destinationStart);

    vxio::IStreamStream reading(source);
    const HRESULT inflated = inflateInto(reading, destination);
    if (inflated == S_OK && isConsumed(source))
        return S_OK;

    if (!isSourceKnown || !seek(source, STREAM_SEEK_SET, static_cast<long long>(sourceStart), sourceStart))
        return STG_E_SEEKERROR;
    const bool isCut = isDestinationKnown && destination->SetSize({.QuadPart = destinationStart}) == S_OK;
    const bool isAtEnd = seek(destination, STREAM_SEEK_END, 0, end);
    if (inflated != S_FALSE && !(isCut && isAtEnd)) // what was inflated would stay before the copy
        return FAILED(inflated) ? inflated : STG_E_WRITEFAULT;
    const HRESULT copied = source->CopyTo(destination, {.QuadPart = ~0ULL}, nullptr, nullptr);
    return SUCCEEDED(copied) && FAILED(inflated) ? inflated : copied;
}
