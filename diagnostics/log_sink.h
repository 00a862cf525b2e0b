#pragma once

namespace Vexel::Detail {

/// Whether the present sink takes messages of this level. Cheap, so that nobody formats for nothing.
bool logWanted(int level) noexcept;

/// Hands a message to the present sink.
void deliverToSink(int level, const wchar_t* message) noexcept;

} // namespace Vexel::Detail
