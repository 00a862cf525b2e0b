#pragma once

#include <vector>

namespace Vexel::Tool {

/// A part of a treemap, in the units of the whole.
struct TreemapBox {
    double left = 0;
    double top = 0;
    double width = 0;
    double height = 0;
};

/// Divides a rectangle into boxes whose areas are as the weights, and that are as square as can be: the boxes
/// stand in rows along the shorter side, and a row ends where another box would make its boxes longer. The
/// weights are positive, the largest first; the boxes come in their order, and fill the rectangle.
std::vector<TreemapBox> divideByWeight(const std::vector<double>& weights, double width, double height);

} // namespace Vexel::Tool
