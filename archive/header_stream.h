#pragma once

#include "archive/engine_inputs.h"
#include "archive/header_check.h"

/// How the check of the headers and the engine get what they read: the check reads the archive, and the
/// engine then reads the header that was checked and unpacked.
namespace Vexel::Storage::Engine {

class InStreamSource final : public HeaderSource {
public:
    /// `size`: of the input, which must stay as long as this.
    InStreamSource(IInStream& input, std::uint64_t size) noexcept : input_(input), size_(size) {}

    std::uint64_t size() const noexcept override { return size_; }
    HRESULT read(std::uint64_t offset, std::span<std::byte> target, std::size_t& count) noexcept override;

private:
    IInStream& input_;
    const std::uint64_t size_;
};

/// An archive of nothing but its first bytes and its header, at its place. The header can be read once, and
/// is let go of as it is read: the engine reads all of it into memory of its own.
class HeaderStream final : public InStreamBase {
public:
    explicit HeaderStream(PlainHeader&& header) noexcept : header_(std::move(header)) {}

    HRESULT STDMETHODCALLTYPE Read(void* data, UInt32 size, UInt32* processed) noexcept override;
    HRESULT STDMETHODCALLTYPE Seek(Int64 offset, UInt32 origin, UInt64* newPosition) noexcept override;
    HRESULT STDMETHODCALLTYPE GetSize(UInt64* size) noexcept override;

private:
    std::uint64_t end() const noexcept { return header_.offset + header_.bytes.size(); }

    PlainHeader header_;
    std::uint64_t position_ = 0;
};

} // namespace Vexel::Storage::Engine
