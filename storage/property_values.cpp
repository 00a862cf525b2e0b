// The section of a set: its properties.

#include "storage/property_bytes.h"
#include "storage/property_set.h"

#include <windows.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>
#include <string>

namespace Vexel::Detail {

namespace {

// A section: its size and the number of properties (4 bytes each), then for each its number and where in the
// section its value begins (4 each). A value: its type (4), then the value itself, padded to a multiple of 4.
// The names are the value of number 0, without a type: how many (4), and for each the property's number (4),
// the length with the terminating zero (4) in bytes or, of wide ones, characters, and so many; wide ones are
// padded.
constexpr std::size_t sectionHeader = 8;
constexpr std::size_t entrySize = 8;
constexpr std::uint32_t unicode = 1200;
constexpr PROPID firstReserved = 0x80000000;

bool isOrdinary(PROPID id) noexcept { return id >= PID_FIRST_USABLE && id < firstReserved; }

/// The size of values that stand in the PROPVARIANT itself.
std::optional<std::size_t> plainSize(std::uint32_t type) noexcept {
    switch (type) {
    case VT_EMPTY:
    case VT_NULL:
        return 0;
    case VT_I1:
    case VT_UI1:
        return 1;
    case VT_I2:
    case VT_UI2:
    case VT_BOOL:
        return 2;
    case VT_I4:
    case VT_UI4:
    case VT_INT:
    case VT_UINT:
    case VT_R4:
    case VT_ERROR:
        return 4;
    case VT_I8:
    case VT_UI8:
    case VT_R8:
    case VT_CY:
    case VT_DATE:
    case VT_FILETIME:
        return 8;
    default:
        return std::nullopt;
    }
}

/// A copy in the memory that PropVariantClear frees.
template <class Result>
Result* taskCopy(ByteView bytes) {
    void* const copy = CoTaskMemAlloc((std::max)(bytes.size(), std::size_t{1}));
    if (!copy)
        throw std::bad_alloc();
    std::copy(bytes.begin(), bytes.end(), static_cast<unsigned char*>(copy));
    return static_cast<Result*>(copy);
}

CStringW wideText(ByteView bytes) {
    std::wstring text(bytes.size() / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), bytes.data(), text.size() * sizeof(wchar_t));
    return {text.c_str()}; // up to the first zero
}

CStringW narrowText(ByteView bytes, UINT codePage) {
    const std::string text(bytes.begin(), bytes.end());
    std::wstring wide(text.size() + 1, L'\0'); // no code page makes more of it
    const UINT page = IsValidCodePage(codePage) ? codePage : CP_ACP;
    MultiByteToWideChar(page, 0, text.data(), static_cast<int>(text.size()), wide.data(),
                        static_cast<int>(text.size()));
    return {wide.c_str()};
}

class Decoder {
public:
    explicit Decoder(ByteView section) noexcept : section_(section) {}

    bool decode(Properties& properties) {
        if (!begin())
            return false;
        for (std::uint32_t i = 0; i < count_; ++i) {
            const PROPID id = idOf(i);
            if (isOrdinary(id) && !decodeValue(offsetOf(i), properties[id]))
                return false;
        }
        return true;
    }

    PropertyNames decodeNames() {
        PropertyNames names;
        if (begin())
            for (std::uint32_t i = 0; i < count_; ++i)
                if (idOf(i) == PID_DICTIONARY)
                    decodeNames(offsetOf(i), names);
        return names;
    }

private:
    bool begin() noexcept {
        if (!has(section_, 0, sectionHeader))
            return false;
        count_ = numberAt(section_, 4);
        used_ = sectionHeader + std::uint64_t{count_} * entrySize;
        if (!has(section_, 0, used_))
            return false;
        findCodePage();
        return true;
    }

    PROPID idOf(std::uint32_t index) const noexcept {
        return numberAt(section_, sectionHeader + index * entrySize);
    }
    std::size_t offsetOf(std::uint32_t index) const noexcept {
        return numberAt(section_, sectionHeader + index * entrySize + 4);
    }

    /// A property itself; 1200 means that strings are wide.
    void findCodePage() noexcept {
        for (std::uint32_t i = 0; i < count_; ++i)
            if (idOf(i) == PID_CODEPAGE && has(section_, offsetOf(i), 8) &&
                numberAt(section_, offsetOf(i)) == VT_I2)
                codePage_ = numberAt(section_, offsetOf(i) + 4) & 0xFFFF;
    }

    /// Whether there are so many bytes. No more may be taken in all than there are: many values that share
    /// their bytes would be a large set out of a small one.
    bool take(std::size_t offset, std::uint64_t size, ByteView& bytes) noexcept {
        used_ += size;
        if (used_ > section_.size() || !has(section_, offset, size))
            return false;
        bytes = section_.subspan(offset, static_cast<std::size_t>(size));
        return true;
    }

    bool decodeValue(std::size_t offset, PropertyVariant& property) {
        ByteView bytes;
        if (!take(offset, 4, bytes))
            return false;
        const std::uint32_t type = numberAt(bytes, 0);
        if (const auto size = plainSize(type)) {
            if (!take(offset + 4, *size, bytes))
                return false;
            PROPVARIANT* const value = property.put();
            std::copy(bytes.begin(), bytes.end(), reinterpret_cast<unsigned char*>(&value->hVal));
            value->vt = static_cast<VARTYPE>(type);
            return true;
        }
        switch (type) {
        case VT_LPSTR:
        case VT_BSTR:
        case VT_LPWSTR:
            return decodeText(offset + 4, type == VT_LPWSTR, property);
        case VT_CLSID:
            return take(offset + 4, sizeof(CLSID), bytes) && fillClass(bytes, property.put());
        case VT_BLOB:
        case VT_BLOB_OBJECT:
            return takeBlock(offset + 4, bytes) &&
                   fillBlob(bytes, static_cast<VARTYPE>(type), property.put());
        case VT_CF:
            return takeBlock(offset + 4, bytes) && fillClip(bytes, property.put());
        default:
            return true; // stays empty
        }
    }

    /// A length in bytes, and so many of them.
    bool takeBlock(std::size_t offset, ByteView& bytes, std::size_t unit = 1) noexcept {
        return take(offset, 4, bytes) && take(offset + 4, std::uint64_t{numberAt(bytes, 0)} * unit, bytes);
    }

    bool decodeText(std::size_t offset, bool isWide, PropertyVariant& property) {
        ByteView bytes;
        if (!takeBlock(offset, bytes, isWide ? sizeof(wchar_t) : 1))
            return false;
        property = PropertyVariant(textOf(bytes, isWide || codePage_ == unicode));
        return true;
    }

    CStringW textOf(ByteView bytes, bool isWide) const {
        return isWide ? wideText(bytes) : narrowText(bytes, codePage_);
    }

    void decodeNames(std::size_t offset, PropertyNames& names) {
        const bool isWide = codePage_ == unicode;
        ByteView bytes;
        if (!take(offset, 4, bytes))
            return;
        offset += 4;
        for (std::uint32_t left = numberAt(bytes, 0); left > 0 && take(offset, 4, bytes); --left) {
            const PROPID id = numberAt(bytes, 0);
            if (!takeBlock(offset + 4, bytes, isWide ? sizeof(wchar_t) : 1))
                return;
            names[id] = textOf(bytes, isWide);
            offset += 8 + (isWide ? paddedSize(bytes.size()) : bytes.size());
        }
    }

    static bool fillClass(ByteView bytes, PROPVARIANT* value) {
        value->puuid = taskCopy<CLSID>(bytes);
        value->vt = VT_CLSID;
        return true;
    }

    static bool fillBlob(ByteView bytes, VARTYPE type, PROPVARIANT* value) {
        value->blob.pBlobData = taskCopy<BYTE>(bytes);
        value->blob.cbSize = static_cast<ULONG>(bytes.size());
        value->vt = type;
        return true;
    }

    /// The size counts the clipboard format in front of the data.
    static bool fillClip(ByteView bytes, PROPVARIANT* value) {
        if (bytes.size() < 4)
            return false;
        const CLIPDATA clip{static_cast<ULONG>(bytes.size()), static_cast<LONG>(numberAt(bytes, 0)), nullptr};
        value->pclipdata = taskCopy<CLIPDATA>({reinterpret_cast<const unsigned char*>(&clip), sizeof clip});
        value->vt = VT_CF;
        value->pclipdata->pClipData = taskCopy<BYTE>(bytes.subspan(4));
        return true;
    }

    ByteView section_;
    std::uint32_t count_ = 0;
    std::uint64_t used_ = 0;
    UINT codePage_ = CP_ACP;
};

void encodeText(std::uint32_t typeOrNumber, const CStringW& text, std::vector<unsigned char>& bytes) {
    const auto units = static_cast<std::size_t>(text.GetLength()) + 1;
    appendNumber(bytes, typeOrNumber);
    appendNumber(bytes, units);
    appendBytes(bytes, text.GetString(), units * sizeof(wchar_t));
    padToFour(bytes);
}

void encodeNames(const Properties& properties, const PropertyNames& names,
                 std::vector<unsigned char>& bytes) {
    const auto isKept = [&](const auto& name) { return properties.contains(name.first); };
    appendNumber(bytes, static_cast<std::size_t>(std::ranges::count_if(names, isKept)));
    for (const auto& name : names)
        if (isKept(name))
            encodeText(name.first, name.second, bytes);
}

bool encodeBlock(std::size_t size, const void* data, std::vector<unsigned char>& bytes) {
    appendNumber(bytes, size);
    if (size != 0 && data)
        appendBytes(bytes, data, size);
    return size == 0 || data;
}

bool encodeClip(const CLIPDATA* clip, std::vector<unsigned char>& bytes) {
    if (!clip || clip->cbSize < 4)
        return false;
    appendNumber(bytes, clip->cbSize);
    appendNumber(bytes, static_cast<std::uint32_t>(clip->ulClipFmt));
    if (clip->cbSize > 4 && clip->pClipData)
        appendBytes(bytes, clip->pClipData, clip->cbSize - 4);
    return clip->cbSize == 4 || clip->pClipData;
}

bool encodeValue(const PropertyVariant& property, std::vector<unsigned char>& bytes) {
    if (const auto text = property.asString()) {
        encodeText(VT_LPWSTR, *text, bytes);
        return true;
    }
    const PROPVARIANT& value = property.get();
    appendNumber(bytes, value.vt);
    if (const auto size = plainSize(value.vt)) {
        appendBytes(bytes, &value.hVal, *size);
        return true;
    }
    switch (value.vt) {
    case VT_CLSID:
        if (value.puuid)
            appendBytes(bytes, value.puuid, sizeof(CLSID));
        return value.puuid != nullptr;
    case VT_BLOB:
    case VT_BLOB_OBJECT:
        return encodeBlock(value.blob.cbSize, value.blob.pBlobData, bytes);
    case VT_CF:
        return encodeClip(value.pclipdata, bytes);
    default:
        return false;
    }
}

} // namespace

bool decodeProperties(ByteView section, Properties& properties) {
    return Decoder(section).decode(properties);
}

PropertyNames decodePropertyNames(ByteView section) { return Decoder(section).decodeNames(); }

bool encodeProperties(const Properties& properties, const PropertyNames& names,
                      std::vector<unsigned char>& section) {
    const std::size_t count = properties.size() + (names.empty() ? 1 : 2); // with the code page
    const std::size_t start = sectionHeader + count * entrySize;
    std::vector<unsigned char> entries;
    std::vector<unsigned char> values;
    const auto begin = [&](PROPID id) {
        appendNumber(entries, id);
        appendNumber(entries, start + values.size());
    };
    if (!names.empty()) {
        begin(PID_DICTIONARY);
        encodeNames(properties, names, values);
    }
    begin(PID_CODEPAGE);
    appendNumber(values, VT_I2);
    appendNumber(values, unicode);
    for (const auto& [id, value] : properties) {
        begin(id);
        if (!isOrdinary(id) || !encodeValue(value, values))
            return false;
        padToFour(values);
    }
    section.clear();
    appendNumber(section, start + values.size());
    appendNumber(section, count);
    appendBytes(section, entries.data(), entries.size());
    appendBytes(section, values.data(), values.size());
    return true;
}

} // namespace Vexel::Detail
