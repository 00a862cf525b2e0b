// The engine's assembler code decodes as its C code does, which is the one that people read: the same bytes,
// the same statuses, and as much of the input taken, of sound and of damaged data, in whatever pieces these
// come. (Where there is no assembler for it, both are the C code.)

#include "support/c_decoder.h"
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
    Packed packed{std::string(LZMA_PROPS_SIZE, 0), std::string(contents.size() * 2 + 100, 0),
                  contents.size()};
    SizeT size = packed.bytes.size(), propertiesSize = LZMA_PROPS_SIZE;
    EXPECT_EQ(LzmaEncode(reinterpret_cast<Byte*>(packed.bytes.data()), &size,
                         reinterpret_cast<const Byte*>(contents.data()), contents.size(), &properties,
                         reinterpret_cast<Byte*>(packed.properties.data()), &propertiesSize, 0, nullptr,
                         &g_Alloc, &g_Alloc),
              SZ_OK);
    packed.bytes.resize(size);
    return packed;
}

/// The contents, and what each call told.
using Outcome = std::pair<std::string, std::string>;

/// Hands out `in` packed bytes at a time, and room for `out`.
Outcome decode(const Decoder& decoder, const Packed& packed, std::size_t in, std::size_t out) {
    CLzmaDec state;
    LzmaDec_CONSTRUCT(&state);
    Outcome outcome;
    auto& [contents, told] = outcome;
    const auto* const properties = reinterpret_cast<const Byte*>(packed.properties.data());
    const SRes allocated = decoder.allocate(&state, properties, LZMA_PROPS_SIZE, &g_Alloc);
    told = std::to_string(allocated);
    if (allocated != SZ_OK)
        return outcome;
    decoder.init(&state);
    std::string room(out, 0);
    for (std::size_t place = 0; contents.size() < packed.size;) {
        SizeT taken = std::min(in, packed.bytes.size() - place),
              made = std::min(out, packed.size - contents.size());
        ELzmaStatus status = LZMA_STATUS_NOT_SPECIFIED;
        const SRes result = decoder.decode(&state, reinterpret_cast<Byte*>(room.data()), &made,
                                           reinterpret_cast<const Byte*>(packed.bytes.data()) + place, &taken,
                                           LZMA_FINISH_ANY, &status);
        told += " " + std::to_string(result) + "," + std::to_string(status) + "," + std::to_string(taken);
        contents.append(room, 0, made);
        place += taken;
        if (result != SZ_OK || (taken == 0 && made == 0))
            break;
    }
    decoder.free(&state, &g_Alloc);
    return outcome;
}

std::string sampleContents() {
    std::string contents = noise(5'000);
    for (int line = 0; contents.size() < 150'000; ++line)
        contents += "line " + std::to_string(line * line) + (line % 7 == 0 ? noise(40) : " of a drawing\n");
    return contents + std::string(70'000, 'z') + contents.substr(0, 30'000);
}

TEST(AssemblerDecoder, DecodesAsTheCCodeDoes) {
    const std::string contents = sampleContents();
    std::mt19937 random(1); // NOLINT(cert-msc51-cpp): the same each time
    for (const auto& [lc, lp, pb, dictionary] :
         {std::tuple(3, 0, 2, 1U << 20), {0, 4, 0, 1U << 16}, {8, 0, 4, 1U << 12}}) {
        const Packed packed = pack(contents, lc, lp, pb, dictionary);
        for (const auto& [in, out] :
             {std::pair<std::size_t, std::size_t>(1 << 20, 1 << 20), {1, 1 << 20}, {700, 33}, {61, 5000}}) {
            const Outcome sound = decode(kUsed, packed, in, out);
            EXPECT_TRUE(sound.first == contents) << in << " " << out;
            EXPECT_EQ(sound, decode(kPlain, packed, in, out)) << in << " " << out;
        }
        for (int round = 0; round < 200; ++round) {
            Packed damaged = packed;
            for (int faults = 1 + round % 3; faults > 0; --faults)
                damaged.bytes[random() % damaged.bytes.size()] ^= static_cast<char>(1U << random() % 8);
            if (round % 4 == 0)
                damaged.bytes.resize(random() % damaged.bytes.size());
            const std::size_t in = 1 + random() % 5000, out = 1 + random() % 50'000;
            EXPECT_TRUE(decode(kUsed, damaged, in, out) == decode(kPlain, damaged, in, out)) << round;
        }
    }
}

} // namespace
