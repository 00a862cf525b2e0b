#pragma once

#include <vexel/path_name.h>

#include <cstdint>

namespace Vexel::Detail {

constexpr std::uint32_t bit(SharedPathNameFlag flag) noexcept { return static_cast<std::uint32_t>(flag); }

/// The number of the present period of caching, for those who keep facts of their own as long as it lasts;
/// 0 while no flags-cache block lives.
std::uint64_t flagsCachePeriod() noexcept;

} // namespace Vexel::Detail
