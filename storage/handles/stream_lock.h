#pragma once

#include "storage/tree/storage_item.h"

#include <vexel/storage.h>

namespace Vexel::Detail {

/// Holds the lock of a stream's root, for functions that go on using the handle's interface: meanwhile no
/// other thread reopens the item.
class [[nodiscard]] StreamLock {
public:
    explicit StreamLock(const StreamRef& stream) noexcept : lock_(stream.item_) {}

private:
    TreeLock lock_;
};

} // namespace Vexel::Detail
