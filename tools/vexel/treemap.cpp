#include "treemap.h"

#include <algorithm>
#include <cstddef>
#include <numeric>

namespace Vexel::Tool {
namespace {

/// How much longer than broad the worst box of a row would be. The row lies along `side`, and has the boxes
/// of areas from `smallest` to `largest`, which are `sum` together.
double worstShape(double side, double sum, double smallest, double largest) {
    const double depth = sum / side;
    return std::max(largest / (depth * depth), depth * depth / smallest);
}

class Division {
public:
    Division(const std::vector<double>& weights, double width, double height) : free_{0, 0, width, height} {
        const double total = std::accumulate(weights.begin(), weights.end(), 0.0);
        areas_.reserve(weights.size());
        for (const double weight : weights)
            areas_.push_back(weight / total * width * height);
    }

    std::vector<TreemapBox> run() {
        while (boxes_.size() < areas_.size())
            addRow();
        return std::move(boxes_);
    }

private:
    bool isUpright() const noexcept { return free_.width >= free_.height; } // the row stands at the left
    double side() const noexcept { return std::min(free_.width, free_.height); }

    void addRow() {
        const std::size_t first = boxes_.size();
        std::size_t end = first + 1;
        double sum = areas_[first];
        double worst = worstShape(side(), sum, areas_[first], areas_[first]);
        for (; end < areas_.size(); ++end) {
            const double next = worstShape(side(), sum + areas_[end], areas_[end], areas_[first]);
            if (next > worst)
                break;
            worst = next;
            sum += areas_[end];
        }
        place(first, end, end == areas_.size() ? free_.width * free_.height : sum);
    }

    void place(std::size_t first, std::size_t end, double sum) {
        const double depth = sum / side();
        double at = 0;
        for (std::size_t i = first; i < end; ++i) {
            const double length = areas_[i] / depth;
            boxes_.push_back(isUpright() ? TreemapBox{free_.left, free_.top + at, depth, length}
                                         : TreemapBox{free_.left + at, free_.top, length, depth});
            at += length;
        }
        takeAway(depth);
    }

    void takeAway(double depth) {
        if (isUpright()) {
            free_.left += depth;
            free_.width = std::max(0.0, free_.width - depth);
        } else {
            free_.top += depth;
            free_.height = std::max(0.0, free_.height - depth);
        }
    }

    std::vector<double> areas_;
    TreemapBox free_;
    std::vector<TreemapBox> boxes_;
};

} // namespace

std::vector<TreemapBox> divideByWeight(const std::vector<double>& weights, double width, double height) {
    return Division(weights, width, height).run();
}

} // namespace Vexel::Tool
