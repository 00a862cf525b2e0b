/* Keeps out of a process's end what is neither the library's nor the client's: a thread that the end stops in
 * the middle leaves locks of the system and of the compiler's runtime behind, too, and both wait for some of
 * them. */
#include <windows.h>

#include <malloc.h>

typedef LONG(NTAPI* LockLoader)(ULONG flags, ULONG* result, ULONG_PTR* cookie);

static UINT exitCode;

/* To be called last. No other thread can be in the heaps from here on: Windows, when it ends the others, sees
 * to that for the process's own heap, Wine does not. The loader's lock comes first, for the end of the
 * process takes it, too.
 *
 * This DLL is loaded after the compiler's runtime and before the library, so let go of after the library and
 * before the runtime: the process ends then, with `code`. The runtime's own DLL (libstdc++ on winpthreads)
 * would wait for a lock that threads take while they start and end. */
__declspec(dllexport) void prepareEnd(UINT code) {
    ULONG result = 0;
    ULONG_PTR cookie = 0;
    const LockLoader lockLoader =
        (LockLoader)(void*)GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "LdrLockLoaderLock");
    if (lockLoader && lockLoader(0, &result, &cookie) >= 0 && HeapLock(GetProcessHeap()) &&
        HeapLock((HANDLE)_get_heap_handle()))
        exitCode = code;
}

BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, void* processEnds) {
    (void)module;
    if (reason == DLL_PROCESS_DETACH && processEnds && exitCode != 0)
        TerminateProcess(GetCurrentProcess(), exitCode);
    return TRUE;
}
