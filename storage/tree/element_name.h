#pragma once

#include "paths/path_name_text.h"

namespace Vexel::Detail {

/// The name of an element, spelled exactly as given: a name interned without regard to case may come back in
/// the spelling of some other file's element, and one made canonical ("C:x", "\foo") in that of a path; which
/// is what would then be written.
inline SharedPathName elementName(std::wstring_view text) { return nameAsGiven(text); }
inline SharedPathName elementName(const wchar_t* text) {
    return nameAsGiven(text ? std::wstring_view(text) : std::wstring_view());
}
inline SharedPathName elementName(const CStringW& text) { return nameAsGiven(viewOf(text)); }

} // namespace Vexel::Detail
