#pragma once

#include <windows.h>

#include <7zCrc.h>
#include <Alloc.h>
#include <LzmaEnc.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <string>
#include <string_view>

/// 7z archives byte by byte, for those that no program writes.
namespace ArchiveBytes {

using namespace std::string_literals;

template <class Number>
std::string little(Number value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}
inline std::uint32_t checksum(std::string_view bytes) { return CrcCalc(bytes.data(), bytes.size()); }

/// The first 32 bytes, for a header at this place behind them.
inline std::string start(std::uint64_t offset, std::uint64_t size, std::uint32_t crc) {
    const std::string place = little(offset) + little(size) + little(crc);
    return "7z\xBC\xAF\x27\x1C\0\4"s + little(checksum(place)) + place;
}
/// Where a file says its header is.
inline std::size_t headerOf(const std::string& file) {
    std::uint64_t offset = 0;
    std::memcpy(&offset, file.data() + 12, sizeof offset);
    return 32 + offset;
}
inline std::string archiveOf(const std::string& packed, const std::string& header) {
    return start(packed.size(), header.size(), checksum(header)) + packed + header;
}

// The header's language: numbers below 128 are a byte each, others have a mark and 8 bytes.
inline std::string bytes(std::initializer_list<int> values) { return {values.begin(), values.end()}; }
inline std::string number(std::uint64_t value) { return "\xFF" + little(value); }
inline std::string packInfo(std::uint64_t size, std::uint64_t offset = 0) {
    return bytes({6}) + number(offset) + bytes({1, 9}) + number(size) + bytes({0});
}
/// `digests`: what stands behind the sizes, if anything.
inline std::string unpackInfo(const std::string& folder, std::uint64_t size,
                              const std::string& digests = {}) {
    return bytes({7, 11, 1, 0}) + folder + bytes({12}) + number(size) + digests + bytes({0});
}
inline const std::string copyFolder = bytes({1, 1, 0});
inline const std::string lzmaFolder = bytes({1, 0x23, 3, 1, 1, 5, 0x5D, 0, 0, 1, 0});
inline const std::string lzma2Folder = bytes({1, 0x21, 0x21, 1, 40}); // with a dictionary of 4 GiB

inline std::string names(std::u16string_view names) {
    const std::string all(reinterpret_cast<const char*>(names.data()), names.size() * 2);
    return bytes({0x11}) + number(all.size() + 1) + bytes({0}) + all;
}
/// Of items with contents.
inline std::string streamsHeader(const std::string& streams, int items, std::u16string_view list) {
    return bytes({1, 4}) + streams + bytes({0, 5, items}) + names(list) + bytes({0, 0});
}
/// Of items without contents, with these names. `properties`: what stands before the names.
inline std::string listHeader(std::uint64_t items, std::u16string_view list,
                              const std::string& properties = {}) {
    const std::string empty((items + 7) / 8, '\xFF');
    return bytes({1, 5}) + number(items) + bytes({0x0E}) + number(empty.size()) + empty + properties +
           names(list) + bytes({0, 0});
}

inline std::string packedHeader(const std::string& folder, std::uint64_t packed, std::uint64_t size,
                                std::uint64_t offset = 0) {
    return bytes({0x17}) + packInfo(packed, offset) + unpackInfo(folder, size) + bytes({0});
}
inline std::string withPackedHeader(const std::string& header, const std::string& contents = {}) {
    CLzmaEncProps props;
    LzmaEncProps_Init(&props);
    props.level = 1; // takes little memory, as does the target, so that what a test measures afterwards shows
    props.dictSize = 0x10000;
    std::string packed(header.size() / 4 + 0x1000, '\0');
    Byte settings[5];
    SizeT size = packed.size(), settingsSize = sizeof settings;
    EXPECT_EQ(LzmaEncode(reinterpret_cast<Byte*>(packed.data()), &size,
                         reinterpret_cast<const Byte*>(header.data()), header.size(), &props, settings,
                         &settingsSize, 0, nullptr, &g_Alloc, &g_Alloc),
              SZ_OK);
    packed.resize(size);
    const std::string folder =
        lzmaFolder.substr(0, 6) + std::string(std::begin(settings), std::end(settings));
    return archiveOf(contents + packed, packedHeader(folder, size, header.size(), contents.size()));
}

} // namespace ArchiveBytes
