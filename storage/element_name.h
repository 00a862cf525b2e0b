#pragma once

#include <vexel/framework.h>
#include <vexel/path_name.h>

#include <string_view>

namespace Vexel::Detail {

/// The name of an element, spelled exactly as given: a name interned without regard to case may come back in
/// the spelling of some other file's element, which is what would then be written.
inline SharedPathName elementName(std::wstring_view text) { return {text, true, false}; }
inline SharedPathName elementName(const wchar_t* text) { return {text, true, false}; }
inline SharedPathName elementName(const CStringW& text) { return {text, true, false}; }

} // namespace Vexel::Detail
