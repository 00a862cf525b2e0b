#pragma once

#include "base/text.h"

#include <vexel/archive.h>

#include <string_view>

/// Rules of item paths, which are elements joined by "/".
namespace Vexel::Storage {

using Detail::joined;
using Detail::stringOf;

/// Whether the path may name an item at all.
inline bool isItemPath(std::wstring_view path) noexcept { return !path.empty() && !path.starts_with(L'/'); }

/// Whether a new item may have that path: each of its elements is one.
inline bool isNewItemPath(std::wstring_view path) noexcept {
    return isItemPath(path) && !path.ends_with(L'/') && path.find(L"//") == std::wstring_view::npos;
}

/// Whether `path` names something below `directory`; everything is below the root.
inline bool isInside(std::wstring_view directory, std::wstring_view path) noexcept {
    return directory.empty() || (path.size() > directory.size() && path[directory.size()] == L'/' &&
                                 StringLess::commonLength(directory, path) == directory.size());
}

/// Whether `path` is that of an element of `directory` itself: then `parentOf` it is `directory`.
inline bool isChild(std::wstring_view directory, std::wstring_view path) noexcept {
    const std::size_t element = directory.empty() ? 0 : directory.size() + 1;
    return isInside(directory, path) && path.find(L'/', element) == std::wstring_view::npos;
}

/// Empty for an element at the root.
inline std::wstring_view parentOf(std::wstring_view path) noexcept {
    const std::size_t end = path.rfind(L'/');
    return end == std::wstring_view::npos ? std::wstring_view() : path.substr(0, end);
}

inline std::wstring_view lastElement(std::wstring_view path) noexcept {
    return path.substr(path.rfind(L'/') + 1); // npos + 1 is 0
}

} // namespace Vexel::Storage
