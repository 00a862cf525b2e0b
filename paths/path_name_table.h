#pragma once

#include <vexel/path_name.h>

#include <cstdint>
#include <string_view>

namespace Vexel::Detail {

/// The entry of `text` under `hash`, found or made, with one reference for the caller. Exhausted memory
/// throws the framework's memory exception and leaves the table as it was.
SharedPathEntry* internPathName(std::wstring_view text, std::uint32_t hash, bool caseSensitive);

/// Destroys an entry of this hash whose count fell to 0, unless another thread has taken it up again or
/// destroyed it since.
void destroyUnusedEntry(const SharedPathEntry* entry, std::uint32_t hash) noexcept;

} // namespace Vexel::Detail
