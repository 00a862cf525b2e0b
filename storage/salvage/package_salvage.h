#pragma once

#include "storage/salvage/salvage_output.h"

#include <vexel/salvage.h>

namespace Vexel::Detail::Salvage {

/// Salvages a package: by its header, if that is there or can be found, else by its packed streams. Throws
/// Ended, std::bad_alloc.
void salvagePackage(SalvageSource& source, Output& output);

} // namespace Vexel::Detail::Salvage
