#pragma once

#include <vexel/path_name.h>

#include <cstdint>

namespace Vexel::Detail {

constexpr std::uint32_t bit(SharedPathNameFlag flag) noexcept { return static_cast<std::uint32_t>(flag); }

} // namespace Vexel::Detail
