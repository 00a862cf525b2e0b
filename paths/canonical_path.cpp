// The system's own functions ask the current directory or look at the disk; this goes by the text alone. A
// path is taken apart into its root, which nothing changes, and its elements, of which the plain ones are
// joined again.

#include "base/text.h"
#include "paths/path_text.h"

#include <vexel/paths.h>

#include <vector>

namespace Vexel {

namespace {

using Elements = std::vector<std::wstring_view>;

/// What stands before the elements of a path, in its canonical spelling, and how much of the path it takes.
struct Root {
    std::wstring text;
    std::size_t length = 0;
    std::size_t fixedElements = 0; ///< server and share, which nothing removes
};

Root FindRoot(std::wstring_view path) {
    if (path.size() >= 2 && Detail::IsSeparator(path[0]) && Detail::IsSeparator(path[1]))
        return {L"\\\\", 2, 2};
    Root root;
    root.length = Detail::DrivePrefixLength(path);
    root.text = path.substr(0, root.length);
    if (root.length < path.size() && Detail::IsSeparator(path[root.length])) {
        root.text += L'\\';
        ++root.length;
    }
    return root;
}

void AddElement(Elements& elements, std::wstring_view element, const Root& root) {
    if (element.empty())
        return;
    if (elements.size() >= root.fixedElements) {
        if (element == L".")
            return;
        const bool anchored = root.text.ends_with(L'\\');
        const bool removable = elements.size() > root.fixedElements && elements.back() != L"..";
        if (element == L".." && removable)
            elements.pop_back();
        if (element == L".." && (removable || anchored))
            return;
    }
    elements.push_back(element);
}

Elements SplitElements(std::wstring_view path, const Root& root) {
    Elements elements;
    std::size_t start = root.length;
    for (std::size_t i = start; i <= path.size(); ++i) {
        if (i < path.size() && !Detail::IsSeparator(path[i]))
            continue;
        AddElement(elements, path.substr(start, i - start), root);
        start = i + 1;
    }
    return elements;
}

std::wstring Canonical(std::wstring_view path) {
    // Behind the long-path prefix the system takes every character as it stands.
    if (path.empty() || Detail::ProtectedRootLength(path) == 4)
        return std::wstring(path);
    Root root = FindRoot(path);
    const Elements elements = SplitElements(path, root);
    // With nothing before it, such an element would become a drive.
    if (root.length == 0 && !elements.empty() && Detail::DrivePrefixLength(elements.front()) != 0)
        root.text = L".\\";
    std::wstring result = std::move(root.text);
    for (std::size_t i = 0; i < elements.size(); ++i) {
        if (i != 0)
            result += L'\\';
        result += elements[i];
    }
    if (!elements.empty() && Detail::IsSeparator(path.back()))
        result += L'\\';
    return result.empty() ? L"." : result;
}

} // namespace

std::wstring& CanonicalizeFileSystemPath(std::wstring* path) { return *path = Canonical(*path); }

CString& CanonicalizeFileSystemPath(CString* path) {
    Detail::assign(*path, Canonical(Detail::viewOf(*path)));
    return *path;
}

} // namespace Vexel
