#pragma once

#include <objidl.h>

#define REFKNOWNFOLDERID const GUID&
enum { KF_FLAG_CREATE = 0x8000 };
extern "C" HRESULT SHGetKnownFolderPath(REFKNOWNFOLDERID folder, DWORD flags, HANDLE token, wchar_t** path);
extern "C" HRESULT StgOpenStorageEx(const wchar_t* path, DWORD mode, DWORD format, DWORD attributes,
                                    STGOPTIONS* options, void*, REFIID iid, void** object);
extern "C" HRESULT StgIsStorageFile(const wchar_t* path);
