#pragma once

#include <mutex>

namespace Vexel::Detail {

/// Locks the shape of every item tree in the process: the child tables, and the state of items that no handle
/// uses. It is held for moments, never while the platform opens, creates or reads something, so that one
/// thread's slow file does not stop another's. A thread may take it again; where the container's lock is
/// needed too, that one is taken first.
///
/// What keeps an item safe outside the lock is a reference: a clean-up leaves referenced items, and those
/// above them, alone. So whoever finds an item in a table takes the reference before giving up the lock.
[[nodiscard]] std::unique_lock<std::recursive_mutex> lockTree();

} // namespace Vexel::Detail
