// Prints everything that is in a document, as an indented list, and counts it.
//
//   walk_tree.exe DOCUMENT
//
// The document may be a package or a compound file: the handles hide the difference.
#include <vexel/framework.h>
#include <vexel/storage.h>

#include <windows.h>

#include <cstdio>
#include <string>

namespace {

struct Totals {
    int storages = 0;
    int streams = 0;
    unsigned long long bytes = 0;
};

// Names are UTF-16. Consoles and pipes get UTF-8, so that names in any script come out.
std::string utf8(const SharedPathName& name) {
    const std::wstring_view wide = name;
    const int length = static_cast<int>(wide.size());
    std::string text(wide.size() * 3, '\0');
    const int size = WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, text.data(),
                                         static_cast<int>(text.size()), nullptr, nullptr);
    text.resize(static_cast<std::size_t>(size));
    return text;
}

long walk(const StorageRef& storage, int depth, Totals& totals);

// Tells of one child. What is in a storage comes behind it, two columns further to the right.
// NOLINTNEXTLINE(misc-no-recursion): the library opens nothing that is too deep.
long visit(const StorageEnumerator& child, const StorageRef& parent, int depth, Totals& totals) {
    std::printf("%*s%s", depth * 2, "", utf8(child.name()).c_str());
    if (child.type() == StorageType::Stream) {
        std::printf("  %llu\n", child.size().QuadPart);
        ++totals.streams;
        totals.bytes += child.size().QuadPart;
        return S_OK;
    }
    std::printf("/\n");
    ++totals.storages;
    // A child is opened by its name in the handle of its parent. The last argument asks for reading only.
    StorageRef storage;
    const long status = storage.open(child.name(), parent, true);
    return status == S_OK ? walk(storage, depth + 1, totals) : status;
}

// Damaged documents can contain themselves. That needs no care here: beyond 512 levels nothing opens.
// NOLINTNEXTLINE(misc-no-recursion): the library opens nothing that is too deep.
long walk(const StorageRef& storage, int depth, Totals& totals) {
    StorageEnumerator child;
    if (const long status = child.reset(storage); status != S_OK)
        return status;
    while (child.moveNext())
        if (const long status = visit(child, storage, depth, totals); status != S_OK)
            return status;
    // moveNext is false at the end, and also where the listing cannot go on: the status tells which.
    return child.status() == S_FALSE ? S_OK : child.status();
}

} // namespace

// NOLINTNEXTLINE(misc-use-internal-linkage): the entry point is called from outside.
int wmain(int count, wchar_t** arguments) {
    if (count != 2) {
        std::printf("usage: walk_tree DOCUMENT\n");
        return 2;
    }
    // The path is made canonical and compared without regard to case, as files are.
    StorageRef document;
    long status =
        document.open(SharedPathName(arguments[1], false, false), RootStorageOpenMode::ReadOnly, false);
    Totals totals;
    if (status == S_OK)
        status = walk(document, 0, totals);
    if (status != S_OK) {
        std::printf("cannot read the document: 0x%08lx\n", static_cast<unsigned long>(status));
        return 1;
    }
    std::printf("%d storages, %d streams, %llu bytes\n", totals.storages, totals.streams, totals.bytes);
    return 0;
}
