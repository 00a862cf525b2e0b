#pragma once

#include "archive/engine_api.h"

/// The coder that the engine knows by the identifier of LZMA2.
namespace Vexel::Storage::Engine {

/// A property of that method beside the engine's own: a number (VT_UI8) that is the address of the
/// `PackAhead` that packs the items. Without it the encoder is the engine's own.
constexpr PROPID kPackAheadProperty = 0x10000;

} // namespace Vexel::Storage::Engine
