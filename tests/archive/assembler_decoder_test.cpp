// The engine's assembler code decodes as its C code does, which is the one that people read: the same bytes,
// the same statuses, and as much of the input taken, of sound and of damaged data, in whatever pieces these
// come. (Where there is no assembler for it, both are the C code.)

#include "bench/support/c_decoder.h"
#include "support/streams.h"

#include <Alloc.h>
#include <LzmaEnc.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <tuple>

using Support::noise;

namespace {

struct Decoder {
    decltype(LzmaDec_Allocate)* allocate;
    decltype(LzmaDec_Init)* init;
    decltype(LzmaDec_DecodeToBuf)* decode;
    decltype(LzmaDec_Free)* free;
};
constexpr Decoder kUsed{LzmaDec_Allocate, LzmaDec_Init, LzmaDec_DecodeToBuf, LzmaDec_Free};
constexpr Decoder kPlain{C_LzmaDec_Allocate, C_LzmaDec_Init, C_LzmaDec_DecodeToBuf, C_LzmaDec_Free};

struct Packed {
    std::string properties, bytes;
    std::size_t size; ///< of the contents
};

Packed pack(const std::string& contents, int lc, int lp, int pb, UInt32 dictionary) {
    CLzmaEncProps properties;
    LzmaEncProps_Init(&properties);
    properties.lc = lc;
    properties.lp = lp;
    properties.pb = pb;
    properties.dictSize = dictionary;
    properties.numThreads = 1;
    std::string settings(LZMA_PROPS_SIZE, 0), bytes(contents.size() * 2 + 100, 0);
    SizeT size = bytes.size(), settingsSize = LZMA_PROPS_SIZE;
    EXPECT_EQ(LzmaEncode(reinterpret_cast<Byte*>(bytes.data()), &size,
                         reinterpret_cast<const Byte*>(contents.data()), contents.size(), &properties,
                         reinterpret_cast<Byte*>(settings.data()), &settingsSize, 0, nullptr, &g_Alloc,
                         &g_Alloc),
              SZ_OK);
    return {settings, bytes.substr(0, size), contents.size()};
}

/// The contents, and behind them what each call told. Hands out `in` packed bytes at a time, and room for
/// `out`.
std::string decode(const Decoder& decoder, const Packed& packed, std::size_t in, std::size_t out) {
    CLzmaDec state;
    LzmaDec_CONSTRUCT(&state);
    std::string contents, told, room(out, 0);
    const auto* const properties = reinterpret_cast<const Byte*>(packed.properties.data());
    EXPECT_EQ(decoder.allocate(&state, properties, LZMA_PROPS_SIZE, &g_Alloc), SZ_OK);
    decoder.init(&state);
    SRes result = SZ_OK;
    for (std::size_t place = 0, moved = 1; result == SZ_OK && moved > 0 && contents.size() < packed.size;) {
        SizeT taken = std::min(in, packed.bytes.size() - place),
              made = std::min(out, packed.size - contents.size());
        ELzmaStatus status = LZMA_STATUS_NOT_SPECIFIED;
        result = decoder.decode(&state, reinterpret_cast<Byte*>(room.data()), &made,
                                reinterpret_cast<const Byte*>(packed.bytes.data()) + place, &taken,
                                LZMA_FINISH_ANY, &status);
        told += " " + std::to_string(result) + "," + std::to_string(status) + "," + std::to_string(taken);
        contents.append(room, 0, made);
        place += taken;
        moved = taken + made;
    }
    decoder.free(&state, &g_Alloc);
    return contents + told;
}

TEST(AssemblerDecoder, DecodesAsTheCCodeDoes) {
    std::string contents = noise(5'000);
    for (int line = 0; contents.size() < 150'000; ++line)
        contents += "line " + std::to_string(line * line) + (line % 7 == 0 ? noise(40) : " of a drawing\n");
    contents += std::string(70'000, 'z') + contents.substr(0, 30'000);
    std::mt19937 random(1); // NOLINT(cert-msc51-cpp): the same each time
    for (const auto& [lc, lp, pb, dictionary] :
         {std::tuple(3, 0, 2, 1U << 20), {0, 4, 0, 1U << 16}, {8, 0, 4, 1U << 12}}) {
        const Packed packed = pack(contents, lc, lp, pb, dictionary);
        for (int round = 0; round < 200; ++round) {
            Packed damaged = packed; // in the first rounds sound
            for (int faults = round < 8 ? 0 : 1 + round % 3; faults > 0; --faults)
                damaged.bytes[random() % damaged.bytes.size()] ^= static_cast<char>(1U << random() % 8);
            if (round >= 8 && round % 4 == 0)
                damaged.bytes.resize(random() % damaged.bytes.size());
            const std::size_t in = round == 0 ? 1 << 20 : 1 + random() % (round % 2 ? 70 : 5000),
                              out = round == 0 ? 1 << 20 : 1 + random() % 50'000;
            const std::string decoded = decode(kUsed, damaged, in, out);
            EXPECT_TRUE(decoded == decode(kPlain, damaged, in, out)) << round;
            EXPECT_TRUE(round >= 8 || decoded.starts_with(contents)) << round;
        }
    }
}

} // namespace
