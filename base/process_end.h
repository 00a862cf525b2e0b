#pragma once

namespace Vexel::Detail {

/// `queryProcessEnd` of base/process_end_query.h, by way of the table of system calls, so that a test can
/// make it true. Callable at any time, and cheap enough to be asked before every lock.
bool isProcessEnding() noexcept;

} // namespace Vexel::Detail
