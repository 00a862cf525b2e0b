// Lists what stands in the root of a document.
//
//   list_children.exe DOCUMENT
#include <vexel/diagnostics.h>
#include <vexel/framework.h>
#include <vexel/storage.h>

#include <windows.h>

#include <cstdio>
#include <string>
#include <string_view>

namespace {

// Names are UTF-16. Consoles and pipes get UTF-8, so that names in any script come out.
std::string utf8(std::wstring_view wide) {
    std::string text(wide.size() * 3, '\0');
    const int size = WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), text.data(),
                                         static_cast<int>(text.size()), nullptr, nullptr);
    text.resize(static_cast<std::size_t>(size));
    return text;
}

int fail(const wchar_t* path, long status) {
    std::printf("%s: 0x%08lx, application error %d\n", utf8(path).c_str(), static_cast<unsigned long>(status),
                VxHResultToVexelError(status));
    return 1;
}

int listChildren(const wchar_t* path) {
    StorageRef document;
    long status = document.open(SharedPathName(path, false, false), RootStorageOpenMode::ReadOnly, false);
    if (status != S_OK)
        return fail(path, status);

    StorageEnumerator children;
    status = children.reset(document);
    if (status != S_OK)
        return fail(path, status);
    while (children.moveNext())
        std::printf("%-8s %10llu  %s\n", children.type() == StorageType::Storage ? "storage" : "stream",
                    children.size().QuadPart, utf8(children.name().asStringView()).c_str());
    // moveNext is false at the end, and also where the listing cannot go on: the status tells which.
    return children.status() == S_FALSE ? 0 : fail(path, children.status());
}

} // namespace

// NOLINTNEXTLINE(misc-use-internal-linkage): the entry point is called from outside.
int wmain(int count, wchar_t** arguments) {
    if (count != 2) {
        std::printf("usage: list_children DOCUMENT\n");
        return 2;
    }
    return listChildren(arguments[1]);
}
