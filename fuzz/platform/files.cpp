// Files in memory. Nothing is shared, times are the same for all, and only deleting and looking for files is
// for several threads.

#include "fuzz/platform/files.h"

#include <windows.h>

#include <algorithm>
#include <cstring>
#include <mutex>

namespace Vexel::Fuzz {

std::map<std::wstring, std::vector<unsigned char>>& files() {
    static std::map<std::wstring, std::vector<unsigned char>> all;
    return all;
}

namespace {

struct Open {
    std::wstring path;
    unsigned long long position = 0;

    std::vector<unsigned char>& bytes() { return files()[path]; }
};

Open& openFile(HANDLE handle) { return *static_cast<Open*>(handle); }

std::mutex looking;

BOOL fail(DWORD error) {
    SetLastError(error);
    return FALSE;
}

} // namespace

} // namespace Vexel::Fuzz

using namespace Vexel::Fuzz;

extern "C" {

HANDLE CreateFileW(const wchar_t* path, DWORD, DWORD, SECURITY_ATTRIBUTES*, DWORD disposition, DWORD,
                   HANDLE) {
    const bool isThere = files().contains(path);
    if (!isThere && disposition == OPEN_EXISTING) {
        fail(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    if (isThere && disposition == CREATE_NEW) {
        fail(ERROR_FILE_EXISTS);
        return INVALID_HANDLE_VALUE;
    }
    if (disposition == CREATE_ALWAYS)
        files()[path].clear();
    files()[path];
    return new Open{path};
}

BOOL CloseHandle(HANDLE file) {
    delete &openFile(file);
    return TRUE;
}

BOOL GetFileSizeEx(HANDLE file, LARGE_INTEGER* size) {
    size->QuadPart = static_cast<LONGLONG>(openFile(file).bytes().size());
    return TRUE;
}

BOOL ReadFile(HANDLE file, void* data, DWORD size, DWORD* done, OVERLAPPED*) {
    Open& open = openFile(file);
    const auto& bytes = open.bytes();
    const unsigned long long left = open.position < bytes.size() ? bytes.size() - open.position : 0;
    *done = static_cast<DWORD>((std::min<unsigned long long>)(left, size));
    if (*done > 0)
        std::memcpy(data, bytes.data() + open.position, *done);
    open.position += *done;
    return TRUE;
}

BOOL WriteFile(HANDLE file, const void* data, DWORD size, DWORD* done, OVERLAPPED*) {
    Open& open = openFile(file);
    auto& bytes = open.bytes();
    bytes.resize((std::max<std::size_t>)(bytes.size(), open.position + size));
    if (size > 0)
        std::memcpy(bytes.data() + open.position, data, size);
    open.position += size;
    *done = size;
    return TRUE;
}

BOOL SetFilePointerEx(HANDLE file, LARGE_INTEGER distance, LARGE_INTEGER* reached, DWORD origin) {
    Open& open = openFile(file);
    const auto from = static_cast<LONGLONG>(origin == FILE_BEGIN     ? 0
                                            : origin == FILE_CURRENT ? open.position
                                                                     : open.bytes().size());
    const LONGLONG target = from + distance.QuadPart;
    if (target < 0)
        return fail(ERROR_NEGATIVE_SEEK);
    open.position = static_cast<unsigned long long>(target);
    if (reached)
        reached->QuadPart = target;
    return TRUE;
}

BOOL SetEndOfFile(HANDLE file) {
    openFile(file).bytes().resize(openFile(file).position);
    return TRUE;
}

BOOL SetFileInformationByHandle(HANDLE file, enum FILE_INFO_BY_HANDLE_CLASS, void* information, DWORD) {
    openFile(file).bytes().resize(
        static_cast<std::size_t>(static_cast<FILE_END_OF_FILE_INFO*>(information)->EndOfFile.QuadPart));
    return TRUE;
}

BOOL FlushFileBuffers(HANDLE) { return TRUE; }
DWORD GetFileType(HANDLE) { return FILE_TYPE_DISK; }

BOOL GetFileTime(HANDLE, FILETIME* creation, FILETIME* lastAccess, FILETIME* lastWrite) {
    for (FILETIME* const time : {creation, lastAccess, lastWrite})
        if (time)
            *time = {1, 1};
    return TRUE;
}

BOOL GetFileInformationByHandle(HANDLE, BY_HANDLE_FILE_INFORMATION* information) {
    *information = {FILE_ATTRIBUTE_NORMAL, 1, 1, 0, 1};
    return TRUE;
}

BOOL MoveFileExW(const wchar_t* from, const wchar_t* to, DWORD) {
    auto moved = files().extract(from);
    if (moved.empty())
        return fail(ERROR_FILE_NOT_FOUND);
    files().erase(to);
    moved.key() = to;
    files().insert(std::move(moved));
    return TRUE;
}

BOOL DeleteFileW(const wchar_t* path) {
    const std::lock_guard lock(looking);
    return files().erase(path) > 0 ? TRUE : fail(ERROR_FILE_NOT_FOUND);
}
BOOL SetFileAttributesW(const wchar_t*, DWORD) { return TRUE; }

DWORD GetFileAttributesW(const wchar_t* path) {
    const std::lock_guard lock(looking);
    if (files().contains(path))
        return FILE_ATTRIBUTE_NORMAL;
    fail(ERROR_FILE_NOT_FOUND);
    return INVALID_FILE_ATTRIBUTES;
}

} // extern "C"
