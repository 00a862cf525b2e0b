// What path names know of the files they name, asked of the storages above them.

#include "paths/path_name_flags.h"

#include <vexel/path_name.h>
#include <vexel/storage.h>

using Vexel::Detail::bit;

std::optional<bool> SharedPathName::isStorage() const {
    if (!entry_)
        return false;
    constexpr std::uint32_t kStorage = bit(SharedPathNameFlag::Storage);
    const std::uint32_t flags = entry_->flags.load(std::memory_order_acquire);
    if (flags & bit(SharedPathNameFlag::StorageKnown))
        return (flags & kStorage) != 0;
    const std::optional<bool> answer = StorageRef::isStorage(*this);
    if (answer && SharedPathNameFlagsCacheBlock::IsActive()) {
        // A file that could be examined exists.
        constexpr std::uint32_t kKnown = bit(SharedPathNameFlag::StorageKnown) |
                                         bit(SharedPathNameFlag::FileExistsKnown) |
                                         bit(SharedPathNameFlag::FileExists);
        cacheFlags(kKnown | kStorage, kKnown | (*answer ? kStorage : 0));
    }
    return answer;
}
