// Values of the types that are known, from bytes to PROPVARIANT and back. What a value claims to hold is held
// against the bytes that are there before memory is taken. Memory comes from the allocator from which
// PropVariantClear frees.

#include "storage/properties/property_values.h"

#include "base/task_memory.h"
#include "base/text.h"

#include <windows.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <string>
#include <type_traits>
#include <utility>

namespace Vexel::Detail {

namespace {

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
    case VT_DECIMAL:
        return sizeof(DECIMAL);
    default:
        return std::nullopt;
    }
}

/// The size of the elements of vectors that are plain memory.
std::optional<std::size_t> elementSize(std::uint32_t type) noexcept {
    if (type == VT_CLSID)
        return sizeof(CLSID);
    if (type == VT_INT || type == VT_UINT || type == VT_DECIMAL)
        return std::nullopt;
    const auto size = plainSize(type);
    return size && *size > 0 ? size : std::nullopt;
}

/// Where they stand. A decimal begins with two bytes that are the record's type.
template <class Value>
auto* plainBytes(Value& value, std::uint32_t type) noexcept {
    using Byte = std::conditional_t<std::is_const_v<Value>, const unsigned char, unsigned char>;
    return type == VT_DECIMAL ? reinterpret_cast<Byte*>(&value.decVal) : reinterpret_cast<Byte*>(&value.hVal);
}

bool isText(std::uint32_t type) noexcept { return type == VT_LPSTR || type == VT_BSTR || type == VT_LPWSTR; }

/// Memory that PropVariantClear frees, all zero.
template <class Result>
Result* taskMemory(std::size_t size) {
    void* const memory = CoTaskMemAlloc((std::max)(size, std::size_t{1}));
    if (!memory)
        throw std::bad_alloc();
    std::memset(memory, 0, size);
    return static_cast<Result*>(memory);
}

template <class Result>
Result* taskCopy(ByteView bytes) {
    auto* const copy = taskMemory<Result>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), reinterpret_cast<unsigned char*>(copy));
    return copy;
}

wchar_t* taskText(const CStringW& text) {
    wchar_t* const copy = Detail::duplicateText(Detail::viewOf(text));
    if (!copy)
        throw std::bad_alloc();
    return copy;
}

/// Reads one value into a record that is empty, and that someone else clears. Writers disagree whether the
/// texts and variants in a vector are padded.
class ValueReader {
public:
    ValueReader(ByteView bytes, UINT codePage) noexcept : bytes_(bytes), codePage_(codePage) {}

    /// A value of a type that is not known is no damage: it is passed on as empty, and left as it is by
    /// writing.
    enum class Result { Read, Unknown, Damaged };

    Result read(PROPVARIANT& value) {
        std::uint32_t type = 0;
        if (!takeNumber(type))
            return Result::Damaged;
        return (type & ~std::uint32_t{VT_TYPEMASK}) == VT_VECTOR ? readVector(type & VT_TYPEMASK, value)
                                                                 : readSingle(type, value);
    }

private:
    static Result done(bool isRead) noexcept { return isRead ? Result::Read : Result::Damaged; }

    bool take(std::uint64_t size, ByteView& bytes) noexcept {
        if (!has(bytes_, at_, size))
            return false;
        bytes = bytes_.subspan(at_, static_cast<std::size_t>(size));
        at_ += bytes.size();
        return true;
    }

    bool takeNumber(std::uint32_t& number) noexcept {
        ByteView bytes;
        if (!take(4, bytes))
            return false;
        number = numberAt(bytes, 0);
        return true;
    }

    /// So many units, and their number in front of them.
    bool takeCounted(ByteView& bytes, std::size_t unit = 1) noexcept {
        std::uint32_t count = 0;
        return takeNumber(count) && take(std::uint64_t{count} * unit, bytes);
    }

    /// All but vectors.
    Result readSingle(std::uint32_t type, PROPVARIANT& value) {
        ByteView bytes;
        if (const auto size = plainSize(type))
            return done(take(*size, bytes) && fillPlain(bytes, type, value));
        switch (type) {
        case VT_LPSTR:
        case VT_BSTR:
        case VT_LPWSTR:
            return done(readText(type, value));
        case VT_CLSID:
            return done(take(sizeof(CLSID), bytes) && fillClass(bytes, value));
        case VT_BLOB:
        case VT_BLOB_OBJECT:
            return done(takeCounted(bytes) && fillBlob(bytes, type, value));
        case VT_CF:
            return done(takeCounted(bytes) && fillClip(bytes, value));
        default:
            return Result::Unknown;
        }
    }

    /// A copy for the record; null when it leads out of the bytes.
    wchar_t* takeText(std::uint32_t type) {
        ByteView bytes;
        if (!takeCounted(bytes, type == VT_LPWSTR ? sizeof(wchar_t) : 1))
            return nullptr;
        return taskText(decodeText(bytes, type == VT_LPWSTR ? kWideCodePage : codePage_));
    }

    bool readText(std::uint32_t type, PROPVARIANT& value) {
        value.pwszVal = takeText(type);
        if (value.pwszVal)
            value.vt = VT_LPWSTR;
        return value.pwszVal != nullptr;
    }

    /// Elements without padding and elements padded to four bytes both occur, and nothing says which these
    /// are. So both are tried, the usual one first: read the wrong way, the next element's size or type makes
    /// no sense.
    Result readVector(std::uint32_t element, PROPVARIANT& value) {
        std::uint32_t count = 0;
        if (!takeNumber(count))
            return Result::Damaged;
        if (const auto size = elementSize(element)) {
            ByteView bytes;
            return done(take(std::uint64_t{count} * *size, bytes) &&
                        fillVector(bytes, count, element, value));
        }
        if ((!isText(element) && element != VT_VARIANT) || count > (bytes_.size() - at_) / 4)
            return Result::Unknown;
        for (const bool isPadded : {true, false}) {
            ValueReader elements(*this);
            elements.isPadded_ = isPadded;
            if (isText(element) ? elements.readTexts(element, count, value)
                                : elements.readVariants(count, value))
                return Result::Read;
            PropVariantClear(&value);
        }
        return Result::Unknown;
    }

    bool readTexts(std::uint32_t element, std::uint32_t count, PROPVARIANT& value) {
        value.calpwstr.pElems = taskMemory<LPWSTR>(count * sizeof(LPWSTR));
        value.calpwstr.cElems = count;
        value.vt = VT_VECTOR | VT_LPWSTR;
        for (std::uint32_t i = 0; i < count; ++i) {
            value.calpwstr.pElems[i] = takeText(element);
            if (!value.calpwstr.pElems[i] || !skipPadding())
                return false;
        }
        return true;
    }

    bool readVariants(std::uint32_t count, PROPVARIANT& value) {
        value.capropvar.pElems = taskMemory<PROPVARIANT>(count * sizeof(PROPVARIANT));
        value.capropvar.cElems = count;
        value.vt = VT_VECTOR | VT_VARIANT;
        for (std::uint32_t i = 0; i < count; ++i) {
            std::uint32_t type = 0;
            if (!takeNumber(type) || readSingle(type, value.capropvar.pElems[i]) != Result::Read ||
                !skipPadding())
                return false;
        }
        return true;
    }

    /// False when something else stands in its place: the elements are not padded then.
    bool skipPadding() noexcept {
        const std::size_t end = isPadded_ ? (std::min)(paddedSize(at_), bytes_.size()) : at_;
        return std::all_of(bytes_.begin() + static_cast<std::ptrdiff_t>(std::exchange(at_, end)),
                           bytes_.begin() + static_cast<std::ptrdiff_t>(end),
                           [](unsigned char byte) { return byte == 0; });
    }

    static bool fillPlain(ByteView bytes, std::uint32_t type, PROPVARIANT& value) noexcept {
        std::copy(bytes.begin(), bytes.end(), plainBytes(value, type));
        value.vt = static_cast<VARTYPE>(type); // which a decimal covers
        return true;
    }

    static bool fillVector(ByteView bytes, std::uint32_t count, std::uint32_t element, PROPVARIANT& value) {
        value.caub.pElems = taskCopy<UCHAR>(bytes); // all kinds of vectors have one layout
        value.caub.cElems = count;
        value.vt = static_cast<VARTYPE>(VT_VECTOR | element);
        return true;
    }

    static bool fillClass(ByteView bytes, PROPVARIANT& value) {
        value.puuid = taskCopy<CLSID>(bytes);
        value.vt = VT_CLSID;
        return true;
    }

    static bool fillBlob(ByteView bytes, std::uint32_t type, PROPVARIANT& value) {
        value.blob.pBlobData = taskCopy<BYTE>(bytes);
        value.blob.cbSize = static_cast<ULONG>(bytes.size());
        value.vt = static_cast<VARTYPE>(type);
        return true;
    }

    /// The size counts the clipboard format in front of the data.
    static bool fillClip(ByteView bytes, PROPVARIANT& value) {
        if (bytes.size() < 4)
            return false;
        const CLIPDATA clip{static_cast<ULONG>(bytes.size()), static_cast<LONG>(numberAt(bytes, 0)), nullptr};
        value.pclipdata = taskCopy<CLIPDATA>({reinterpret_cast<const unsigned char*>(&clip), sizeof clip});
        value.vt = VT_CF;
        value.pclipdata->pClipData = taskCopy<BYTE>(bytes.subspan(4));
        return true;
    }

    ByteView bytes_;
    std::size_t at_ = 0;
    UINT codePage_;
    bool isPadded_ = true;
};

void encodeText(const CStringW& text, std::vector<unsigned char>& bytes) {
    const auto units = static_cast<std::size_t>(text.GetLength()) + 1;
    appendNumber(bytes, units);
    appendBytes(bytes, text.GetString(), units * sizeof(wchar_t));
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

/// All but vectors. Texts of every kind are written as wide text, so that no code page can lose a character.
bool encodeSingle(const PROPVARIANT& value, std::vector<unsigned char>& bytes) {
    if (isText(value.vt)) {
        const auto text = textOf(value);
        appendNumber(bytes, VT_LPWSTR);
        if (text)
            encodeText(*text, bytes);
        return text.has_value();
    }
    appendNumber(bytes, value.vt);
    if (const auto size = plainSize(value.vt)) {
        const std::size_t start = bytes.size();
        appendBytes(bytes, plainBytes(value, value.vt), *size);
        if (value.vt == VT_DECIMAL)
            std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(start), sizeof(VARTYPE), 0);
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

bool encodeVector(const PROPVARIANT& value, std::vector<unsigned char>& bytes) {
    const std::uint32_t element = value.vt & VT_TYPEMASK;
    const ULONG count = value.caub.cElems;
    appendNumber(bytes, isText(element) ? VT_VECTOR | VT_LPWSTR : value.vt);
    appendNumber(bytes, count);
    if (count > 0 && !value.caub.pElems)
        return false;
    if (const auto size = elementSize(element)) {
        appendBytes(bytes, value.caub.pElems, count * *size);
        return true;
    }
    if (!isText(element) && element != VT_VARIANT)
        return false;
    for (ULONG i = 0; i < count; ++i) {
        PROPVARIANT text{};
        text.vt = static_cast<VARTYPE>(element);
        if (isText(element))
            text.pwszVal = value.calpwstr.pElems[i]; // in the place of all three kinds
        const PROPVARIANT& one = isText(element) ? text : value.capropvar.pElems[i];
        const std::size_t start = bytes.size();
        if (!encodeSingle(one, bytes))
            return false;
        padToFour(bytes);
        if (isText(element)) // has no type of its own
            bytes.erase(bytes.begin() + static_cast<std::ptrdiff_t>(start),
                        bytes.begin() + static_cast<std::ptrdiff_t>(start) + 4);
    }
    return true;
}

/// The text up to its first zero: sizes count the zero at the end.
CStringW wideText(ByteView bytes) {
    std::wstring text(bytes.size() / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), bytes.data(), text.size() * sizeof(wchar_t));
    return {text.c_str()};
}

} // namespace

CStringW decodeText(ByteView bytes, UINT codePage) {
    if (codePage == kWideCodePage)
        return wideText(bytes);
    std::wstring wide(bytes.size() + 1, L'\0'); // no code page makes more of it
    MultiByteToWideChar(codePage, 0, reinterpret_cast<const char*>(bytes.data()),
                        static_cast<int>(bytes.size()), wide.data(), static_cast<int>(bytes.size()));
    return {wide.c_str()};
}

bool decodeValue(ByteView bytes, UINT codePage, PropertyVariant& property) {
    const auto result = ValueReader(bytes, codePage).read(*property.put());
    if (result == ValueReader::Result::Unknown)
        property = PropertyVariant();
    return result != ValueReader::Result::Damaged;
}

bool encodeValue(const PROPVARIANT& value, std::vector<unsigned char>& bytes) {
    const bool isWritten = value.vt & VT_VECTOR ? encodeVector(value, bytes) : encodeSingle(value, bytes);
    padToFour(bytes);
    return isWritten;
}

// The published format has these types only from version 1 on.
bool isNewerValue(const PROPVARIANT& value) noexcept {
    const auto isNewer = [](const PROPVARIANT& one) {
        const int type = one.vt & VT_TYPEMASK;
        return type == VT_I1 || type == VT_INT || type == VT_UINT || type == VT_DECIMAL;
    };
    if (value.vt != (VT_VECTOR | VT_VARIANT))
        return isNewer(value);
    const PROPVARIANT* const elements = value.capropvar.pElems;
    return std::any_of(elements, elements + value.capropvar.cElems, isNewer);
}

} // namespace Vexel::Detail
