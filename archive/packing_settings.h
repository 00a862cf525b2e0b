#pragma once

#include <cstdint>

/// How contents, and headers that are worth it, are packed: by LZMA2 and LZMA in their fast mode, which saves
/// need more than the last few per cent. They change the bytes that are written, so that files of two
/// versions differ; every reader of 7z takes them all.
namespace Vexel::Storage::Engine {

/// The engine declares less where all contents of an update are smaller.
constexpr std::uint32_t kDictionary = 0x100000;
constexpr std::uint32_t kFastMode = 0;
constexpr std::uint32_t kFastBytes = 32;
constexpr const auto* kMatchFinder = "HC4";
/// Of LZMA2. By itself the engine makes no blocks where it has one thread, and the same file would come out
/// differently on another machine.
constexpr std::uint32_t kBlock = 4 * kDictionary;

} // namespace Vexel::Storage::Engine
