#pragma once

#include <cstddef>
#include <span>

namespace Vexel::Detail {

/// Prepares a property set (MS-OLEPS) for the system, of which not every version bounds-checks what it reads.
/// True when all counts, offsets and lengths stay within the bytes, and strings have their ends. Values of
/// other types than the simple ones, on which some versions end the process, become VT_EMPTY.
bool makeSound(std::span<unsigned char> bytes) noexcept;

} // namespace Vexel::Detail
