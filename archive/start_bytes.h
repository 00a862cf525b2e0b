#pragma once

#include "archive/header_layout.h"

#include <7zCrc.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

/// The first bytes of a package, which say where its header is, and the checksum that is in them.
namespace Vexel::Storage::Engine {

using StartBytes = std::array<std::byte, kStartBytes>;

template <class Number>
Number load(const StartBytes& start, std::size_t at) noexcept {
    Number number;
    std::memcpy(&number, start.data() + at, sizeof number);
    return number;
}

template <class Number>
void store(StartBytes& start, std::size_t at, Number number) noexcept {
    std::memcpy(start.data() + at, &number, sizeof number);
}

inline std::uint32_t checksum(std::span<const std::byte> bytes) noexcept {
    return CrcCalc(bytes.data(), bytes.size());
}

} // namespace Vexel::Storage::Engine
