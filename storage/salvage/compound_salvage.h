#pragma once

#include "storage/compound/sector_reader.h"
#include "storage/salvage/salvage_output.h"

namespace Vexel::Detail::Salvage {

/// Salvages a compound file. Throws Ended, std::bad_alloc.
void salvageCompound(CompoundSource& source, Output& output);

} // namespace Vexel::Detail::Salvage
