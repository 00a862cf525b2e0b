#include "storage/tree_lock.h"

namespace Vexel::Detail {

std::unique_lock<std::recursive_mutex> lockTree() {
    // Never destroyed: handles in static storage are dropped until the very end of the process.
    static auto& mutex = *new std::recursive_mutex;
    return std::unique_lock(mutex);
}

} // namespace Vexel::Detail
