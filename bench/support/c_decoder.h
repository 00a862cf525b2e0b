#pragma once

#include <Lzma2Dec.h>

/// The engine's C decoder, which is there under these names beside the one that the library uses.
extern "C" {
extern decltype(LzmaDec_Allocate) C_LzmaDec_Allocate;
extern decltype(LzmaDec_Free) C_LzmaDec_Free;
extern decltype(LzmaDec_Init) C_LzmaDec_Init;
extern decltype(LzmaDec_DecodeToBuf) C_LzmaDec_DecodeToBuf;
extern decltype(Lzma2Decode) C_Lzma2Decode;
}
