#include "report_treemap.h"

#include "html.h"
#include "sizes.h"
#include "treemap.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>

namespace Vexel::Tool {
namespace {

// As in the style sheet: the strip with a storage's name, in the units of the picture.
constexpr double kStrip = 22;
// A storage whose picture is lower has no strip.
constexpr double kLowestWithStrip = 56;
// Parts of the whole: what is smaller is no box of its own, and no storage that shows what is in it.
constexpr double kSmallestBox = 1.0 / 1500;
constexpr double kSmallestStorage = 1.0 / 250;
constexpr std::size_t kDeepest = 12;
// The largest nodes at the top have a colour each, the others share the last one.
constexpr std::size_t kColours = 8;

class TreemapPage {
public:
    TreemapPage(const DocumentReport& report, TreemapMeasure measure)
        : nodes_(report.nodes), measure_(measure), children_(nodes_.size()) {
        for (std::size_t i = 1; i < nodes_.size(); ++i) {
            if (weightOf(i) > 0)
                children_[nodes_[i].parent].push_back(i);
        }
        for (std::vector<std::size_t>& children : children_)
            std::stable_sort(children.begin(), children.end(),
                             [this](std::size_t a, std::size_t b) { return weightOf(a) > weightOf(b); });
        total_ = weightOf(0);
    }

    std::string run(double width, double height) {
        if (total_ > 0)
            addChildren(0, width, height, 0);
        return std::move(html_);
    }

private:
    double weightOf(std::size_t node) const {
        return static_cast<double>(measure_ == TreemapMeasure::Size ? nodes_[node].size
                                                                    : nodes_[node].packed);
    }

    std::string sizeOf(std::size_t node) const {
        return humanSize(static_cast<unsigned long long>(weightOf(node)));
    }

    // NOLINTNEXTLINE(misc-no-recursion): kDeepest ends it
    void addChildren(std::size_t storage, double width, double height, std::size_t depth) {
        const std::vector<std::size_t>& children = children_[storage];
        const auto firstSmall = std::find_if(children.begin(), children.end(), [this](std::size_t node) {
            return weightOf(node) < total_ * kSmallestBox;
        });
        std::vector<double> weights;
        std::transform(children.begin(), firstSmall, std::back_inserter(weights),
                       [this](std::size_t node) { return weightOf(node); });
        double rest = 0;
        std::for_each(firstSmall, children.end(), [&](std::size_t node) { rest += weightOf(node); });
        if (rest > 0)
            weights.push_back(rest);
        const std::vector<TreemapBox> boxes = divideByWeight(weights, width, height);
        for (std::size_t i = 0; i < boxes.size(); ++i) {
            if (depth == 0)
                colour_ = std::min(i, kColours - 1);
            const std::string place = placeOf(boxes[i], width, height);
            if (children.begin() + static_cast<std::ptrdiff_t>(i) == firstSmall)
                addRest(static_cast<std::size_t>(children.end() - firstSmall), rest, place);
            else
                addNode(children[i], boxes[i], place, depth);
        }
    }

    static std::string placeOf(const TreemapBox& box, double width, double height) {
        std::array<char, 128> text{};
        std::snprintf(text.data(), text.size(), "left:%.3f%%;top:%.3f%%;width:%.3f%%;height:%.3f%%",
                      box.left / width * 100, box.top / height * 100, box.width / width * 100,
                      box.height / height * 100);
        return text.data();
    }

    // NOLINTNEXTLINE(misc-no-recursion): kDeepest ends it
    void addNode(std::size_t node, const TreemapBox& box, const std::string& place, std::size_t depth) {
        if (children_[node].empty() || weightOf(node) < total_ * kSmallestStorage || depth >= kDeepest) {
            addLeaf(node, place);
            return;
        }
        html_ += "<div class=\"g c" + std::to_string(colour_) + "\" style=\"" + place + "\">";
        addLabel(node, "h");
        html_ += "<div class=\"b\">";
        addChildren(node, box.width, box.height < kLowestWithStrip ? box.height : box.height - kStrip,
                    depth + 1);
        html_ += "</div></div>";
    }

    void addLeaf(std::size_t node, const std::string& place) {
        html_ += "<div class=\"l c" + std::to_string(colour_) + "\" style=\"" + place + "\">";
        addLabel(node, "t");
        html_ += "</div>";
    }

    void addLabel(std::size_t node, const char* kind) {
        const std::string& path = nodes_[node].path;
        const std::string share = percentText(weightOf(node), total_);
        html_ += std::string("<a class=\"") + kind + "\" href=\"#n" + std::to_string(node) + "\" title=\"" +
                 htmlText(path) + " — " + sizeOf(node) + ", " + share + "\"><bdi>" +
                 htmlText(path.substr(path.rfind('/') + 1)) + "</bdi> <small>" + sizeOf(node) +
                 "</small></a>";
    }

    void addRest(std::size_t count, double weight, const std::string& place) {
        const std::string size = humanSize(static_cast<unsigned long long>(weight));
        html_ += "<div class=\"l r c" + std::to_string(colour_) + "\" style=\"" + place +
                 "\"><span class=\"t\" title=\"" + counted(count, "small node") + " — " + size + "\">" +
                 counted(count, "small node") + " <small>" + size + "</small></span></div>";
    }

    const std::vector<ReportNode>& nodes_;
    TreemapMeasure measure_;
    std::vector<std::vector<std::size_t>> children_; // those with any weight, the largest first
    double total_ = 0;
    std::size_t colour_ = 0;
    std::string html_;
};

} // namespace

std::string treemapHtml(const DocumentReport& report, TreemapMeasure measure, double width, double height) {
    return TreemapPage(report, measure).run(width, height);
}

} // namespace Vexel::Tool
