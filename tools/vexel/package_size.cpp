// The library does not tell the packed size, but the first bytes of the file do.

#include "package_size.h"

#include "failure.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <span>

namespace Vexel::Tool {
namespace {

// The archive begins with
//
//     0   6  signature             12  8  offset of the header behind these 32 bytes
//     6   2  version               20  8  size of the header
//     8   4  CRC-32 of the rest    28  4  CRC-32 of the header
//
// and then come the packed contents. The header begins with
//
//     0x01                  plain: it stands directly behind the packed contents
//     0x17 0x06 NUMBER ...  packed: NUMBER is the offset of its packed data, which come in between
constexpr unsigned long long kStartSize = 32;
constexpr std::byte kPlainHeader{0x01};
constexpr std::byte kPackedHeader{0x17};
constexpr std::byte kPackInfo{0x06};

bool readAt(HANDLE file, unsigned long long offset, std::span<std::byte> buffer) {
    OVERLAPPED position{};
    position.Offset = static_cast<DWORD>(offset);
    position.OffsetHigh = static_cast<DWORD>(offset >> 32);
    DWORD done = 0;
    return ReadFile(file, buffer.data(), static_cast<DWORD>(buffer.size()), &done, &position) &&
           done == buffer.size();
}

// The set bits at the top of the first byte count the bytes that follow, lowest first; what is left of the
// first byte comes above them.
unsigned long long numberAt(std::span<const std::byte, 9> bytes) {
    const auto first = std::to_integer<unsigned long long>(bytes[0]);
    unsigned long long value = 0;
    for (unsigned i = 0; i < 8; ++i) {
        const unsigned mask = 0x80u >> i;
        if ((first & mask) == 0)
            return value | (first & (mask - 1)) << (8 * i);
        value |= std::to_integer<unsigned long long>(bytes[i + 1]) << (8 * i);
    }
    return value;
}

} // namespace

unsigned long long packedSizeOf(HANDLE file, const std::wstring& label) {
    std::array<std::byte, kStartSize> start{};
    unsigned long long offset = 0;
    unsigned long long size = 0;
    if (!readAt(file, 0, start))
        throw Failure(L"cannot read", label, STG_E_INVALIDHEADER);
    std::memcpy(&offset, start.data() + 12, sizeof offset);
    std::memcpy(&size, start.data() + 20, sizeof size);
    if (size == 0)
        return 0;
    std::array<std::byte, 11> header{};
    const auto kept = std::span(header).first(size < header.size() ? static_cast<std::size_t>(size) : 11);
    if (!readAt(file, kStartSize + offset, kept))
        throw Failure(L"cannot read", label, STG_E_INVALIDHEADER);
    if (header[0] == kPlainHeader)
        return offset;
    if (header[0] != kPackedHeader || header[1] != kPackInfo)
        throw Failure(L"unknown header in", label, STG_E_INVALIDHEADER);
    return numberAt(std::span(header).subspan<2, 9>());
}

} // namespace Vexel::Tool
