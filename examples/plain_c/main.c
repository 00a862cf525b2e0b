/* A C program that opens a structured file with the DLL, linked and by name, and lists what is in it. */
#define COBJMACROS
#include <vexel/open_package.h>

#include <shlwapi.h>

#include <shellapi.h>
#include <stdio.h>

typedef HRESULT (*OpenByPath)(IStorage** result, const wchar_t* path);
typedef HRESULT (*OpenStream)(IStorage** result, IStream* stream);

/* The elements of a storage that opening gave with this status; -1 if it gave none. Lets go of the storage.
 */
static int countElements(HRESULT opened, IStorage** storage) {
    IEnumSTATSTG* elements = NULL;
    STATSTG element;
    int count = -1;
    if (opened != S_OK)
        return -1;
    if (IStorage_EnumElements(*storage, 0, NULL, 0, &elements) == S_OK) {
        for (count = 0; IEnumSTATSTG_Next(elements, 1, &element, NULL) == S_OK; ++count)
            CoTaskMemFree(element.pwcsName);
        IEnumSTATSTG_Release(elements);
    }
    IStorage_Release(*storage);
    return count;
}

int main(void) {
    int argc = 0;
    wchar_t** const argv = CommandLineToArgvW(GetCommandLineW(), &argc);
    const HMODULE library = LoadLibraryW(L"vexelstorage.dll");
    /* By way of void*: a cast between function types is what compilers warn of. */
    OpenByPath byPath = (OpenByPath)(void*)GetProcAddress(library, "OpenVexelPackage");
    OpenStream onStream = (OpenStream)(void*)GetProcAddress(library, "OpenVexelPackageStream");
    IStorage* storage = NULL;
    IStream* stream = NULL;
    if (argc != 2) {
        printf("usage: plain_c DOCUMENT\n");
        return 2;
    }
    if (!byPath || !onStream ||
        SHCreateStreamOnFileEx(argv[1], STGM_READ, 0, FALSE, NULL, &stream) != S_OK)
        return 1;
    printf("linked %d, ", countElements(OpenVexelPackage(&storage, argv[1]), &storage));
    printf("loaded %d, ", countElements(byPath(&storage, argv[1]), &storage));
    printf("stream %d\n", countElements(onStream(&storage, stream), &storage));
    IStream_Release(stream);
    return 0;
}
