// The four layouts share two steps: reading or writing a little-endian count, and moving as many characters
// as really arrive (io/string_bytes.h). Counts come from documents that may be damaged, so no memory is taken
// for what has only been promised.

#include "base/text.h"
#include "io/com_stream.h"
#include "io/string_bytes.h"

#include <vexel/strings.h>

#include <algorithm>
#include <cstdint>
#include <limits>

using Vexel::Detail::readWide;

namespace {

constexpr int kFirstWideVersion = 2861;

template <class Integer>
bool readInteger(vxio::IReadStream& stream, Integer& value) {
    value = 0;
    Integer stored = 0;
    if (stream.ReadBytes(&stored, sizeof stored) != sizeof stored)
        return false;
    value = stored;
    return true;
}

template <class Integer>
void writeInteger(vxio::IWriteStream& stream, Integer value) {
    stream.WriteBytes(&value, sizeof value);
}

auto readerOf(vxio::IReadStream& stream) {
    return [&stream](char* buffer, std::size_t bytes) { return stream.ReadBytes(buffer, bytes); };
}

std::string readNarrow(vxio::IReadStream& stream, std::uint32_t count) {
    unsigned long long arrived = 0;
    return Vexel::Detail::readArriving<char>(count, readerOf(stream), arrived);
}

unsigned long byteCount(const CStringW& text) { return static_cast<unsigned long>(text.GetLength()) * 2; }

// The length in layout M; the stream stands behind it. Each step to a wider number is told by the largest
// value of the narrower one, but 0xFFFE in 16 bits is the mark of wide text, after which the length begins
// anew. A number that is cut off reads as 0.
std::uint64_t readArchiveLength(vxio::IReadStream& stream) {
    constexpr std::uint16_t kUnicodeMark = 0xFFFE;
    std::uint8_t byte = 0;
    readInteger(stream, byte);
    if (byte != 0xFF)
        return byte;
    std::uint16_t word = 0;
    readInteger(stream, word);
    if (word == kUnicodeMark) {
        readInteger(stream, byte);
        if (byte != 0xFF)
            return byte;
        readInteger(stream, word);
    }
    if (word != 0xFFFF)
        return word;
    std::uint32_t length = 0;
    readInteger(stream, length);
    if (length != 0xFFFFFFFF)
        return length;
    std::uint64_t longLength = 0;
    readInteger(stream, longLength);
    return longLength;
}

template <class Integer>
void append(std::string& bytes, Integer value) {
    bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}

// What stands before the characters in layout M.
std::string archiveHeader(std::uint64_t length) {
    std::string header = "\xFF\xFE\xFF";
    if (length < 0xFF) {
        append(header, static_cast<std::uint8_t>(length));
        return header;
    }
    append(header, std::uint8_t{0xFF});
    if (length < 0xFFFE) {
        append(header, static_cast<std::uint16_t>(length));
        return header;
    }
    append(header, std::uint16_t{0xFFFF});
    if (length < 0xFFFFFFFF) {
        append(header, static_cast<std::uint32_t>(length));
        return header;
    }
    append(header, std::uint32_t{0xFFFFFFFF});
    append(header, length);
    return header;
}

} // namespace

void VxwWriteString(vxio::IWriteStream& stream, const CStringW& text) {
    writeInteger(stream, static_cast<std::uint32_t>(byteCount(text)));
    stream.WriteBytes(text.GetString(), byteCount(text));
}

void VxwWriteString(vxio::IWriteStream& stream, std::wstring_view text) {
    constexpr std::size_t kLongest = std::numeric_limits<std::uint32_t>::max();
    const auto count = static_cast<std::uint32_t>((std::min)(text.size(), kLongest));
    writeInteger(stream, count);
    stream.WriteBytes(text.data(), count * 2ULL);
}

void VxwReadString(vxio::IReadStream& stream, CStringW& text, int version) {
    if (version >= kFirstWideVersion) {
        VxwReadUniString(stream, text);
        return;
    }
    std::string narrow;
    VxwReadStringA(stream, narrow);
    text = narrow.c_str();
}

void VxwReadString(vxio::IReadStream& stream, std::wstring& text, int version) {
    if (version >= kFirstWideVersion) {
        VxwReadStringW(stream, text);
        return;
    }
    std::uint32_t count = 0;
    if (!readInteger(stream, count) || count == 0)
        return;
    const std::string narrow = readNarrow(stream, (std::min)(count, 0x7FFFFFFFU));
    text.assign(narrow.size(), L'\0');
    const int length = static_cast<int>(narrow.size());
    if (length != 0)
        MultiByteToWideChar(CP_THREAD_ACP, 0, narrow.data(), length, text.data(), length);
}

void VxwReadStringA(vxio::IReadStream& stream, std::string& text) {
    std::uint32_t count = 0;
    readInteger(stream, count);
    text = readNarrow(stream, count);
}

void VxwReadStringW(vxio::IReadStream& stream, std::wstring& text) {
    std::uint32_t count = 0;
    readInteger(stream, count);
    VxwReadStringW(stream, text, count);
}

// The text is assigned as a whole at the end, so that it stays as it was when memory runs out.
void VxwReadStringW(vxio::IReadStream& stream, std::wstring& text, unsigned count) {
    readWide(count * 2ULL, readerOf(stream), [&](std::wstring_view wide) { text = wide; });
}

bool VxwReadUniString(vxio::IReadStream& stream, CStringW& text) {
    std::uint32_t count = 0;
    const bool counted = readInteger(stream, count);
    return Vexel::Detail::readUniString(count, readerOf(stream), text) == count && counted;
}

void VxwReadUniString(::IStream* stream, CStringW& text) {
    if (!stream)
        return;
    std::uint32_t count = 0;
    ULONG done = 0;
    if (FAILED(stream->Read(&count, sizeof count, &done)) || done != sizeof count)
        count = 0;
    const auto reader = [&](char* buffer, std::size_t bytes) {
        return Vexel::Detail::readBytes(stream, buffer, bytes);
    };
    Vexel::Detail::readUniString(count, reader, text);
}

void VxwWriteUniString(::IStream* stream, const CStringW& text) {
    if (!stream)
        return;
    const auto count = static_cast<std::uint32_t>(byteCount(text));
    vxio::IStreamStream::WriteBytes(stream, &count, sizeof count);
    vxio::IStreamStream::WriteBytes(stream, text.GetString(), count);
}

void VxwWriteCArchiveString(vxio::IWriteStream& stream, const CStringW& text) {
    const std::string header = archiveHeader(static_cast<std::uint64_t>(text.GetLength()));
    stream.WriteBytes(header.data(), header.size());
    stream.WriteBytes(text.GetString(), byteCount(text));
}

void VxwReadCArchiveString(vxio::IReadStream& stream, CStringW& text) {
    const std::uint64_t length = readArchiveLength(stream);
    if (length > 0x7FFFFFFF)
        AfxThrowArchiveException(CArchiveException::genericException, nullptr);
    readWide(length * 2, readerOf(stream),
             [&](std::wstring_view wide) { Vexel::Detail::assign(text, wide); });
}
