// The hash reads just its bytes, wherever they stand, and each of them counts. It is the published one.

#include "fuzz/targets/input.h"

#include <vexel/hash.h>

#include <memory>
#include <utility>

using namespace Vexel::Fuzz;

namespace {

using Result = std::pair<std::uint64_t, std::uint64_t>;

/// At this distance from an aligned address, in a block of just that size.
Result hashAt(std::span<const std::uint8_t> bytes, Result seeds, std::size_t distance) {
    const std::unique_ptr<std::uint8_t[]> block(new std::uint8_t[bytes.size() + distance]);
    if (!bytes.empty())
        std::memcpy(block.get() + distance, bytes.data(), bytes.size());
    Vexel::Hash::SpookyV2_128(block.get() + distance, bytes.size(), seeds.first, seeds.second);
    return seeds;
}

/// Of the bytes 128, 129, ..., as many, with both seeds 0: the low half-word of the published test values.
bool isPublishedOne() {
    struct {
        std::size_t length;
        std::uint32_t value;
    } constexpr kPublished[] = {{0, 0x6bf50919},   {1, 0x70de1d26},   {15, 0x83ec01f9},  {16, 0xf274736c},
                                {35, 0x5d1f5ed4},  {184, 0xe806ce10}, {191, 0xe13d9e19}, {192, 0x77e012bd},
                                {199, 0x46dcae20}, {284, 0x447130aa}, {511, 0xcc1c8250}};
    for (const auto& [length, value] : kPublished) {
        std::vector<std::uint8_t> bytes(length);
        for (std::size_t i = 0; i < length; ++i)
            bytes[i] = static_cast<std::uint8_t>(i + 128);
        REQUIRE((hashAt(bytes, {}, 0).first & 0xFFFFFFFF) == value);
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool kIsPublishedOne = isPublishedOne();
    REQUIRE(kIsPublishedOne);
    Input input(data, size);
    const Result seeds{input.number<std::uint64_t>(), input.number<std::uint64_t>()};
    const std::uint32_t place = input.number<std::uint32_t>();
    const auto bytes = input.rest();
    const Result result = hashAt(bytes, seeds, 0);
    REQUIRE(hashAt(bytes, seeds, 1 + place % 8) == result);
    if (bytes.empty())
        return 0;
    // Of 128 bits, equal ones by accident would be a wonder.
    std::vector<std::uint8_t> changed(bytes.begin(), bytes.end());
    changed[place % changed.size()] ^= static_cast<std::uint8_t>(1U << (place >> 24) % 8);
    REQUIRE(hashAt(changed, seeds, 0) != result);
    REQUIRE(hashAt(bytes.first(bytes.size() - 1), seeds, 0) != result);
    REQUIRE(hashAt(bytes, {seeds.first + 1, seeds.second}, 0) != result);
    REQUIRE(hashAt(bytes, {seeds.first, seeds.second ^ 1}, 0) != result);
    return 0;
}
