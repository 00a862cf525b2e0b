#pragma once

#include "archive/engine_api.h"
#include "archive/pack_ahead.h"

#include <vector>

namespace Vexel::Storage::Engine {

/// Puts the items, which are numbered by their places in `list`, into the order in which an update with that
/// list will ask for them. Leaves none when that cannot be told. Throws std::bad_alloc, and what the engine
/// does.
void putIntoPackingOrder(std::vector<PackAhead::Item>& items,
                         const CObjectVector<NArchive::N7z::CUpdateItem>& list);

} // namespace Vexel::Storage::Engine
