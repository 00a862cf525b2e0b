#pragma once

#include <vexel/export.h>

#include <cstddef>
#include <cstdint>

namespace Vexel::Hash {

/// SpookyHash V2 by Bob Jenkins, as published: a fast 128-bit hash for tables and checksums, not for secrets.
///
/// `hash1` and `hash2` hold the seeds on entry and the halves of the result on return. `data` needs no
/// alignment and may be null when `length`, in bytes, is 0. The same bytes and seeds give the same result on
/// every machine and in every version. May be called from any thread; does not throw.
VEXEL_API void SpookyV2_128(const void* data, std::size_t length, std::uint64_t& hash1,
                            std::uint64_t& hash2) noexcept;

} // namespace Vexel::Hash
