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

Root findRoot(std::wstring_view path) {
    if (path.size() >= 2 && Detail::isSeparator(path[0]) && Detail::isSeparator(path[1]))
        return {L"\\\\", 2, 2};
    Root root;
    root.length = Detail::drivePrefixLength(path);
    root.text = path.substr(0, root.length);
    if (root.length < path.size() && Detail::isSeparator(path[root.length])) {
        root.text += L'\\';
        ++root.length;
    }
    return root;
}

void addElement(Elements& elements, std::wstring_view element, const Root& root) {
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

Elements splitElements(std::wstring_view path, const Root& root) {
    Elements elements;
    std::size_t start = root.length;
    for (std::size_t i = start; i <= path.size(); ++i) {
        if (i < path.size() && !Detail::isSeparator(path[i]))
            continue;
        addElement(elements, path.substr(start, i - start), root);
        start = i + 1;
    }
    return elements;
}

std::wstring canonical(std::wstring_view path) {
    // Behind the long-path prefix the system takes every character as it stands.
    if (path.empty() || Detail::protectedRootLength(path) == 4)
        return std::wstring(path);
    Root root = findRoot(path);
    const Elements elements = splitElements(path, root);
    // With nothing before it, such an element would become a drive.
    if (root.length == 0 && !elements.empty() && Detail::drivePrefixLength(elements.front()) != 0)
        root.text = L".\\";
    std::wstring result = std::move(root.text);
    for (std::size_t i = 0; i < elements.size(); ++i) {
        if (i != 0)
            result += L'\\';
        result += elements[i];
    }
    if (!elements.empty() && Detail::isSeparator(path.back()))
        result += L'\\';
    return result.empty() ? L"." : result;
}

} // namespace

std::wstring& CanonicalizeFileSystemPath(std::wstring* path) { return *path = canonical(*path); }

CString& CanonicalizeFileSystemPath(CString* path) {
    Detail::assign(*path, canonical(Detail::viewOf(*path)));
    return *path;
}

} // namespace Vexel
