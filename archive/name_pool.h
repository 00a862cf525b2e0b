#pragma once

#include <vexel/framework.h>

#include <cstddef>
#include <string_view>

namespace Vexel::Storage {

struct NameBlock;

/// Makes strings that lie side by side in blocks of memory: an archive has as many names as items, and with a
/// block of the heap for each, getting those and giving them back would take longer than anything else that
/// is done to the names. A block lives as long as one of its strings or a copy of one. These may outlive the
/// pool; when they are changed, they move to the heap.
class NamePool {
public:
    NamePool() = default;
    NamePool(const NamePool&) = delete;
    NamePool& operator=(const NamePool&) = delete;
    ~NamePool();

    /// Throws std::bad_alloc, CMemoryException*.
    CString make(std::wstring_view text);

private:
    NameBlock* block_ = nullptr; // the one that is filled; the pool is one of its users
};

} // namespace Vexel::Storage
