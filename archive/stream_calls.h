#pragma once

#include "archive/engine_api.h"
#include "base/platform.h"
#include "base/status.h"

#include <windows.h>

#include <objidl.h>

#include <cstdint>
#include <optional>

/// What the engine's inputs and outputs have in common.
namespace Vexel::Storage::Engine {

/// Larger requests are made of several calls: some drivers fail when too much is asked for at once.
constexpr std::uint32_t kLargestCall = 0x1000000;
/// Of a file after a call that failed.
constexpr std::uint64_t kUnknownPosition = ~std::uint64_t{0};

inline bool moveTo(HANDLE file, std::uint64_t offset) noexcept {
    LARGE_INTEGER position;
    position.QuadPart = static_cast<LONGLONG>(offset);
    return Detail::platform().setPosition(file, position, nullptr, FILE_BEGIN) != FALSE;
}

/// The position after a move. Nothing for an unknown origin or a position before the beginning.
inline std::optional<std::uint64_t> moved(std::uint64_t position, std::uint64_t size, std::int64_t offset,
                                          std::uint32_t origin) noexcept {
    std::uint64_t from = 0;
    if (origin == STREAM_SEEK_CUR)
        from = position;
    else if (origin == STREAM_SEEK_END)
        from = size;
    else if (origin != STREAM_SEEK_SET)
        return std::nullopt;
    if (offset < 0 && std::uint64_t{0} - static_cast<std::uint64_t>(offset) > from)
        return std::nullopt;
    return from + static_cast<std::uint64_t>(offset);
}

inline HRESULT seekStream(::IStream* stream, Int64 offset, UInt32 origin, UInt64* newPosition) noexcept {
    LARGE_INTEGER distance;
    distance.QuadPart = offset;
    ULARGE_INTEGER reached{};
    const HRESULT status = Detail::asStatus(stream->Seek(distance, origin, &reached), STG_E_SEEKERROR);
    if (status == S_OK && newPosition)
        *newPosition = reached.QuadPart;
    return status;
}

/// For a caller who wants to know how many bytes were read or written.
inline void reportCount(UInt32* processed, std::uint32_t count) noexcept {
    if (processed)
        *processed = count;
}

} // namespace Vexel::Storage::Engine
