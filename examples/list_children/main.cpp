// Lists what stands in the root of a document.
//
//   list_children.exe DOCUMENT
#include <vexel/diagnostics.h>
#include <vexel/framework.h>
#include <vexel/storage.h>

#include <cstdio>

namespace {

int fail(const CString& what, long status) {
    std::printf("%ls: 0x%08lx, application error %d\n", what.GetString(), static_cast<unsigned long>(status),
                VxHResultToVexelError(status));
    return 1;
}

int listChildren(const CString& path) {
    StorageRef document;
    long status = document.open(SharedPathName(path, false, false), RootStorageOpenMode::ReadOnly, false);
    if (FAILED(status))
        return fail(path, status);

    StorageEnumerator children;
    status = children.reset(document);
    if (FAILED(status))
        return fail(path, status);
    while (children.moveNext())
        std::printf("%-8s %10llu  %ls\n", children.type() == StorageType::Storage ? "storage" : "stream",
                    children.size().QuadPart, children.name().asString());
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::printf("usage: list_children DOCUMENT\n");
        return 2;
    }
    return listChildren(CString(argv[1]));
}
