#pragma once

#include "storage/storage_item.h"

#include <memory>

namespace Vexel::Detail {

/// A closed package root for the file at `path`, which need not be there; without a path for a temporary
/// root. Opening and creating it judge the file:
///  - the storage facility's code (STG_E_FILENOTFOUND, STG_E_SHAREVIOLATION, ...): it cannot be read;
///  - STG_E_INVALIDHEADER: it is no 7z archive, which lets the container try a compound file;
///  - STG_E_UNIMPLEMENTEDFUNCTION: it is one, or would be made: this build has no package format.
std::unique_ptr<VxStorage> newPackageRoot(const SharedPathName& path);

} // namespace Vexel::Detail
