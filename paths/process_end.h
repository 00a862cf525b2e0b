#pragma once

namespace Vexel::Detail {

/// `processIsEnding` of base/process_end.h, by way of this layer's table of system calls, so that a test can
/// make it true. Callable at any time, and cheap enough to be asked before every lock.
bool isProcessEnding() noexcept;

} // namespace Vexel::Detail
