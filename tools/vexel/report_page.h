#pragma once

#include "report.h"

#include <functional>
#include <string_view>

namespace Vexel::Tool {

/// Writes the report as one page of HTML that needs nothing beside itself, piece by piece.
void writeReportPage(const DocumentReport& report, const std::function<void(std::string_view)>& sink);

} // namespace Vexel::Tool
