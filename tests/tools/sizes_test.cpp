#include "tools/vexel/sizes.h"

#include <gtest/gtest.h>

#include <utility>

TEST(Sizes, AreShortenedForPeople) {
    const std::pair<unsigned long long, const char*> cases[] = {{0, "0 B"},
                                                                {1023, "1023 B"},
                                                                {1024, "1.0 KB"},
                                                                {1536, "1.5 KB"},
                                                                {1023 * 1024, "1023.0 KB"},
                                                                {1024 * 1024 - 1, "1.0 MB"},
                                                                {5'000'000'000, "4.7 GB"},
                                                                {~0ULL, "16.0 EB"}};
    for (const auto& [bytes, text] : cases)
        EXPECT_EQ(Vexel::Tool::humanSize(bytes), text);
}
