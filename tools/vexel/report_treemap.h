#pragma once

#include "report.h"

#include <string>

namespace Vexel::Tool {

enum class TreemapMeasure { Size, Packed };

/// The treemap of a report as nested elements of a page, whose places are parts of their parent's. Each leads
/// to the node's row in the table. It is laid out for a picture of `width` to `height`. Nodes too small to be
/// seen are taken together.
std::string treemapHtml(const DocumentReport& report, TreemapMeasure measure, double width, double height);

} // namespace Vexel::Tool
