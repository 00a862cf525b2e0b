#pragma once

namespace Vexel::Tool {

/// The library's log is for the application's developers; a command's own error line says what a user needs.
void quietLog();

/// Shows it on standard error.
void verboseLog();

} // namespace Vexel::Tool
