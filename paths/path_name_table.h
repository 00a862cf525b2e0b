#pragma once

#include <vexel/path_name.h>

#include <cstdint>
#include <string_view>

namespace Vexel::Detail {

/// The number under which the table files a text: h = h * 33 + c over its code units, folded to lower case by
/// the global locale unless `caseSensitive`. Stored with names in documents, so it must stay as it is.
std::uint32_t pathNameHash(std::wstring_view text, bool caseSensitive);

/// The entry of `text` under `hash`, found or made, with one reference for the caller.
SharedPathEntry* internPathName(std::wstring_view text, std::uint32_t hash, bool caseSensitive);

/// Drops one reference, and the entry with the last one.
void releasePathName(SharedPathEntry* entry) noexcept;

} // namespace Vexel::Detail
