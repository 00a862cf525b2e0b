#pragma once

// The engine's headers. They need the platform's COM headers first.

#include <windows.h>

#include <objbase.h>
#include <propidl.h>

#include <7zip/Archive/7z/7zDecode.h>
#include <7zip/Archive/7z/7zIn.h>
#include <7zip/Archive/7z/7zOut.h>
#include <7zip/Archive/7z/7zUpdate.h>
#include <7zip/IStream.h>
#include <Common/MyException.h>
#include <oleauto.h>
