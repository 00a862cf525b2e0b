// Parts of a path by its text alone: what counts as a separator, a drive, a file name and an extension for
// the functions of paths.h is defined here, once.

#include "paths/path_text.h"

#include "base/text.h"

#include <vexel/paths.h>

#include <algorithm>
#include <climits>
#include <cwchar>
#include <iterator>
#include <stdexcept>

namespace Vexel {

namespace {

constexpr std::size_t kNoExtension = std::wstring_view::npos;

/// Where the dot of the extension of `name` stands; `name` is a file-name part alone.
std::size_t findExtensionInName(std::wstring_view name) noexcept {
    if (name == L"." || name == L"..")
        return kNoExtension;
    const std::size_t dot = name.rfind(L'.');
    if (dot == std::wstring_view::npos || dot == 0)
        return kNoExtension;
    return name.find(L' ', dot) == std::wstring_view::npos ? dot : kNoExtension;
}

/// `path` with its extension changed, as a new text: `extension` may lie inside the old one.
std::wstring withNewExtension(std::wstring_view path, std::wstring_view extension) {
    if (extension.starts_with(L'.'))
        extension.remove_prefix(1);

    const std::size_t dot = FindFileExtension(path);
    if (dot == kNoExtension && extension.empty())
        return std::wstring(path);

    std::wstring result;
    result.reserve(path.size() + extension.size() + 1);
    // The dot of an extension stays even when nothing follows it any more: "a.txt" becomes "a.".
    result += dot == kNoExtension ? path : path.substr(0, dot);
    result += L'.';
    result += extension;
    return result;
}

/// Whether `name` begins as that of a device, such as "NUL", "com1.txt" or "CONIN$". Some others do, too,
/// which does no harm.
bool isLikeDevice(std::wstring_view name) noexcept {
    constexpr std::wstring_view kDevices[] = {L"con", L"prn", L"aux", L"nul", L"com", L"lpt"};
    const auto matches = [name](std::wstring_view device) {
        return std::equal(device.begin(), device.end(), name.begin(),
                          [](wchar_t wanted, wchar_t unit) { return (unit | 0x20) == wanted; });
    };
    if (name.size() < 3)
        return false;
    const wchar_t next = name.size() > 3 ? static_cast<wchar_t>(name[3] | 0x20) : L'\0';
    const bool isLonger = next >= L'a' && next <= L'z' && next != L'i' && next != L'o'; // as "Common" is
    return !isLonger && std::any_of(std::begin(kDevices), std::end(kDevices), matches);
}

/// Whether an element stays as it is wherever it stands. The system takes dots and blanks off the end.
bool isSurelyKept(std::wstring_view element) noexcept {
    return !element.empty() && element.back() != L'.' && element.back() != L' ' && !isLikeDevice(element);
}

} // namespace

std::size_t Detail::drivePrefixLength(std::wstring_view path) noexcept {
    return path.size() >= 2 && path[1] == L':' && isDriveLetter(path[0]) ? 2 : 0;
}

std::size_t Detail::protectedRootLength(std::wstring_view path) noexcept {
    if (path.size() < 2 || !isSeparator(path[0]) || !isSeparator(path[1]))
        return 1;
    const bool longPathPrefix = path.size() >= 4 && path[2] == L'?' && isSeparator(path[3]);
    return longPathPrefix ? 4 : 2;
}

bool Detail::isSurelyCanonical(std::wstring_view path) noexcept {
    constexpr std::size_t kRootLength = 3;
    // Some systems write the letter of the drive large.
    if (path.size() < kRootLength || path[0] < L'A' || path[0] > L'Z' || path[1] != L':' || path[2] != L'\\')
        return false;
    std::size_t start = kRootLength;
    for (std::size_t i = start; i < path.size(); ++i) { // by hand, see FindFileName
        const wchar_t unit = path[i];
        if (unit < L' ' || unit == L'/' || unit == L':')
            return false;
        if (unit != L'\\')
            continue;
        if (!isSurelyKept(path.substr(start, i - start)))
            return false;
        start = i + 1;
    }
    return start == path.size() || isSurelyKept(path.substr(start));
}

std::size_t FindFileName(std::wstring_view path, bool ignoreTrailingSeparators) {
    if (ignoreTrailingSeparators)
        path = RemoveTrailingPathSeparators(path);
    // By hand: every path that is interned comes by here, and find_last_of takes five times as long.
    std::size_t start = path.size();
    while (start > 0 && !Detail::isSeparator(path[start - 1]))
        --start;
    return start > 0 ? start : Detail::drivePrefixLength(path);
}

std::wstring_view GetFileName(std::wstring_view path, bool withExtension) {
    const std::wstring_view name = path.substr(FindFileName(path, false));
    // With no extension its index is the largest size, and the cut keeps the whole name.
    return withExtension ? name : name.substr(0, findExtensionInName(name));
}

std::size_t FindFileExtension(std::wstring_view path) {
    const std::size_t nameStart = FindFileName(path, false);
    const std::size_t dot = findExtensionInName(path.substr(nameStart));
    return dot == kNoExtension ? kNoExtension : nameStart + dot;
}

std::wstring_view GetFileExtension(std::wstring_view path, bool withDot) {
    const std::size_t dot = FindFileExtension(path);
    if (dot == kNoExtension)
        return {};
    return path.substr(withDot ? dot : dot + 1);
}

bool IsSubPath(std::wstring_view path, std::wstring_view base) {
    // Only one separator: a base written with two stands for no directory that a path could name.
    if (!base.empty() && Detail::isSeparator(base.back()))
        base.remove_suffix(1);
    if (path.size() <= base.size() || !Detail::isSeparator(path[base.size()]))
        return false;
    return base.empty() || _wcsnicmp(path.data(), base.data(), base.size()) == 0;
}

std::wstring_view RemoveTrailingPathSeparators(std::wstring_view path) {
    const std::size_t shortest = Detail::protectedRootLength(path);
    while (path.size() > shortest && Detail::isSeparator(path.back()))
        path.remove_suffix(1);
    return path;
}

CString& RemoveTrailingPathSeparators(CString* path) {
    path->Truncate(static_cast<int>(RemoveTrailingPathSeparators(Detail::viewOf(*path)).size()));
    return *path;
}

std::wstring& RemoveTrailingPathSeparators(std::wstring* path) {
    path->resize(RemoveTrailingPathSeparators(std::wstring_view(*path)).size());
    return *path;
}

std::wstring& ChangeFileExtension(std::wstring* path, std::wstring_view extension) {
    return *path = withNewExtension(*path, extension);
}

CString& ChangeFileExtension(CString* path, std::wstring_view extension) {
    const std::wstring changed = withNewExtension(Detail::viewOf(*path), extension);
    Detail::assign(*path, changed);
    return *path;
}

CString ConvertFileSystemPath(const std::filesystem::path& path) {
    const std::wstring& text = path.native();
    if (text.size() >= INT_MAX)
        throw std::length_error("the path is too long for a string");
    return Detail::stringOf(text);
}

} // namespace Vexel
