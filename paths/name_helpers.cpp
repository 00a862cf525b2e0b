// Helpers of older code, which documents and applications rely on as they are. What counts as an extension
// differs here from the functions of paths.h: it is the shell's definition.

#include "base/text.h"

#include <vexel/paths.h>

#include <shlwapi.h>

#include <string_view>

int VxwNameHasExt(const CString& name) {
    return *PathFindExtensionW(name.GetString()) != L'\0' ? TRUE : FALSE;
}

int VxwAddExt(CString& name, const wchar_t* extension) {
    if (!VxwNameHasExt(name))
        name += extension;
    return TRUE;
}

int VxwReplaceExt(CString& name, const wchar_t* extension) {
    const CString appended(extension); // before the cut: it may point into the name
    if (VxwNameHasExt(name))
        name.Truncate(name.ReverseFind(L'.'));
    name += appended;
    return TRUE;
}

int VxwIsThisAPath(const CString& text) {
    const std::wstring_view view = Vexel::Detail::viewOf(text);
    constexpr std::size_t kNowhere = std::wstring_view::npos;
    if (view.empty() || view.find_first_of(L"*?\"<>|") != kNowhere)
        return FALSE;
    // A network path starts with two backslashes; further in, a doubled separator is a slip.
    if (view.find(L"\\\\", 1) != kNowhere || view.find(L"//") != kNowhere)
        return FALSE;
    // Only a drive's colon is part of a path.
    const bool strayColon = view[0] == L':' || view.find(L':', 2) != kNowhere;
    return strayColon ? FALSE : TRUE;
}
