// The rest of the platform: memory whose bounds the sanitizer knows to the byte, threads, the records of
// properties, and the table of the seam. Files are in files.cpp.

#include "base/platform.h"

#include <vexel/diagnostics.h>

#include <windows.h>

#include <oleauto.h>
#include <sanitizer/asan_interface.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

namespace {

thread_local DWORD lastErrorCode = 0;
std::mutex onceMutex;

} // namespace

extern "C" {

DWORD GetLastError() { return lastErrorCode; }
void SetLastError(DWORD error) { lastErrorCode = error; }
DWORD GetCurrentProcessId() { return 4711; }
DWORD GetTickCount() { return 0; }

void GetSystemInfo(SYSTEM_INFO* system) { *system = {4096, 2}; }
void GetNativeSystemInfo(SYSTEM_INFO* system) { GetSystemInfo(system); }

BOOL InitOnceBeginInitialize(INIT_ONCE* once, DWORD flags, BOOL* pending, void**) {
    onceMutex.lock();
    *pending = once->state == 0;
    if (!*pending || flags != 0)
        onceMutex.unlock();
    return !*pending || flags == 0;
}

BOOL InitOnceComplete(INIT_ONCE* once, DWORD, void*) {
    once->state = 1;
    onceMutex.unlock();
    return TRUE;
}

void AcquireSRWLockExclusive(SRWLOCK* lock) { pthread_mutex_lock(&lock->mutex); }
void ReleaseSRWLockExclusive(SRWLOCK* lock) { pthread_mutex_unlock(&lock->mutex); }
BOOL SleepConditionVariableSRW(CONDITION_VARIABLE* variable, SRWLOCK* lock, DWORD, ULONG) {
    return pthread_cond_wait(&variable->condition, &lock->mutex) == 0;
}
void WakeAllConditionVariable(CONDITION_VARIABLE* variable) { pthread_cond_broadcast(&variable->condition); }

// What is only reserved is not to be touched.
void* VirtualAlloc(void* address, SIZE_T size, DWORD type, DWORD) {
    void* const pages = address ? address : std::malloc(size);
    if (!pages)
        return nullptr;
    if (type == MEM_RESERVE)
        ASAN_POISON_MEMORY_REGION(pages, size);
    else
        ASAN_UNPOISON_MEMORY_REGION(pages, size);
    return pages;
}

BOOL VirtualFree(void* address, SIZE_T size, DWORD type) {
    if (type == MEM_RELEASE)
        std::free(address);
    else
        ASAN_POISON_MEMORY_REGION(address, size);
    return TRUE;
}

void* CoTaskMemAlloc(SIZE_T size) { return std::malloc(size); }
void CoTaskMemFree(void* memory) { std::free(memory); }

LONG CompareFileTime(const FILETIME* a, const FILETIME* b) {
    const auto number = [](const FILETIME& time) {
        return static_cast<std::uint64_t>(time.dwHighDateTime) << 32 | time.dwLowDateTime;
    };
    return number(*a) < number(*b) ? -1 : number(*a) > number(*b) ? 1 : 0;
}
BOOL FileTimeToLocalFileTime(const FILETIME* time, FILETIME* local) {
    *local = *time;
    return TRUE;
}
BOOL LocalFileTimeToFileTime(const FILETIME* local, FILETIME* time) {
    return FileTimeToLocalFileTime(local, time);
}

// Nothing that the targets reach is formatted.
int _vscwprintf(const wchar_t*, va_list) { std::abort(); }
int _vsnwprintf(wchar_t*, size_t, const wchar_t*, va_list) { std::abort(); }

void Sleep(DWORD) {}
DWORD GetCurrentThreadId() { return 1; }
HANDLE GetCurrentProcess() { return nullptr; }
BOOL GetProcessTimes(HANDLE, FILETIME* creation, FILETIME*, FILETIME*, FILETIME*) {
    *creation = {3, 3};
    return TRUE;
}
BOOL GetModuleHandleExW(DWORD, const wchar_t*, HMODULE* module) {
    *module = nullptr;
    return TRUE;
}
DWORD GetTempPathW(DWORD room, wchar_t* path) {
    constexpr wchar_t kPath[] = L"C:\\Temp\\";
    if (room >= sizeof kPath / sizeof *kPath)
        wmemcpy(path, kPath, sizeof kPath / sizeof *kPath);
    return sizeof kPath / sizeof *kPath - (room >= sizeof kPath / sizeof *kPath);
}
void GetSystemTimeAsFileTime(FILETIME* time) { *time = {2, 2}; }

BSTR SysAllocStringByteLen(LPCSTR bytes, UINT size) {
    auto* const block = static_cast<char*>(std::calloc(1, sizeof(UINT) + size + sizeof(OLECHAR)));
    if (!block)
        return nullptr;
    std::memcpy(block, &size, sizeof size);
    if (bytes)
        std::memcpy(block + sizeof size, bytes, size);
    return reinterpret_cast<BSTR>(block + sizeof size);
}
BSTR SysAllocStringLen(const OLECHAR* text, UINT length) {
    return SysAllocStringByteLen(reinterpret_cast<LPCSTR>(text), length * 2);
}
BSTR SysAllocString(const OLECHAR* text) { return SysAllocStringLen(text, static_cast<UINT>(wcslen(text))); }
void SysFreeString(BSTR text) {
    if (text)
        std::free(reinterpret_cast<char*>(text) - sizeof(UINT));
}
UINT SysStringByteLen(BSTR text) {
    UINT size = 0;
    if (text)
        std::memcpy(&size, reinterpret_cast<char*>(text) - sizeof size, sizeof size);
    return size;
}
UINT SysStringLen(BSTR text) { return SysStringByteLen(text) / 2; }

HRESULT VariantClear(VARIANTARG* value) { return PropVariantClear(value); }
HRESULT VariantCopy(VARIANTARG* target, const VARIANTARG* source) { return PropVariantCopy(target, source); }

HRESULT PropVariantClear(PROPVARIANT* value) {
    const auto freeEach = [](auto& array, auto release) {
        for (ULONG i = 0; i < array.cElems; ++i)
            release(array.pElems[i]);
        CoTaskMemFree(array.pElems);
    };
    switch (value->vt) {
    case VT_LPSTR:
    case VT_LPWSTR:
    case VT_CLSID:
        CoTaskMemFree(value->pszVal);
        break;
    case VT_BSTR:
        SysFreeString(value->bstrVal);
        break;
    case VT_BLOB:
    case VT_BLOB_OBJECT:
        CoTaskMemFree(value->blob.pBlobData);
        break;
    case VT_CF:
        if (value->pclipdata)
            CoTaskMemFree(value->pclipdata->pClipData);
        CoTaskMemFree(value->pclipdata);
        break;
    case VT_VECTOR | VT_LPSTR:
    case VT_VECTOR | VT_LPWSTR:
        freeEach(value->calpstr, [](LPSTR text) { CoTaskMemFree(text); });
        break;
    case VT_VECTOR | VT_BSTR:
        freeEach(value->cabstr, [](BSTR text) { SysFreeString(text); });
        break;
    case VT_VECTOR | VT_VARIANT:
        freeEach(value->capropvar, [](PROPVARIANT& element) { PropVariantClear(&element); });
        break;
    default:
        if ((value->vt & VT_VECTOR) != 0)
            CoTaskMemFree(value->caub.pElems);
    }
    PropVariantInit(value);
    return S_OK;
}

// Of plain values and texts.
HRESULT PropVariantCopy(PROPVARIANT* target, const PROPVARIANT* source) {
    *target = *source;
    if (source->vt == VT_BSTR) {
        target->bstrVal = SysAllocStringByteLen(reinterpret_cast<LPCSTR>(source->bstrVal),
                                                SysStringByteLen(source->bstrVal));
        return S_OK;
    }
    if (source->vt == VT_LPWSTR || source->vt == VT_LPSTR) {
        const std::size_t size =
            source->vt == VT_LPSTR ? strlen(source->pszVal) + 1 : (wcslen(source->pwszVal) + 1) * 2;
        target->pszVal = static_cast<LPSTR>(std::memcpy(CoTaskMemAlloc(size), source->pszVal, size));
        return S_OK;
    }
    if (source->vt <= VT_UINT || source->vt == VT_FILETIME)
        return S_OK;
    PropVariantInit(target);
    return E_INVALIDARG;
}

} // extern "C"

void VxLog_Write(int, const char*, ...) noexcept {}
void VxLog_WriteV(int, const char*, va_list) noexcept {}
void VxLog_WriteWV(int, const wchar_t*, va_list) noexcept {}

namespace Vexel::Detail {

namespace {

DWORD readEntry(const wchar_t* path, bool, EntryInfo& info) {
    const DWORD attributes = GetFileAttributesW(path);
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return ERROR_FILE_NOT_FOUND;
    info = {attributes, 0};
    return ERROR_SUCCESS;
}
DWORD probeForWriting(const wchar_t*) { return ERROR_SUCCESS; }
void* reallocate(void* block, unsigned long long bytes) noexcept { return std::realloc(block, bytes); }
void freeMemory(void* block) noexcept { std::free(block); }
void* commitPages(unsigned long long bytes) noexcept { return std::malloc(bytes); }
std::thread startThread(const std::function<void()>& body) { return std::thread(body); }
bool processIsEnding() { return false; }

} // namespace

Platform& platform() noexcept {
    static Platform calls{.readEntry = readEntry,
                          .probeForWriting = probeForWriting,
                          .createFile = CreateFileW,
                          .getAttributes = GetFileAttributesW,
                          .getFileInformation = GetFileInformationByHandle,
                          .setFileInformation = SetFileInformationByHandle,
                          .getFileSize = GetFileSizeEx,
                          .getFileTime = GetFileTime,
                          .readFile = ReadFile,
                          .writeFile = WriteFile,
                          .setPosition = SetFilePointerEx,
                          .setEndOfFile = SetEndOfFile,
                          .flushFile = FlushFileBuffers,
                          .moveFile = MoveFileExW,
                          .deleteFile = DeleteFileW,
                          .setAttributes = SetFileAttributesW,
                          .getTempPath = GetTempPathW,
                          .reallocate = reallocate,
                          .freeMemory = freeMemory,
                          .commitPages = commitPages,
                          .releasePages = freeMemory,
                          .getProcessTimes = GetProcessTimes,
                          .getTickCount = GetTickCount,
                          .startThread = startThread,
                          .processIsEnding = processIsEnding};
    return calls;
}

} // namespace Vexel::Detail
