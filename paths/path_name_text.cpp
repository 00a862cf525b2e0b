// From a text to its entry.

#include "paths/path_name_text.h"

#include "base/text.h"
#include "paths/path_name_hash.h"
#include "paths/path_name_table.h"
#include "paths/path_text.h"

#include <vexel/paths.h>

#include <windows.h>

#include <shlwapi.h>

#include <algorithm>
#include <climits>
#include <cwchar>

namespace Vexel::Detail {

namespace {

// A copy with a zero at its end: on the stack, unless it is long.
class TerminatedCopy {
public:
    explicit TerminatedCopy(std::wstring_view text) : view_(small_, text.size()) {
        if (text.size() < MAX_PATH) {
            *std::copy(text.begin(), text.end(), small_) = 0;
            return;
        }
        if (text.size() > INT_MAX)
            AfxThrowMemoryException();
        assign(large_, text);
        view_ = viewOf(large_);
    }

    std::wstring_view view() const noexcept { return view_; }

private:
    wchar_t small_[MAX_PATH];
    CString large_;
    std::wstring_view view_;
};

// The system's canonical form of a path; the path itself when the system has none.
class CanonicalPath {
public:
    explicit CanonicalPath(std::wstring_view path) : view_(path) {
        wchar_t* buffer = small_;
        DWORD capacity = MAX_PATH;
        DWORD length = GetFullPathNameW(path.data(), capacity, buffer, nullptr);
        while (length >= capacity) { // and again, should the current directory grow in between
            capacity = length + 1;
            buffer = large_.GetBuffer(static_cast<int>(capacity));
            length = GetFullPathNameW(path.data(), capacity, buffer, nullptr);
        }
        if (length != 0)
            view_ = {buffer, length};
    }

    std::wstring_view view() const noexcept { return view_; }

private:
    wchar_t small_[MAX_PATH];
    CString large_; // only its buffer is used
    std::wstring_view view_;
};

SharedPathEntry* internAbsolute(std::wstring_view path, bool caseSensitive, bool caseSensitiveHash) {
    return internPathName(path, pathNameHash(GetFileName(path, true), caseSensitiveHash), caseSensitive);
}

SharedPathEntry* internRelative(std::wstring_view text, bool caseSensitive, bool caseSensitiveHash) {
    return internPathName(text, pathNameHash(text, caseSensitiveHash), caseSensitive);
}

SharedPathEntry* internAsItStands(std::wstring_view text, bool caseSensitive) {
    if (text.empty())
        return nullptr;
    const bool relative = PathIsRelativeW(TerminatedCopy(text).view().data()) != FALSE;
    return relative ? internRelative(text, caseSensitive, false) : internAbsolute(text, caseSensitive, false);
}

} // namespace

SharedPathEntry* internText(std::wstring_view text, bool caseSensitive, bool caseSensitiveHash) {
    if (text.empty())
        return nullptr;
    if (isSurelyCanonical(text)) // as nearly all are; asking the system takes most of the time of the others
        return internAbsolute(text, caseSensitive, caseSensitiveHash);
    if (PathIsRelativeW(text.data()))
        return internRelative(text, caseSensitive, caseSensitiveHash);
    return internAbsolute(CanonicalPath(text).view(), caseSensitive, caseSensitiveHash);
}

SharedPathEntry* internPart(std::wstring_view part) { return internAsItStands(part, false); }

SharedPathName nameAsGiven(std::wstring_view text) { return SharedPathName(internAsItStands(text, true)); }

} // namespace Vexel::Detail

using Vexel::Detail::internText;
using Vexel::Detail::viewOf;

SharedPathName::SharedPathName(const wchar_t* text, bool caseSensitive, bool caseSensitiveHash)
    : entry_(internText(text ? text : L"", caseSensitive, caseSensitiveHash)) {}

SharedPathName::SharedPathName(const CString& text, bool caseSensitive, bool caseSensitiveHash)
    : entry_(internText(viewOf(text), caseSensitive, caseSensitiveHash)) {}

SharedPathName::SharedPathName(std::wstring_view text, bool caseSensitive, bool caseSensitiveHash)
    : entry_(internText(Vexel::Detail::TerminatedCopy(text).view(), caseSensitive, caseSensitiveHash)) {}
