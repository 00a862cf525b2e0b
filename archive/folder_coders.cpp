// The description of a folder's coders is read a second time here, from the header's bytes, because the
// engine keeps it in one block that decoders get as it is. Only the bytes that tell a dictionary's size are
// changed, in a copy.

#include "archive/folder_coders.h"

#include "archive/header_layout.h"
#include "archive/header_parser.h"
#include "archive/packing_settings.h"

#include <algorithm>
#include <cstring>

namespace Vexel::Storage::Engine {

using NArchive::N7z::CFolders;

namespace {

/// Up to this, dictionaries are left as they are declared, for it is not worth the copy of the description.
constexpr std::uint32_t kUsualDictionary = kDictionary;
// LZMA's properties end with the dictionary's size, but the decoder passes over more bytes behind it. Those
// of LZMA2 are a code for it.
constexpr std::size_t kLzmaProperties = 5;
constexpr std::size_t kLzmaDictionaryAt = 1;
constexpr std::uint32_t kLargestLzma2Code = 40;

/// The size is given by its exponent, with halves.
constexpr std::uint32_t lzma2Dictionary(std::uint32_t code) noexcept {
    return code >= kLargestLzma2Code ? 0xFFFFFFFF : (2 | (code & 1)) << (code / 2 + 11);
}

} // namespace

FolderCoders::FolderCoders(const CFolders& folders, unsigned folder) : folders_(folders), folder_(folder) {
    const std::size_t begin = folders.FoCodersDataOffset[folder];
    description_.resize(folders.FoCodersDataOffset[folder + 1] - begin);
    std::memcpy(description_.data(), folders.CodersData.ConstData() + begin, description_.size());
    parse();
}

// The engine has read all this before.
void FolderCoders::parse() {
    HeaderReader reader(description_);
    const UInt64* const sizes = &folders_.CoderUnpackSizes[folders_.FoToCoderUnpackSizes[folder_]];
    const std::uint32_t count = reader.count();
    for (std::uint32_t i = 0; i < count && reader.ok(); ++i) {
        const std::uint8_t kind = reader.byte();
        std::uint64_t method = 0;
        for (const std::byte part : reader.readBytes(kind & 0x0F))
            method = method << 8 | std::to_integer<std::uint64_t>(part);
        if ((kind & 0x10) != 0) { // its inputs and outputs
            reader.count();
            reader.count();
        }
        const std::size_t size = reader.readBytes((kind & 0x20) != 0 ? reader.count() : 0).size();
        const std::size_t properties = reader.position() - size;
        largest_ = (std::max)(largest_, sizes[i]);
        if (method == MethodId::kLzma && size >= kLzmaProperties)
            cutLzma(properties, sizes[i]);
        else if (method == MethodId::kLzma2 && size == 1)
            cutLzma2(properties, sizes[i]);
        isKnown_ = isKnown_ &&
                   (method == MethodId::kLzma || method == MethodId::kLzma2 || method == MethodId::kCopy);
    }
}

void FolderCoders::noteDictionary(std::uint32_t declared, std::uint32_t needed) noexcept {
    dictionary_ = (std::max)(dictionary_, needed);
    isExcessive_ = isExcessive_ || needed < declared;
}

void FolderCoders::cutLzma(std::size_t properties, std::uint64_t size) noexcept {
    std::uint32_t declared = 0;
    std::memcpy(&declared, &description_[properties + kLzmaDictionaryAt], sizeof declared);
    const auto needed = static_cast<std::uint32_t>(
        (std::min)(std::uint64_t{declared}, (std::max)(std::uint64_t{kUsualDictionary}, size)));
    std::memcpy(&description_[properties + kLzmaDictionaryAt], &needed, sizeof needed);
    noteDictionary(declared, needed);
}

void FolderCoders::cutLzma2(std::size_t properties, std::uint64_t size) noexcept {
    const auto declared = std::to_integer<std::uint32_t>(description_[properties]);
    std::uint32_t code = 0;
    while (code < declared && lzma2Dictionary(code) < (std::max)(std::uint64_t{kUsualDictionary}, size))
        ++code;
    description_[properties] = static_cast<std::byte>(code);
    noteDictionary(lzma2Dictionary(declared), lzma2Dictionary(code));
}

void FolderCoders::copyTo(CFolders& target) const {
    const auto count = folders_.FoToCoderUnpackSizes[folder_ + 1] - folders_.FoToCoderUnpackSizes[folder_];
    const auto firstPacked = folders_.FoStartPackStreamIndex[folder_];
    const auto packed = folders_.FoStartPackStreamIndex[folder_ + 1] - firstPacked;
    target.NumFolders = 1;
    target.NumPackStreams = packed;
    target.PackPositions.Alloc(packed + 1);
    std::copy_n(&folders_.PackPositions[firstPacked], packed + 1, &target.PackPositions[0]);
    target.CoderUnpackSizes.Alloc(count);
    std::copy_n(&folders_.CoderUnpackSizes[folders_.FoToCoderUnpackSizes[folder_]], count,
                &target.CoderUnpackSizes[0]);
    target.FoToCoderUnpackSizes.Alloc(2);
    target.FoToCoderUnpackSizes[0] = 0;
    target.FoToCoderUnpackSizes[1] = count;
    target.FoStartPackStreamIndex.Alloc(2);
    target.FoStartPackStreamIndex[0] = 0;
    target.FoStartPackStreamIndex[1] = packed;
    target.FoToMainUnpackSizeIndex.Alloc(1);
    target.FoToMainUnpackSizeIndex[0] = folders_.FoToMainUnpackSizeIndex[folder_];
    target.FoCodersDataOffset.Alloc(2);
    target.FoCodersDataOffset[0] = 0;
    target.FoCodersDataOffset[1] = description_.size();
    target.CodersData.CopyFrom(reinterpret_cast<const Byte*>(description_.data()), description_.size());
}

} // namespace Vexel::Storage::Engine
