#pragma once

#include <windows.h>

#include <objbase.h>

namespace Vexel::Detail {

/// A Win32 error as a status of the storage facility, where the codes keep their numbers.
constexpr HRESULT storageStatus(DWORD error) noexcept {
    return static_cast<HRESULT>(0x80030000UL | (error & 0xFFFF));
}

/// The system calls by which roots are found and opened. They are called through `StoragePlatform()`, so that
/// a test can put in ones that fail or count; the nodes below a root are reached through COM interfaces.
struct PlatformStorage {
    decltype(&::StgOpenStorageEx) openStorage;
    decltype(&::StgIsStorageFile) isStorageFile;
    /// Opens an existing file for reading and writing, keeping other writers out, and closes it at once.
    /// Returns 0 or the system's error code.
    DWORD (*probeForWriting)(const wchar_t* path);
    decltype(&::CreateFileW) createFile;
};

/// The calls in use. Not guarded: to be changed only while no other thread is in this layer.
PlatformStorage& StoragePlatform() noexcept;

} // namespace Vexel::Detail
