// Copies a package into a new one without unpacking its streams and packing them again.
//
//   copy_packed.exe PACKAGE COPY
//
// COPY must not be there yet. Where packed bytes cannot be taken over, as those of a compound file, the same
// calls copy the contents, and the program says so.
#include <vexel/framework.h>
#include <vexel/storage.h>

#include <windows.h>

#include <cstdio>

namespace {

bool failed(long status, const char* what) {
    if (status == S_OK)
        return false;
    std::printf("cannot %s: 0x%08lx\n", what, static_cast<unsigned long>(status));
    return true;
}

SharedPathName pathOf(const wchar_t* text) { return {text, false, false}; }

unsigned long long fileSize(const wchar_t* path) {
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (!GetFileAttributesExW(path, GetFileExInfoStandard, &data))
        return 0;
    return (static_cast<unsigned long long>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

bool copy(const wchar_t* from, const wchar_t* to) {
    StorageRef source;
    if (failed(source.open(pathOf(from), RootStorageOpenMode::ReadOnlyDenyWrite, false), "open the package"))
        return false;

    // This makes a document in memory. The first commit makes its file.
    StorageRef target;
    if (failed(target.create(pathOf(to)), "create the copy"))
        return false;

    // The one step that makes the difference. It comes before the copy, while the new package has nothing in
    // a file of its own. The answer is 1, or 0 where there is nothing to borrow, or a failure.
    const bool borrows = source.format() == StorageFormat::Package && target.borrowPackedData(source) == 1;
    std::printf(borrows ? "taking over packed bytes\n" : "copying contents\n");

    // What cannot be copied is left out and makes the copy fail: only S_OK means that it is whole.
    if (failed(source.copyTo(target), "copy everything"))
        return false;
    // Until now the bytes were in the file of `source`, which has to be open up to here.
    return !failed(target.commit(), "save the copy");
}

} // namespace

// NOLINTNEXTLINE(misc-use-internal-linkage): the entry point is called from outside.
int wmain(int count, wchar_t** arguments) {
    if (count != 3) {
        std::printf("usage: copy_packed PACKAGE COPY\n");
        return 2;
    }
    // A new document replaces what stands at its path when it is committed, so look first.
    if (GetFileAttributesW(arguments[2]) != INVALID_FILE_ATTRIBUTES) {
        std::printf("there is such a file already\n");
        return 1;
    }
    if (!copy(arguments[1], arguments[2]))
        return 1;
    std::printf("%llu bytes became %llu\n", fileSize(arguments[1]), fileSize(arguments[2]));
    return 0;
}
