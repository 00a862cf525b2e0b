#pragma once

#include "base/text.h"

#include <vexel/path_name.h>

#include <string_view>

namespace Vexel::Detail {

/// The entry for `text`, which ends with a zero behind its last character and is made canonical first unless
/// it is relative; one reference for the caller. Null for an empty text.
SharedPathEntry* internText(std::wstring_view text, bool caseSensitive, bool caseSensitiveHash);

/// The same for a part of a text that is interned already: it stands as it is. Made canonical, a bare drive
/// would turn into its current directory.
SharedPathEntry* internPart(std::wstring_view part);

/// The name of a text that is no path of the file system, such as an element's in a document: with case, and
/// never made canonical ("C:x", "\foo" and the like are names as any other). A path name made with case of a
/// text that is canonical already is the same name.
SharedPathName nameAsGiven(std::wstring_view text);

} // namespace Vexel::Detail
