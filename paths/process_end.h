#pragma once

namespace Vexel::Detail {

/// Whether the process is past the point where the system has ended all threads but this one, wherever they
/// were: what they held, locks of the standard library and the runtime included, stays held. Destructors of
/// static objects that ask this and get true must wait for nothing and nobody: a lock is tried, never taken.
///
/// Cheap enough for every lock, and callable at any time: nothing is made by the first call.
bool isProcessEnding() noexcept;

} // namespace Vexel::Detail
