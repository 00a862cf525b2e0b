#pragma once

#include "storage/tree/storage_item.h"

#include <functional>
#include <memory>

namespace Vexel::Detail {

/// Opens or creates a root: the call to make.
using RootOperation = std::function<long(VxStorage& root)>;

struct NewRoot {
    const SharedPathName& path;
    bool keyed;
    RootKeeper& keeper;
};

/// A root for the file, on which `operation` succeeded; null when it failed. A file is taken for a package
/// first. If it turns out to be none, or cannot be read as one, and the system knows it as a compound file,
/// the operation is run on a compound-file root.
std::unique_ptr<VxStorage> makeRoot(const NewRoot& wanted, const RootOperation& operation, long& status);

} // namespace Vexel::Detail
