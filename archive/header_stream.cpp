#include "archive/header_stream.h"

#include "base/status.h"

#include <algorithm>
#include <cstring>

namespace Vexel::Storage::Engine {

HRESULT InStreamSource::read(std::uint64_t offset, std::span<std::byte> target, std::size_t& count) noexcept {
    UInt32 done = 0;
    if (const HRESULT status = input_.Seek(static_cast<Int64>(offset), STREAM_SEEK_SET, nullptr);
        status != S_OK)
        return Detail::asStatus(status);
    const HRESULT status = input_.Read(target.data(), static_cast<UInt32>(target.size()), &done);
    count = done;
    return Detail::asStatus(status);
}

HRESULT HeaderStream::Read(void* data, UInt32 size, UInt32* processed) noexcept {
    constexpr std::size_t kAtOnce = 0x400000;
    std::span<const std::byte> from;
    if (position_ < header_.start.size())
        from = std::span(header_.start).subspan(static_cast<std::size_t>(position_));
    else if (position_ >= header_.offset + header_.bytes.dropped() && position_ < end())
        from = header_.bytes.all().subspan(static_cast<std::size_t>(position_ - header_.offset));
    const std::size_t count = (std::min)({from.size(), std::size_t{size}, kAtOnce});
    if (count > 0)
        std::memcpy(data, from.data(), count);
    position_ += count;
    if (position_ > header_.offset)
        header_.bytes.dropFront(static_cast<std::size_t>(position_ - header_.offset));
    if (processed)
        *processed = static_cast<UInt32>(count);
    return S_OK;
}

HRESULT HeaderStream::Seek(Int64 offset, UInt32 origin, UInt64* newPosition) noexcept {
    // Nothing here is so large that the sums of offsets could overflow.
    std::uint64_t from = 0;
    if (origin != STREAM_SEEK_SET)
        from = origin == STREAM_SEEK_CUR ? position_ : end();
    const std::uint64_t to = from + static_cast<std::uint64_t>(offset);
    if (origin > STREAM_SEEK_END || to > static_cast<std::uint64_t>(INT64_MAX))
        return STG_E_INVALIDFUNCTION;
    position_ = to;
    if (newPosition)
        *newPosition = to;
    return S_OK;
}

HRESULT HeaderStream::GetSize(UInt64* size) noexcept {
    *size = end();
    return S_OK;
}

} // namespace Vexel::Storage::Engine
