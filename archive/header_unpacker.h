#pragma once

#include "archive/header_parser.h"
#include "archive/page_buffer.h"

#include <Lzma2Dec.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace Vexel::Storage::Engine {

/// Unpacks a header piece by piece, as the parser asks for it: what the parser refuses takes no memory.
/// `packed`, `target` and `source`, which is asked whether to go on, must outlive it; `target` takes the
/// place of the dictionary.
class HeaderUnpacker final : public HeaderSupply {
public:
    HeaderUnpacker(std::uint64_t method, std::span<const std::byte> packed, PageBuffer& target,
                   HeaderSource& source) noexcept;
    HeaderUnpacker(const HeaderUnpacker&) = delete;
    HeaderUnpacker& operator=(const HeaderUnpacker&) = delete;
    ~HeaderUnpacker() override;

    /// To be called first. False when the method cannot have such properties, or for want of memory.
    bool start(std::span<const std::byte> properties) noexcept;
    bool supply(std::size_t count) noexcept override;
    std::size_t available() const noexcept override { return done_; }

    /// What is wrong: None, Unsupported or Unreadable, Header for packed bytes that are left over, or Input
    /// when the source said no.
    HeaderFault fault() const noexcept { return fault_; }
    bool isOutOfMemory() const noexcept { return isOutOfMemory_; }

private:
    bool refuse(HeaderFault fault) noexcept {
        fault_ = fault;
        return false;
    }
    bool accept(SRes result) noexcept;
    bool unpack(std::size_t end) noexcept;

    const std::uint64_t method_;
    std::span<const std::byte> packed_; // what is left of it
    PageBuffer& target_;
    HeaderSource& source_;
    CLzma2Dec lzma2_{}; // with the decoder for LZMA
    std::size_t done_ = 0;
    HeaderFault fault_ = HeaderFault::None;
    bool isOutOfMemory_ = false;
};

} // namespace Vexel::Storage::Engine
