#include "tools/vexel/treemap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

using Vexel::Tool::TreemapBox;

namespace {

struct Case {
    std::vector<double> weights;
    double width, height;
    double longest; // how much longer than broad a box may be
};

bool overlap(const TreemapBox& a, const TreemapBox& b) {
    constexpr double kRounding = 1e-6;
    return a.left + a.width > b.left + kRounding && b.left + b.width > a.left + kRounding &&
           a.top + a.height > b.top + kRounding && b.top + b.height > a.top + kRounding;
}

} // namespace

TEST(Treemap, FillsTheRectangleWithBoxesThatAreNearlySquare) {
    const Case cases[] = {{{1}, 1000, 500, 2},          {{6, 6, 4, 3, 2, 2, 1}, 6, 4, 2.8},
                          {{1, 1, 1, 1}, 400, 400, 1},  {std::vector<double>(1000, 1), 1000, 520, 2},
                          {{1e12, 1}, 1000, 520, 1e12}, {{}, 100, 100, 1}};
    for (const Case& one : cases) {
        const auto boxes = Vexel::Tool::divideByWeight(one.weights, one.width, one.height);
        ASSERT_EQ(boxes.size(), one.weights.size());
        const double total = std::accumulate(one.weights.begin(), one.weights.end(), 0.0);
        for (std::size_t i = 0; i < boxes.size(); ++i) {
            const auto& [left, top, width, height] = boxes[i];
            const double area = one.weights[i] / total * one.width * one.height;
            EXPECT_NEAR(width * height, area, area * 1e-6);
            EXPECT_TRUE(left >= 0 && top >= 0 && left + width < one.width + 1e-6 &&
                        top + height < one.height + 1e-6);
            EXPECT_LE(std::max(width / height, height / width), one.longest + 1e-6);
            for (std::size_t j = 0; j < i; ++j)
                EXPECT_FALSE(overlap(boxes[i], boxes[j])) << i << " and " << j;
        }
    }
}
