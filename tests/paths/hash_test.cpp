#include <vexel/hash.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <numeric>
#include <utility>
#include <vector>

namespace {

using Vexel::Hash::SpookyV2_128;

using Halves = std::pair<std::uint64_t, std::uint64_t>;

/// Of the bytes 128, 129, ..., as many, at this distance from an aligned address.
Halves hashOf(std::size_t length, std::size_t offset, Halves seeds) {
    std::vector<unsigned char> memory(length + 16, static_cast<unsigned char>(offset));
    std::iota(memory.begin() + static_cast<int>(offset), memory.begin() + static_cast<int>(offset + length),
              static_cast<unsigned char>(128));
    SpookyV2_128(memory.data() + offset, length, seeds.first, seeds.second);
    return seeds;
}

struct Published {
    std::size_t length; // of the first of the values, which are for lengths one apart
    std::vector<std::uint32_t> values;
};

// The algorithm's published test values: the low half-word for messages of bytes 128, 129, ... with both
// seeds 0. All tails of a short message, and the lengths around which the long form begins and blocks end.
const std::vector<Published> kPublished{
    {0, {0x6bf50919, 0x70de1d26, 0xa2b37298, 0x35bc5fbf, 0x8223b279, 0x5bcb315e, 0x53fe88a1, 0xf9f1a233,
         0xee193982, 0x54f86f29, 0xc8772d36, 0x9ed60886, 0x5f23d1da, 0x1ed9f474, 0xf2ef0c89, 0x83ec01f9,
         0xf274736c, 0x7e9ac0df, 0xc7aed250, 0xb1015811, 0xe23470f5, 0x48ac20c4, 0xe2ab3cd5, 0x608f8363,
         0xd0639e68, 0xc4e8e7ab, 0x863c7c5b, 0x4ea63579, 0x99ae8622, 0x170c658b, 0x149ba493, 0x027bca7c,
         0xe5cfc8b6, 0xce01d9d7, 0x11103330, 0x5d1f5ed4}},
    {184,
     {0xe806ce10, 0x9212be79, 0x4604ae7b, 0x7fa22a84, 0xe715b13a, 0x0394c3b2, 0x11efbbae, 0xe13d9e19,
      0x77e012bd, 0x2d05114c, 0xaecf2ddd, 0xb2a2b4aa, 0xb9429546, 0x55dce815, 0xc89138f8, 0x46dcae20}},
    {284, {0x447130aa, 0x8cc4a81f, 0x0868ec83, 0xc22c642d, 0x47880140, 0xfbff3bec, 0x0f531f41, 0xf845a667}},
    {508, {0x918fa7c9, 0xaf2e2cd9, 0x82046f8e, 0xcc1c8250}},
};

TEST(SpookyHash, GivesThePublishedValues) {
    for (const auto& [first, values] : kPublished)
        for (std::size_t i = 0; i < values.size(); ++i)
            EXPECT_EQ(hashOf(first + i, 0, {}).first & 0xFFFFFFFF, values[i]) << first + i << " bytes";
}

// What the published values leave open, worked out from the definition by a program of its own: both halves
// and both seeds; and that neither alignment nor the bytes beyond count.
TEST(SpookyHash, DependsOnSeedsAndBytesAndNothingElse) {
    constexpr Halves kSeeds{0x0123456789ABCDEF, 0xFEDCBA9876543210};
    const std::pair<std::size_t, Halves> cases[] = {
        {0, {0x9650bc819f542799, 0xf0d126948b81e07f}},   {7, {0x5a27a897e75614d1, 0xd782295605eaca32}},
        {16, {0x493fa3bf667514ea, 0x476de1359b21b7bd}},  {31, {0x0c387ba4037418d6, 0x1064f9a7d13b448a}},
        {45, {0x452aace9985a9c64, 0x8cbca84656868eb3}},  {191, {0x00048f3f2814b6bc, 0x714bbb0e1a7162dc}},
        {192, {0x1d58c9181e4d0353, 0xf9be7682ec7143c3}}, {500, {0x119baad09b6d064f, 0x751aee7c7f6ab72c}}};
    for (const auto& [length, expected] : cases)
        for (std::size_t offset = 0; offset < 8; ++offset)
            EXPECT_EQ(hashOf(length, offset, kSeeds), expected) << length << " bytes at " << offset;
    Halves ofNull;
    SpookyV2_128(nullptr, 0, ofNull.first, ofNull.second);
    EXPECT_EQ(ofNull, hashOf(0, 0, {}));
}

} // namespace
