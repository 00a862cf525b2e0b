#pragma once

#include "storage/compound/sector_reader.h"
#include "storage/salvage/chain_table.h"
#include "storage/salvage/salvage_output.h"

#include <cstdint>
#include <span>

namespace Vexel::Detail::Salvage {

/// The allocation table of a file as far as it can be found: where the header and the DIFAT say, and, if that
/// leaves gaps, wherever in the file there is a sector that can only be a part of it. The sectors of the
/// table belong to ChainTable::kTables then.
ChainTable loadAllocation(Compound::SectorReader& reader, const Compound::Header& header, Output& output);

/// Whether the bytes can be a sector of a table: half of its numbers at least are marks, or sectors that do
/// not repeat.
bool looksLikeTable(std::span<const std::byte> bytes, std::uint32_t sectors);

/// Appends to `table`, from its number `first` on, what a sector of a table says.
void readLinks(std::span<const std::byte> bytes, std::uint32_t first, ChainTable& table);

} // namespace Vexel::Detail::Salvage
