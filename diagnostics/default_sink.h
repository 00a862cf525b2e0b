#pragma once

namespace Vexel::Detail {

/// Writes the message as one line of UTF-8, with the name of its level before it.
void writeToStandardError(int level, const wchar_t* message) noexcept;

} // namespace Vexel::Detail
