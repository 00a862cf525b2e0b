// How memory streams grow. Apart from the rest, so that no compiler draws it into writes for which there is
// room: they need fewer registers without it.

#include "base/platform.h"

#include <vexel/memory_streams.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <limits>

using Vexel::Detail::platform;

namespace Vexel::Storage {
namespace {

constexpr unsigned long long smallestStep = 1024;
constexpr unsigned long long largestStep = 0x2000000;
constexpr unsigned long long limit = std::numeric_limits<unsigned long long>::max();

unsigned long long saturatedSum(unsigned long long a, unsigned long long b) noexcept {
    return a <= limit - b ? a + b : limit;
}

// Doubles the capacity up to steps of 32 MiB, then goes on in such steps. A whole step is added also where
// the end falls on one, so there is always room to spare. What cannot be expressed is larger than any memory.
unsigned long long enlargedCapacity(unsigned long long capacity, unsigned long long end) noexcept {
    const unsigned long long step = std::clamp(capacity, smallestStep, largestStep);
    const unsigned long long need = end - capacity;
    return saturatedSum(end, step - need % step);
}

} // namespace

HRESULT InMemoryIStream::writeAtMost(const void* pv, ULONG cb, ULONG* pcbWritten) noexcept {
    const auto count = cb > 0 ? static_cast<ULONG>(write(pv, cb)) : 0;
    if (pcbWritten)
        *pcbWritten = count;
    if (!pv)
        return STG_E_INVALIDPOINTER;
    return count > 0 || cb == 0 ? S_OK : STG_E_INSUFFICIENTMEMORY;
}

// Makes room for `count` more bytes if it can, and tells where `source` lies then: a clone is written to from
// the very block that moves.
const void* InMemoryIStream::grow(const void* source, unsigned long long count) noexcept {
    const Private& buffer = *private_;
    const auto* bytes = static_cast<const unsigned char*>(source);
    const std::less<> before;
    const bool inside =
        buffer.data && !before(bytes, buffer.data) && before(bytes, buffer.data + buffer.capacity);
    const std::ptrdiff_t offset = inside ? bytes - buffer.data : 0;
    const unsigned long long end = saturatedSum(position_, count);
    return enlarge(enlargedCapacity(buffer.capacity, end)) && inside ? buffer.data + offset : source;
}

bool InMemoryIStream::enlarge(unsigned long long newCapacity) noexcept {
    Private& buffer = *private_;
    if (!buffer.ownsMemory)
        return false;
    void* const block = platform().reallocate(buffer.data, newCapacity);
    if (!block)
        return false;
    buffer.data = static_cast<unsigned char*>(block);
    buffer.capacity = newCapacity;
    return true;
}

} // namespace Vexel::Storage
