#pragma once

#include <windows.h>

#include <string>
#include <string_view>

namespace Vexel::Tool {

/// UTF-16 to UTF-8. A surrogate without its partner becomes U+FFFD, so the result is always valid.
std::string toUtf8(std::wstring_view text);

/// UTF-8 to UTF-16; malformed sequences become U+FFFD.
std::wstring toUtf16(std::string_view text);

/// ISO 8601 in UTC, with seven decimals when the time is not on a whole second; empty for the zero time,
/// which stands for "not set".
std::string toIso8601(const FILETIME& time);

/// Replaces control characters by "?", so that a name from outside cannot break a one-line message.
std::wstring onOneLine(std::wstring text);

} // namespace Vexel::Tool
