#pragma once

#include <cstddef>

/// How much memory all threads together have, and had at most at one time.
namespace Vexel::Fuzz {

class MemoryWatch {
public:
    /// From here on.
    MemoryWatch();
    /// The most bytes that there were at one time since then, above what there was at the beginning.
    std::size_t most() const;
    /// The bytes that there are now above what there was at the beginning; below 0 when there are fewer.
    std::ptrdiff_t left() const;
};

} // namespace Vexel::Fuzz
