// Opens a document with a DLL that is looked for while the program runs, and lists what is in its root. So
// the program starts where the DLL is missing, too.
//
//   load_at_run_time.exe DOCUMENT
//
// Two functions are exported under plain names for this. They give a document as COM's `IStorage`.
#include <vexel/open_package.h>

#include <windows.h>

#include <objidl.h>
#include <wrl/client.h>

#include <cstdio>
#include <memory>

namespace {

using Microsoft::WRL::ComPtr;

struct FreeTaskMemory {
    void operator()(void* memory) const noexcept { CoTaskMemFree(memory); }
};

// The function's type is taken from the header. Nothing is linked for that.
using Open = decltype(&OpenVexelPackage);

// The DLL is never let go of: interfaces that came from it run its code.
Open findFunction() {
    const HMODULE library = LoadLibraryW(L"vexelstorage.dll");
    if (!library)
        return nullptr;
    // By way of void*: a cast between function types is what compilers warn of.
    return reinterpret_cast<Open>(reinterpret_cast<void*>(GetProcAddress(library, "OpenVexelPackage")));
}

HRESULT list(IStorage& storage) {
    ComPtr<IEnumSTATSTG> elements;
    HRESULT status = storage.EnumElements(0, nullptr, 0, &elements);
    if (status != S_OK)
        return status;
    STATSTG element{};
    while ((status = elements->Next(1, &element, nullptr)) == S_OK) {
        // The name comes in memory that the caller frees.
        const std::unique_ptr<wchar_t, FreeTaskMemory> name(element.pwcsName);
        std::printf("%s %ls\n", element.type == STGTY_STORAGE ? "storage" : "stream", name.get());
    }
    return status == S_FALSE ? S_OK : status;
}

} // namespace

// NOLINTNEXTLINE(misc-use-internal-linkage): the entry point is called from outside.
int wmain(int count, wchar_t** arguments) {
    if (count != 2) {
        std::printf("usage: load_at_run_time DOCUMENT\n");
        return 2;
    }
    const Open open = findFunction();
    if (!open) {
        std::printf("there is no vexelstorage.dll: system error %lu\n", GetLastError());
        return 1;
    }
    ComPtr<IStorage> storage;
    HRESULT status = open(&storage, arguments[1]);
    if (status == S_OK)
        status = list(*storage.Get());
    if (status != S_OK) {
        std::printf("cannot list the document: 0x%08lx\n", static_cast<unsigned long>(status));
        return 1;
    }
    std::printf("done\n");
    return 0;
}
