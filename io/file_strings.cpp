// Strings in Win32 files.

#include "base/platform.h"
#include "io/string_bytes.h"

#include <vexel/strings.h>

#include <cstdint>

namespace {

[[noreturn]] void throwLastError() {
    CFileException::ThrowOsError(static_cast<LONG>(GetLastError()));
    // The framework's own does not promise to throw for every code.
    AfxThrowFileException(CFileException::genericException, ERROR_SUCCESS);
}

std::size_t readFile(void* file, void* buffer, std::size_t count) {
    DWORD done = 0;
    if (!Vexel::Detail::platform().readFile(file, buffer, static_cast<DWORD>(count), &done, nullptr))
        throwLastError();
    if (done > count)
        AfxThrowFileException(CFileException::genericException, ERROR_IO_DEVICE);
    return done;
}

void writeFile(void* file, const void* buffer, std::uint32_t count) {
    DWORD done = 0;
    if (!Vexel::Detail::platform().writeFile(file, buffer, count, &done, nullptr))
        throwLastError();
    if (done != count) // as the framework's own files have it
        AfxThrowFileException(CFileException::diskFull, ERROR_DISK_FULL);
}

} // namespace

bool VxwReadUniString(void* fileHandle, CStringW& text) {
    std::uint32_t count = 0;
    if (readFile(fileHandle, &count, sizeof count) != sizeof count)
        count = 0;
    const auto reader = [&](char* buffer, std::size_t bytes) { return readFile(fileHandle, buffer, bytes); };
    Vexel::Detail::readUniString(count, reader, text);
    return true;
}

bool VxwWriteUniString(void* fileHandle, const CStringW& text) {
    const auto count = static_cast<std::uint32_t>(text.GetLength()) * 2;
    writeFile(fileHandle, &count, sizeof count);
    if (count != 0)
        writeFile(fileHandle, text.GetString(), count);
    return true;
}

unsigned VxwGetFilePointer(void* fileHandle) {
    SetLastError(ERROR_SUCCESS); // what a real position of this value reports
    const DWORD position = SetFilePointer(fileHandle, 0, nullptr, FILE_CURRENT);
    if (position == INVALID_SET_FILE_POINTER)
        throwLastError();
    return position;
}
