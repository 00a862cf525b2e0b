#pragma once

namespace Vexel::Tool {

/// The style sheet of a report's page.
extern const char* const kReportStyle;

/// What sorts and filters its table. Without it, the page shows the same.
extern const char* const kReportScript;

} // namespace Vexel::Tool
