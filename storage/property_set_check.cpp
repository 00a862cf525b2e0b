#include "storage/property_set_check.h"

#include <windows.h>

#include <objidl.h>

#include <algorithm>
#include <cstdint>

namespace Vexel::Detail {

namespace {

// The stream: header (28 bytes: byte order, version, system, class, number of sets), then for each set its
// format (16) and where its section begins (4). A section: its size and the number of properties (4 each),
// then for each its number and where in the section its value begins (4 each). A value: its type (4), then
// the value itself.
constexpr std::size_t kHeader = 28;
constexpr std::size_t kSetEntry = 20;
constexpr std::size_t kSectionHeader = 8;
constexpr std::size_t kPropertyEntry = 8;

class Bytes {
public:
    explicit Bytes(std::span<unsigned char> bytes) noexcept : bytes_(bytes) {}

    std::size_t size() const noexcept { return bytes_.size(); }
    bool has(std::size_t offset, std::uint64_t count) const noexcept {
        return offset <= bytes_.size() && count <= bytes_.size() - offset;
    }
    std::uint32_t number(std::size_t offset) const noexcept {
        std::uint32_t value = 0;
        for (std::size_t i = 0; i < 4; ++i)
            value |= std::uint32_t{bytes_[offset + i]} << 8 * i;
        return value;
    }
    unsigned char at(std::size_t offset) const noexcept { return bytes_[offset]; }
    void clearNumber(std::size_t offset) const noexcept {
        std::fill_n(bytes_.begin() + static_cast<std::ptrdiff_t>(offset), 4, static_cast<unsigned char>(0));
    }
    Bytes part(std::size_t offset, std::size_t count) const noexcept {
        return Bytes(bytes_.subspan(offset, count));
    }

private:
    std::span<unsigned char> bytes_;
};

/// A length in units, and so many units, of which the last is zero.
bool isSoundString(const Bytes& value, std::size_t offset, std::size_t unit) noexcept {
    if (!value.has(offset, 4) || value.number(offset) == 0)
        return false;
    const std::uint64_t size = std::uint64_t{value.number(offset)} * unit;
    if (!value.has(offset + 4, size))
        return false;
    for (std::size_t i = 0; i < unit; ++i)
        if (value.at(offset + 4 + static_cast<std::size_t>(size) - unit + i) != 0)
            return false;
    return true;
}

bool isSoundBlock(const Bytes& value) noexcept { return value.has(4, 4) && value.has(8, value.number(4)); }

/// What is done about values that are not for every system. They are emptied first; when all is looked at
/// once more, there are none left, unless values overlap.
enum class Unsafe { Empty, Refuse };

bool handle(Unsafe unsafe, const Bytes& value) noexcept {
    static_assert(VT_EMPTY == 0);
    if (unsafe == Unsafe::Empty)
        value.clearNumber(0);
    return unsafe == Unsafe::Empty;
}

/// `value` begins with the type and ends with the section.
bool makeSoundValue(const Bytes& value, bool isUnicode, Unsafe unsafe) noexcept {
    if (!value.has(0, 4))
        return false;
    const std::uint32_t type = value.number(0);
    const bool isString = type == VT_LPSTR || type == VT_LPWSTR || type == VT_BSTR;
    if (isString && value.has(4, 4) && value.number(4) == 0)
        return handle(unsafe, value);
    switch (type) {
    case VT_EMPTY:
    case VT_NULL:
        return true;
    case VT_I1:
    case VT_UI1:
    case VT_I2:
    case VT_UI2:
    case VT_BOOL:
    case VT_I4:
    case VT_UI4:
    case VT_INT:
    case VT_UINT:
    case VT_R4:
    case VT_ERROR:
        return value.has(4, 4);
    case VT_I8:
    case VT_UI8:
    case VT_R8:
    case VT_CY:
    case VT_DATE:
    case VT_FILETIME:
        return value.has(4, 8);
    case VT_CLSID:
        return value.has(4, 16);
    case VT_LPSTR:
    case VT_BSTR:
        return isUnicode ? value.has(4, 4) && value.number(4) % 2 == 0 && isSoundString(value, 4, 1)
                         : isSoundString(value, 4, 1);
    case VT_LPWSTR:
        return isSoundString(value, 4, 2);
    case VT_CF:
        return isSoundBlock(value) && value.number(4) >= 4;
    case VT_BLOB:
    case VT_BLOB_OBJECT:
        return isSoundBlock(value);
    default:
        return handle(unsafe, value);
    }
}

/// Names of properties: their count, then for each its number, a length and a text.
bool isSoundDictionary(const Bytes& value, bool isUnicode) noexcept {
    if (!value.has(0, 4))
        return false;
    const std::uint32_t count = value.number(0);
    std::size_t at = 4;
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::size_t unit = isUnicode ? 2 : 1;
        if (!value.has(at, 8) || value.number(at + 4) == 0 || !isSoundString(value, at + 4, unit))
            return false;
        const std::size_t size = value.number(at + 4) * unit;
        at += 8 + (isUnicode ? (size + 3) / 4 * 4 : size);
    }
    return true;
}

/// The code page is a property itself; 1200 means UTF-16.
bool isUnicodeSection(const Bytes& section, std::uint32_t count) noexcept {
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::size_t entry = kSectionHeader + i * kPropertyEntry;
        const std::size_t offset = section.number(entry + 4);
        if (section.number(entry) == PID_CODEPAGE && section.has(offset, 8) &&
            section.number(offset) == VT_I2)
            return (section.number(offset + 4) & 0xFFFF) == 1200;
    }
    return false;
}

bool makeSoundSection(const Bytes& rest, Unsafe unsafe) noexcept {
    if (!rest.has(0, kSectionHeader))
        return false;
    // Some versions count the padding of the last value without writing it.
    constexpr std::size_t padding = 3;
    const std::size_t size = rest.number(0);
    if (size < kSectionHeader || size > rest.size() + padding)
        return false;
    const Bytes section = rest.part(0, (std::min)(size, rest.size()));
    const std::uint32_t count = section.number(4);
    if (!section.has(kSectionHeader, std::uint64_t{count} * kPropertyEntry))
        return false;
    const bool isUnicode = isUnicodeSection(section, count);
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::size_t entry = kSectionHeader + i * kPropertyEntry;
        const std::size_t offset = section.number(entry + 4);
        if (offset < kSectionHeader + count * kPropertyEntry || offset > section.size())
            return false;
        const Bytes value = section.part(offset, section.size() - offset);
        if (!(section.number(entry) == PID_DICTIONARY ? isSoundDictionary(value, isUnicode)
                                                      : makeSoundValue(value, isUnicode, unsafe)))
            return false;
    }
    return true;
}

bool makeSoundSet(const Bytes& set, Unsafe unsafe) noexcept {
    if (!set.has(0, kHeader) || set.at(0) != 0xFE || set.at(1) != 0xFF)
        return false;
    const std::uint32_t count = set.number(24);
    if (count == 0 || !set.has(kHeader, std::uint64_t{count} * kSetEntry))
        return false;
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::size_t offset = set.number(kHeader + i * kSetEntry + 16);
        if (offset > set.size() || !makeSoundSection(set.part(offset, set.size() - offset), unsafe))
            return false;
    }
    return true;
}

} // namespace

bool makeSound(std::span<unsigned char> bytes) noexcept {
    const Bytes set(bytes);
    return makeSoundSet(set, Unsafe::Empty) && makeSoundSet(set, Unsafe::Refuse);
}

} // namespace Vexel::Detail
