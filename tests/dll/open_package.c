/* A C program that opens a structured file with the DLL, linked and by name, and lists what is in it. */
#define COBJMACROS
#include <vexel/open_package.h>

#include <shlwapi.h>

#include <shellapi.h>
#include <stdio.h>

typedef HRESULT (*OpenByPath)(IStorage** result, const wchar_t* path);
typedef HRESULT (*OpenStream)(IStorage** result, IStream* stream);

static int countElements(IStorage* storage) {
    IEnumSTATSTG* elements = NULL;
    STATSTG element;
    int count = 0;
    if (FAILED(IStorage_EnumElements(storage, 0, NULL, 0, &elements)))
        return -1;
    for (; IEnumSTATSTG_Next(elements, 1, &element, NULL) == S_OK; ++count)
        CoTaskMemFree(element.pwcsName);
    IEnumSTATSTG_Release(elements);
    return count;
}

static int openAndCount(OpenByPath open, const wchar_t* path) {
    IStorage* storage = NULL;
    int count = -1;
    if (SUCCEEDED(open(&storage, path))) {
        count = countElements(storage);
        IStorage_Release(storage);
    }
    return count;
}

static int openStreamAndCount(OpenStream open, const wchar_t* path) {
    IStream* stream = NULL;
    IStorage* storage = NULL;
    int count = -1;
    if (FAILED(SHCreateStreamOnFileEx(path, STGM_READ, 0, FALSE, NULL, &stream)))
        return -1;
    if (SUCCEEDED(open(&storage, stream))) {
        count = countElements(storage);
        IStorage_Release(storage);
    }
    IStream_Release(stream);
    return count;
}

int main(void) {
    int argc = 0;
    wchar_t** const argv = CommandLineToArgvW(GetCommandLineW(), &argc);
    const HMODULE library = LoadLibraryW(L"vexelstorage.dll");
    /* By way of void*: a cast between function types is what compilers warn of. */
    OpenByPath byPath = (OpenByPath)(void*)GetProcAddress(library, "OpenVexelPackage");
    OpenStream onStream = (OpenStream)(void*)GetProcAddress(library, "OpenVexelPackageStream");
    if (argc != 2 || !byPath || !onStream)
        return 1;
    printf("linked %d, loaded %d, stream %d\n", openAndCount(OpenVexelPackage, argv[1]),
           openAndCount(byPath, argv[1]), openStreamAndCount(onStream, argv[1]));
    return 0;
}
