#pragma once

#include <Lzma2Dec.h>

/// The engine's C decoder, which is there under this name beside the one that the library uses.
extern "C" {
extern decltype(Lzma2Decode) C_Lzma2Decode;
}
