#pragma once

#include <windows.h>

#include <objidl.h>

#include <algorithm>
#include <cstddef>

/// A COM stream used the way the library's own byte streams are: 64-bit counts, and what was moved instead of
/// a status. Any stream may be null; it holds nothing and stays at 0.
namespace Vexel::Detail {

/// Calls `move(offset, count, &moved)` for chunk after chunk, each as long as a COM stream's count reaches,
/// until one moves less than asked or nothing remains. Statuses do not matter: a stream that fails in the
/// middle has still moved what it reports.
template <class Move>
unsigned long long moveInChunks(unsigned long long count, Move move) {
    constexpr unsigned long long kLongest = 0xFFFFFFFF;
    unsigned long long done = 0;
    while (done < count) {
        const auto chunk = static_cast<ULONG>((std::min)(count - done, kLongest));
        ULONG moved = 0;
        move(done, chunk, &moved);
        done += (std::min)(moved, chunk);
        if (moved < chunk)
            break;
    }
    return done;
}

inline unsigned long long readBytes(::IStream* stream, void* buffer, unsigned long long count) {
    if (!stream)
        return 0;
    auto* bytes = static_cast<std::byte*>(buffer);
    return moveInChunks(count, [&](unsigned long long offset, ULONG chunk, ULONG* moved) {
        stream->Read(bytes + offset, chunk, moved);
    });
}

inline unsigned long long writeBytes(::IStream* stream, const void* buffer, unsigned long long count) {
    if (!stream)
        return 0;
    const auto* bytes = static_cast<const std::byte*>(buffer);
    return moveInChunks(count, [&](unsigned long long offset, ULONG chunk, ULONG* moved) {
        stream->Write(bytes + offset, chunk, moved);
    });
}

/// Moves to `offset` from `origin` (one of STREAM_SEEK_*), telling the new position when it succeeds.
inline bool seek(::IStream* stream, DWORD origin, long long offset, unsigned long long& position) {
    LARGE_INTEGER distance{};
    distance.QuadPart = offset;
    ULARGE_INTEGER reached{};
    if (!stream || FAILED(stream->Seek(distance, origin, &reached)))
        return false;
    position = reached.QuadPart;
    return true;
}

/// The position; 0 when the stream cannot tell.
inline unsigned long long position(::IStream* stream) {
    unsigned long long reached = 0;
    return seek(stream, STREAM_SEEK_CUR, 0, reached) ? reached : 0;
}

} // namespace Vexel::Detail
