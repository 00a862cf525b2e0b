#pragma once

#include <cstdint>
#include <string_view>

namespace Vexel::Detail {

/// The number under which the table files a text: h = h * 33 + c over its code units, wrapping; folded to
/// lower case by the global locale unless `caseSensitive`. Stored with names in documents, so it must stay as
/// it is.
std::uint32_t pathNameHash(std::wstring_view text, bool caseSensitive);

} // namespace Vexel::Detail
