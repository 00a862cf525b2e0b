#pragma once

/// Stands in for the platform's header in the native build: the types, statuses and interfaces that the
/// sources under test name, with the platform's own sizes and values. Functions are declared so that the
/// sources compile; platform.cpp and text.cpp define those that the targets reach, and the linker drops
/// whoever calls the rest.
///
/// The engine has such a header, too, which this one takes the place of: both must agree on every type. What
/// it defines as errno codes is the platform's code again here.

#include <7zTypes.h>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <wchar.h>

#define ZIP7_INC_MY_WINDOWS_H

#ifdef __cplusplus
#include <Common/MyGuidDef.h>
#endif

#define __declspec(kind)
#define WINAPI
#define NTAPI
#define CALLBACK
#define STDMETHODCALLTYPE
#define STDAPICALLTYPE
#define DECLSPEC_NOTHROW Z7_DECLSPEC_NOTHROW
#define DECLSPEC_NOVTABLE
#define COM_DECLSPEC_NOTHROW
#define STDMETHOD_(t, f) virtual t f
#define STDMETHOD(f) STDMETHOD_(HRESULT, f)
#define STDMETHODIMP_(t) t
#define STDMETHODIMP STDMETHODIMP_(HRESULT)
#define DECLARE_INTERFACE(name) struct name
#define DECLARE_INTERFACE_(name, base) struct name : public base
#define PURE = 0

typedef int BOOL;
typedef unsigned char BOOLEAN;
typedef unsigned char BYTE;
typedef char CHAR;
typedef unsigned char UCHAR;
typedef short SHORT;
typedef unsigned short USHORT;
typedef unsigned short WORD;
typedef short VARIANT_BOOL;
typedef float FLOAT;
typedef double DOUBLE;
typedef double DATE;
typedef long long LONGLONG;
typedef unsigned long long ULONGLONG;
typedef DWORD_PTR ULONG_PTR;
typedef DWORD* LPDWORD;
typedef LONG* PLONG;
typedef void* HANDLE;
typedef void* HMODULE;
typedef void* PVOID;
typedef const void* LPCVOID;
typedef wchar_t WCHAR;
typedef WCHAR OLECHAR;
typedef OLECHAR* LPOLESTR;
typedef OLECHAR* BSTR;
typedef CHAR* LPSTR;
typedef WCHAR* LPWSTR;
typedef const CHAR* LPCSTR;
typedef const WCHAR* LPCWSTR;
typedef const OLECHAR* LPCOLESTR;
typedef OLECHAR** SNB;
typedef WCHAR TCHAR;
typedef const TCHAR* LPCTSTR;
typedef DWORD LCID;
typedef LONG SCODE;
typedef ULONG PROPID;
typedef unsigned short VARTYPE;
typedef long long (*FARPROC)();

typedef union {
    struct {
        DWORD LowPart;
        LONG HighPart;
    };
    LONGLONG QuadPart;
} LARGE_INTEGER;
typedef union {
    struct {
        DWORD LowPart;
        DWORD HighPart;
    };
    ULONGLONG QuadPart;
} ULARGE_INTEGER;
typedef struct {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
} FILETIME;
typedef struct {
    WORD wYear, wMonth, wDayOfWeek, wDay, wHour, wMinute, wSecond, wMilliseconds;
} SYSTEMTIME;
typedef struct {
    DWORD nLength;
    void* lpSecurityDescriptor;
    BOOL bInheritHandle;
} SECURITY_ATTRIBUTES;
typedef struct {
    DWORD dwPageSize;
    DWORD dwNumberOfProcessors;
} SYSTEM_INFO;
typedef struct {
    UINT MaxCharSize;
    BYTE DefaultChar[2];
    BYTE LeadByte[12];
} CPINFO;
typedef struct {
    DWORD dwFileAttributes;
    DWORD dwVolumeSerialNumber;
    DWORD nNumberOfLinks;
    DWORD nFileIndexHigh, nFileIndexLow;
} BY_HANDLE_FILE_INFORMATION;
typedef struct {
    DWORD dwFileAttributes;
    FILETIME ftCreationTime, ftLastAccessTime, ftLastWriteTime;
    DWORD nFileSizeHigh, nFileSizeLow, dwReserved0, dwReserved1;
    WCHAR cFileName[260];
} WIN32_FIND_DATAW;
typedef struct {
    DWORD FileAttributes;
    DWORD ReparseTag;
} FILE_ATTRIBUTE_TAG_INFO;
typedef struct {
    LARGE_INTEGER EndOfFile;
} FILE_END_OF_FILE_INFO;
typedef struct {
    int state;
} INIT_ONCE;
typedef struct {
    pthread_mutex_t mutex;
} SRWLOCK;
typedef struct {
    pthread_cond_t condition;
} CONDITION_VARIABLE;
enum FILE_INFO_BY_HANDLE_CLASS { FileEndOfFileInfo = 6, FileAttributeTagInfo = 9 };
struct OVERLAPPED;

#ifdef __cplusplus
extern "C" {
BSTR SysAllocStringByteLen(LPCSTR bytes, UINT size);
BSTR SysAllocStringLen(const OLECHAR* text, UINT length);
BSTR SysAllocString(const OLECHAR* text);
void SysFreeString(BSTR text);
UINT SysStringByteLen(BSTR text);
UINT SysStringLen(BSTR text);
}
#endif

#define FALSE 0
#define TRUE 1
#define INIT_ONCE_STATIC_INIT                                                                                \
    { 0 }
#define INIT_ONCE_CHECK_ONLY 1UL
#define SRWLOCK_INIT                                                                                         \
    { PTHREAD_MUTEX_INITIALIZER }
#define CONDITION_VARIABLE_INIT                                                                              \
    { PTHREAD_COND_INITIALIZER }
#define INFINITE 0xFFFFFFFFU
#define INVALID_HANDLE_VALUE ((HANDLE)(LONG_PTR)-1)
#define INVALID_FILE_ATTRIBUTES ((DWORD)-1)
#define INVALID_SET_FILE_POINTER ((DWORD)-1)
#define MAX_PATH 260
#define LOWORD(l) ((WORD)((DWORD_PTR)(l)&0xffff))
#define HIWORD(l) ((WORD)((DWORD_PTR)(l) >> 16))

#define SUCCEEDED(hr) ((HRESULT)(hr) >= 0)
#define FAILED(hr) ((HRESULT)(hr) < 0)
#define S_OK ((HRESULT)0)
#define S_FALSE ((HRESULT)1)
#define E_NOTIMPL ((HRESULT)0x80004001)
#define E_NOINTERFACE ((HRESULT)0x80004002)
#define E_POINTER ((HRESULT)0x80004003)
#define E_ABORT ((HRESULT)0x80004004)
#define E_FAIL ((HRESULT)0x80004005)
#define CLASS_E_CLASSNOTAVAILABLE ((HRESULT)0x80040111)
#define STG_E_INVALIDFUNCTION ((HRESULT)0x80030001)
#define STG_E_FILENOTFOUND ((HRESULT)0x80030002)
#define STG_E_PATHNOTFOUND ((HRESULT)0x80030003)
#define STG_E_TOOMANYOPENFILES ((HRESULT)0x80030004)
#define STG_E_ACCESSDENIED ((HRESULT)0x80030005)
#define STG_E_INSUFFICIENTMEMORY ((HRESULT)0x80030008)
#define STG_E_INVALIDPOINTER ((HRESULT)0x80030009)
#define STG_E_SEEKERROR ((HRESULT)0x80030019)
#define STG_E_WRITEFAULT ((HRESULT)0x8003001D)
#define STG_E_READFAULT ((HRESULT)0x8003001E)
#define STG_E_SHAREVIOLATION ((HRESULT)0x80030020)
#define STG_E_LOCKVIOLATION ((HRESULT)0x80030021)
#define STG_E_FILEALREADYEXISTS ((HRESULT)0x80030050)
#define STG_E_INVALIDPARAMETER ((HRESULT)0x80030057)
#define STG_E_MEDIUMFULL ((HRESULT)0x80030070)
#define STG_E_INVALIDHEADER ((HRESULT)0x800300FB)
#define STG_E_INVALIDNAME ((HRESULT)0x800300FC)
#define STG_E_INVALIDFLAG ((HRESULT)0x800300FF)
#define STG_E_INUSE ((HRESULT)0x80030100)
#define STG_E_REVERTED ((HRESULT)0x80030102)
#define STG_E_DOCFILECORRUPT ((HRESULT)0x80030109)
#define STG_E_DOCFILETOOLARGE ((HRESULT)0x80030111)

#undef HRESULT_FROM_WIN32
constexpr HRESULT HRESULT_FROM_WIN32(uint32_t error) {
    return (HRESULT)error <= 0 ? (HRESULT)error : (HRESULT)((error & 0xFFFF) | 0x80070000U);
}

#undef ERROR_ALREADY_EXISTS
#undef ERROR_DISK_FULL
#undef ERROR_FILE_EXISTS
#undef ERROR_FILE_NOT_FOUND
#undef ERROR_INVALID_FUNCTION
#undef ERROR_INVALID_PARAMETER
#undef ERROR_PATH_NOT_FOUND
#define ERROR_SUCCESS 0
#define NO_ERROR 0
#define CCH_MAX_PROPSTG_NAME 31
#define CP_ACP 0
#define CP_OEMCP 1
#define CP_THREAD_ACP 3
#define CP_UTF8 65001
#define CREATE_ALWAYS 2
#define CREATE_NEW 1
#define ERROR_ACCESS_DENIED 5
#define ERROR_ALREADY_EXISTS 183
#define ERROR_BAD_COMMAND 22
#define ERROR_BAD_FORMAT 11
#define ERROR_BAD_LENGTH 24
#define ERROR_BAD_NETPATH 53
#define ERROR_BAD_NET_NAME 67
#define ERROR_BAD_PATHNAME 161
#define ERROR_BAD_UNIT 20
#define ERROR_BROKEN_PIPE 109
#define ERROR_CANNOT_MAKE 82
#define ERROR_CRC 23
#define ERROR_CURRENT_DIRECTORY 16
#define ERROR_DIRECTORY 267
#define ERROR_DIRECT_ACCESS_HANDLE 130
#define ERROR_DIR_NOT_EMPTY 145
#define ERROR_DISK_FULL 112
#define ERROR_DRIVE_LOCKED 108
#define ERROR_FILENAME_EXCED_RANGE 206
#define ERROR_FILE_EXISTS 80
#define ERROR_FILE_NOT_FOUND 2
#define ERROR_FILE_TOO_LARGE 223
#define ERROR_GEN_FAILURE 31
#define ERROR_HANDLE_DISK_FULL 39
#define ERROR_HANDLE_EOF 38
#define ERROR_INVALID_ACCESS 12
#define ERROR_INVALID_DATA 13
#define ERROR_INVALID_DRIVE 15
#define ERROR_INVALID_FUNCTION 1
#define ERROR_INVALID_HANDLE 6
#define ERROR_INVALID_NAME 123
#define ERROR_INVALID_PARAMETER 87
#define ERROR_INVALID_TARGET_HANDLE 114
#define ERROR_IO_DEVICE 1117
#define ERROR_LOCKED 212
#define ERROR_LOCK_FAILED 167
#define ERROR_LOCK_VIOLATION 33
#define ERROR_NEGATIVE_SEEK 131
#define ERROR_NETNAME_DELETED 64
#define ERROR_NETWORK_ACCESS_DENIED 65
#define ERROR_NOT_DOS_DISK 26
#define ERROR_NOT_FOUND 1168
#define ERROR_NOT_READY 21
#define ERROR_NOT_SAME_DEVICE 17
#define ERROR_NOT_SUPPORTED 50
#define ERROR_NO_MORE_FILES 18
#define ERROR_NO_MORE_SEARCH_HANDLES 113
#define ERROR_PATH_NOT_FOUND 3
#define ERROR_READ_FAULT 30
#define ERROR_SECTOR_NOT_FOUND 27
#define ERROR_SEEK 25
#define ERROR_SEEK_ON_DEVICE 132
#define ERROR_SHARING_BUFFER_EXCEEDED 36
#define ERROR_SHARING_VIOLATION 32
#define ERROR_TOO_MANY_OPEN_FILES 4
#define ERROR_WRITE_FAULT 29
#define ERROR_WRITE_PROTECT 19
#define ERROR_WRONG_DISK 34
#define FILE_BEGIN 0
#define FILE_CURRENT 1
#define FILE_END 2
#define FILE_FLAG_BACKUP_SEMANTICS 0x2000000
#define FILE_FLAG_DELETE_ON_CLOSE 0x4000000
#define FILE_FLAG_OPEN_REPARSE_POINT 0x200000
#define FILE_READ_ATTRIBUTES 0x0080
#define FILE_SHARE_DELETE 0x00000004
#define FILE_SHARE_READ 0x00000001
#define FILE_SHARE_WRITE 0x00000002
#define FILE_TYPE_DISK 0x1
#define FILE_TYPE_PIPE 0x3
#define GENERIC_READ 0x80000000
#define GENERIC_WRITE 0x40000000
#define GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS 0x4
#define GET_MODULE_HANDLE_EX_FLAG_PIN 0x1
#define IO_REPARSE_TAG_MOUNT_POINT 0xA0000003
#define IO_REPARSE_TAG_SYMLINK 0xA000000C
#define MB_ERR_INVALID_CHARS 0x00000008
#define MEM_COMMIT 0x1000
#define MEM_DECOMMIT 0x4000
#define MEM_RELEASE 0x8000
#define MEM_RESERVE 0x2000
#define MOVEFILE_COPY_ALLOWED 0x00000002
#define MOVEFILE_REPLACE_EXISTING 0x00000001
#define MOVEFILE_WRITE_THROUGH 0x00000008
#define OPEN_ALWAYS 4
#define OPEN_EXISTING 3
#define PAGE_READWRITE 0x04
#define PID_CODEPAGE 0x1
#define PID_DICTIONARY 0x0
#define PID_FIRST_USABLE 0x2
#define STGM_CONVERT 0x00020000
#define STGM_CREATE 0x00001000
#define STGM_READ 0x00000000
#define STGM_READWRITE 0x00000002
#define STGM_SHARE_EXCLUSIVE 0x00000010
#define STGM_WRITE 0x00000001
#define WC_NO_BEST_FIT_CHARS 0x00000400
#define VARIANT_TRUE ((VARIANT_BOOL)-1)
#define VARIANT_FALSE ((VARIANT_BOOL)0)

extern "C" {
DWORD GetLastError();
void SetLastError(DWORD error);
DWORD GetCurrentThreadId();
DWORD GetCurrentProcessId();
HANDLE GetCurrentProcess();
DWORD GetTickCount();
void Sleep(DWORD milliseconds);
BOOL FileTimeToLocalFileTime(const FILETIME* time, FILETIME* local);
BOOL LocalFileTimeToFileTime(const FILETIME* local, FILETIME* time);
BOOL FileTimeToSystemTime(const FILETIME* time, SYSTEMTIME* system);
LONG CompareFileTime(const FILETIME* a, const FILETIME* b);
void GetSystemTimeAsFileTime(FILETIME* time);
BOOL GetProcessTimes(HANDLE process, FILETIME* creation, FILETIME* exit, FILETIME* kernel, FILETIME* user);
void GetNativeSystemInfo(SYSTEM_INFO* system);
void GetSystemInfo(SYSTEM_INFO* system);
HMODULE GetModuleHandleW(const wchar_t* name);
BOOL GetModuleHandleExW(DWORD flags, const wchar_t* name, HMODULE* module);
FARPROC GetProcAddress(HMODULE module, const char* name);
BOOL InitOnceBeginInitialize(INIT_ONCE* once, DWORD flags, BOOL* pending, void** context);
BOOL InitOnceComplete(INIT_ONCE* once, DWORD flags, void* context);
void AcquireSRWLockExclusive(SRWLOCK* lock);
void ReleaseSRWLockExclusive(SRWLOCK* lock);
BOOL SleepConditionVariableSRW(CONDITION_VARIABLE* variable, SRWLOCK* lock, DWORD milliseconds, ULONG flags);
void WakeAllConditionVariable(CONDITION_VARIABLE* variable);
void* VirtualAlloc(void* address, SIZE_T size, DWORD type, DWORD protection);
BOOL VirtualFree(void* address, SIZE_T size, DWORD type);

BOOL CloseHandle(HANDLE handle);
HANDLE CreateFileW(const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
                   DWORD disposition, DWORD flags, HANDLE like);
BOOL GetFileSizeEx(HANDLE file, LARGE_INTEGER* size);
BOOL GetFileTime(HANDLE file, FILETIME* creation, FILETIME* lastAccess, FILETIME* lastWrite);
BOOL ReadFile(HANDLE file, void* data, DWORD size, DWORD* done, OVERLAPPED* overlapped);
BOOL WriteFile(HANDLE file, const void* data, DWORD size, DWORD* done, OVERLAPPED* overlapped);
BOOL SetFilePointerEx(HANDLE file, LARGE_INTEGER distance, LARGE_INTEGER* reached, DWORD origin);
DWORD SetFilePointer(HANDLE file, LONG low, LONG* high, DWORD origin);
BOOL SetEndOfFile(HANDLE file);
BOOL FlushFileBuffers(HANDLE file);
BOOL CopyFileW(const wchar_t* from, const wchar_t* to, BOOL failIfThere);
BOOL MoveFileExW(const wchar_t* from, const wchar_t* to, DWORD flags);
BOOL DeleteFileW(const wchar_t* path);
BOOL CreateDirectoryW(const wchar_t* path, SECURITY_ATTRIBUTES* security);
BOOL SetFileAttributesW(const wchar_t* path, DWORD attributes);
DWORD GetFileAttributesW(const wchar_t* path);
DWORD GetFileType(HANDLE file);
DWORD GetTempPathW(DWORD room, wchar_t* path);
DWORD GetFullPathNameW(const wchar_t* path, DWORD room, wchar_t* full, wchar_t** name);
DWORD GetLongPathNameW(const wchar_t* path, wchar_t* full, DWORD room);
BOOL GetFileInformationByHandle(HANDLE file, BY_HANDLE_FILE_INFORMATION* information);
BOOL GetFileInformationByHandleEx(HANDLE file, enum FILE_INFO_BY_HANDLE_CLASS kind, void* information,
                                  DWORD size);
BOOL SetFileInformationByHandle(HANDLE file, enum FILE_INFO_BY_HANDLE_CLASS kind, void* information,
                                DWORD size);
HANDLE FindFirstFileW(const wchar_t* pattern, WIN32_FIND_DATAW* found);
BOOL FindNextFileW(HANDLE search, WIN32_FIND_DATAW* found);
BOOL FindClose(HANDLE search);

int MultiByteToWideChar(UINT codePage, DWORD flags, const char* text, int size, wchar_t* wide, int room);
int WideCharToMultiByte(UINT codePage, DWORD flags, const wchar_t* wide, int size, char* text, int room,
                        const char* otherwise, BOOL* usedOtherwise);
BOOL GetCPInfo(UINT codePage, CPINFO* info);
BOOL IsValidCodePage(UINT codePage);
BOOL IsDBCSLeadByteEx(UINT codePage, BYTE byte);
UINT GetACP();
wchar_t* CharLowerW(wchar_t* text);

// The C library's additions of the platform.
int _wcsicmp(const wchar_t* a, const wchar_t* b);
int _wcsnicmp(const wchar_t* a, const wchar_t* b, size_t count);
int _vscwprintf(const wchar_t* format, __builtin_va_list arguments);
int _vsnwprintf(wchar_t* text, size_t room, const wchar_t* format, __builtin_va_list arguments);
}
