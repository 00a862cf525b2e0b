#pragma once

#include <windows.h>

extern "C" BOOL PathIsRelativeW(const wchar_t* path);
extern "C" BOOL PathIsNetworkPathW(const wchar_t* path);
extern "C" wchar_t* PathFindExtensionW(const wchar_t* path);
