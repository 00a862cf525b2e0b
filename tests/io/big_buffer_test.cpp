#include "base/platform.h"

#include <vexel/memory_streams.h>

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <vector>

using Vexel::Detail::platform;

namespace {

// Watches the blocks taken from the system, and refuses as many as it is told. All are given back in the end.
class BigBuffers : public testing::Test {
protected:
    BigBuffers() {
        platform().commitPages = [](unsigned long long bytes) noexcept -> void* {
            wanted.push_back(bytes);
            if (refusals > 0) {
                --refusals;
                return nullptr;
            }
            void* const block = kSaved.commitPages(bytes);
            if (block)
                blocks.insert(block);
            return block;
        };
        platform().releasePages = [](void* block) noexcept {
            EXPECT_EQ(blocks.erase(block), 1U);
            kSaved.releasePages(block);
        };
        wanted = {};
        refusals = 0;
    }
    ~BigBuffers() override {
        BigBuffer::setMemoryDepletionHandler(nullptr);
        BigBuffer::compact();
        EXPECT_TRUE(blocks.empty());
        platform() = kSaved;
    }

    using Sizes = std::vector<unsigned long long>;
    static Sizes taken() { return std::exchange(wanted, {}); }
    static bool endsAfter(void* block, unsigned long long bytes) {
        MEMORY_BASIC_INFORMATION region{};
        return VirtualQuery(block, &region, sizeof region) != 0 && region.RegionSize == bytes;
    }

    inline static const Vexel::Detail::Platform kSaved = platform();
    inline static Sizes wanted;
    inline static std::set<void*> blocks;
    inline static int refusals = 0;
};

constexpr unsigned long long kKept = 0x80000;

TEST_F(BigBuffers, KeepOneBlockForTheNext) {
    EXPECT_FALSE(BigBuffer::compact()) << "none yet";
    void* block = nullptr;
    {
        BigBuffer first;
        EXPECT_EQ(first.reallocate(5), nullptr) << "nothing to go on from";
        block = first.init();
        EXPECT_EQ(first.size(), kKept);
        EXPECT_TRUE(endsAfter(block, kKept));
        EXPECT_EQ(first.allocate(1), nullptr) << "holds one already";

        BigBuffer second;
        EXPECT_NE(second.allocate(5000), block);
        EXPECT_FALSE(BigBuffer::compact()) << "in use";
        EXPECT_EQ(taken(), (Sizes{kKept, 5000})) << "exactly what was asked for";
    }
    EXPECT_EQ(blocks.size(), 1U);
    BigBuffer third;
    EXPECT_EQ(third.allocate(7), block);
    EXPECT_EQ(third.reallocate(3), block);
    EXPECT_EQ(third.size(), 7U) << "never shrinks";
    EXPECT_EQ(third.reallocate(kKept), block);
    EXPECT_EQ(taken(), Sizes{});
    third.clear();
    third.clear();
    EXPECT_EQ(third.data(), nullptr);
    EXPECT_NE(third.allocate(kKept * 3), nullptr) << "doubled until it is enough";
    EXPECT_EQ(taken(), (Sizes{kKept * 4}));
    third.clear();
    EXPECT_TRUE(BigBuffer::compact());
    EXPECT_FALSE(BigBuffer::compact());
    EXPECT_NE(third.allocate(kKept + 1), nullptr) << "whole pages";
    EXPECT_EQ(taken(), (Sizes{kKept + 4096}));
}

TEST_F(BigBuffers, TakeTheKeptBytesAlongWhenTheyGrow) {
    BigBuffer first;
    BigBuffer second;
    std::memset(first.init(), 'a', kKept);
    std::memset(second.allocate(10), 'b', 10);
    void* const grown = second.reallocate(20);
    EXPECT_EQ(std::memcmp(grown, "aaaaaaaaaa", 10), 0) << "a block of one's own is filled from the kept one";
    EXPECT_NE(second.reallocate(kKept * 4), nullptr) << "more than the kept block can fill";

    const auto* const bytes = static_cast<char*>(first.reallocate(kKept * 5));
    EXPECT_EQ(bytes[kKept - 1], 'a');
    EXPECT_EQ(first.reallocate(kKept * 8), bytes);
    EXPECT_EQ(taken(), (Sizes{kKept, 10, 20, kKept * 4, kKept * 8}));
    EXPECT_EQ(blocks.size(), 2U);
    first.clear();
    EXPECT_NE(second.reallocate(kKept * 9), nullptr);
    EXPECT_TRUE(BigBuffer::compact());
    EXPECT_NE(second.reallocate(kKept * 10), nullptr) << "with nothing to fill it from";

    BigBuffer copy;
    copy = second;
    EXPECT_EQ(copy.data(), second.data());
    copy = BigBuffer(); // leaves the block to the other
    EXPECT_EQ(blocks.size(), 1U);
}

TEST_F(BigBuffers, AskTheDepletionHandlerOnce) {
    static std::vector<unsigned long long> asked;
    asked.clear();
    BigBuffer::setMemoryDepletionHandler([](unsigned long long bytes) {
        asked.push_back(bytes);
        EXPECT_FALSE(BigBuffer::compact()) << "the kept block is needed";
        return bytes != 3000;
    });
    BigBuffer buffer;
    BigBuffer other;
    refusals = 1;
    EXPECT_NE(buffer.allocate(5), nullptr);
    refusals = 2;
    EXPECT_EQ(buffer.reallocate(kKept + 1), nullptr) << "the second refusal is final";
    EXPECT_EQ(buffer.size(), 5U);
    EXPECT_NE(buffer.reallocate(kKept), nullptr) << "what was kept is as large as before";
    refusals = 1;
    EXPECT_EQ(other.allocate(3000), nullptr) << "not tried again";
    EXPECT_EQ(asked, (Sizes{kKept, kKept * 2, 3000}));
    EXPECT_EQ(taken(), (Sizes{kKept, kKept, kKept * 2, kKept * 2, 3000}));
    EXPECT_NE(other.allocate(10), nullptr);
    refusals = 2;
    EXPECT_EQ(other.reallocate(20), nullptr);
    EXPECT_EQ(other.size(), 10U);
    buffer.clear();
    refusals = 1;
    EXPECT_NE(other.reallocate(30), nullptr) << "filled from a kept block that nobody holds";
    refusals = 2;
    EXPECT_EQ(buffer.allocate(kKept + 1), nullptr);
    other.clear();
    EXPECT_TRUE(blocks.empty()) << "a kept block that is too small goes first";
}

TEST_F(BigBuffers, RefuseWhatCannotBeHad) {
    BigBuffer buffer;
    refusals = 1;
    EXPECT_EQ(buffer.allocate(kKept), nullptr) << "there is nobody to ask";
    for (const unsigned long long bytes : {~0ULL, ~0ULL / 2 + 1, 1ULL << 60})
        EXPECT_EQ(buffer.allocate(bytes), nullptr) << bytes;
    EXPECT_NE(buffer.allocate(5), nullptr);
    EXPECT_EQ(buffer.reallocate(~0ULL), nullptr);
}

TEST_F(BigBuffers, MayBeUsedByTheDepletionHandler) {
    static BigBuffer handlers;
    BigBuffer buffer;
    BigBuffer::setMemoryDepletionHandler([](unsigned long long) { return handlers.init() != nullptr; });
    refusals = 1;
    EXPECT_NE(buffer.allocate(kKept * 2), nullptr);
    EXPECT_NE(buffer.data(), handlers.data());
    EXPECT_EQ(blocks.size(), 2U);
    handlers.clear();
    EXPECT_EQ(blocks.size(), 1U) << "what it holds became its own";
}

} // namespace
