// A whole package on whatever bytes: what the check of its headers lets through is read by the engine, and
// every item's contents are decoded by it. Then the package is saved, which must give what was read.

#include "archive/item_paths.h"
#include "fuzz/targets/input.h"
#include "fuzz/targets/memory.h"

#include <vexel/archive.h>
#include <vexel/memory_streams.h>

#include <map>
#include <optional>
#include <string>

using namespace Vexel::Fuzz;
using Microsoft::WRL::ComPtr;
using Vexel::Storage::InMemoryIStream;
using Vexel::Storage::StringLess;
using Vexel::Storage::SZipArchive;

namespace {

/// Contents above are left alone, for they cost time: the bound on what they take is looked at all the same.
constexpr unsigned long long kLargest = 0x400000;
constexpr std::size_t kMostExpansion = 8192;

struct Contents {
    bool isDirectory = false;
    std::optional<std::vector<unsigned char>> bytes;
};
using Listing = std::map<std::wstring, Contents>;

ComPtr<IStream> streamOf(std::span<const std::uint8_t> bytes) {
    ComPtr<IStream> stream;
    auto* const memory = new InMemoryIStream();
    *stream.GetAddressOf() = memory;
    REQUIRE(memory->write(bytes.data(), bytes.size()) == bytes.size());
    memory->rewind();
    return stream;
}

std::vector<unsigned char> readAll(IStream& stream, unsigned long long size) {
    std::vector<unsigned char> bytes(static_cast<std::size_t>(size) + 1);
    ULONG done = 0;
    REQUIRE(stream.Read(bytes.data(), static_cast<ULONG>(bytes.size()), &done) == S_OK);
    REQUIRE(done == size);
    bytes.resize(done);
    return bytes;
}

Contents contentsOf(SZipArchive& archive, const CString& path, const Vexel::Storage::SZipArchiveItem& item) {
    Contents contents{item.isDirectory(), std::nullopt};
    const unsigned long long size = item.size();
    if (contents.isDirectory || size > kLargest)
        return contents;
    ComPtr<IStream> stream;
    const HRESULT status = archive.extractFile(stream.GetAddressOf(), path);
    if (status == S_OK && stream)
        contents.bytes = readAll(*stream.Get(), size);
    return contents;
}

Listing list(SZipArchive& archive) {
    Listing listing;
    for (const auto& [path, item] : archive.items())
        listing.emplace(StringLess::view(path), contentsOf(archive, path, item));
    return listing;
}

/// Names and paths undo each other, and a directory's children are what the paths say.
void checkNames(SZipArchive& archive) {
    for (const auto& [path, item] : archive.items()) {
        const std::wstring_view text = StringLess::view(path);
        if (!Vexel::Storage::isNewItemPath(text))
            continue;
        const CString name = archive.nameOf(path);
        const CString back = archive.childPath(Vexel::Storage::stringOf(Vexel::Storage::parentOf(text)),
                                               StringLess::view(name));
        REQUIRE(StringLess::view(back) == text);
    }
    std::size_t children = 0;
    REQUIRE(archive.visitChildren(CString(), [&](const CString&, const auto&) { ++children; }) == S_OK);
    REQUIRE(children <= archive.items().size());
}

/// Where nothing keeps it from being saved, what is saved is what was read.
void checkSave(SZipArchive& archive, const Listing& listing) {
    const ComPtr<IStream> target = streamOf({});
    if (archive.save(target.Get()) != S_OK)
        return;
    target->Seek({}, STREAM_SEEK_SET, nullptr);
    SZipArchive saved(target.Get());
    REQUIRE(saved.reload() == S_OK);
    const Listing again = list(saved);
    REQUIRE(again.size() == listing.size());
    for (const auto& [path, contents] : listing) {
        const auto found = again.find(path);
        REQUIRE(found != again.end() && found->second.isDirectory == contents.isDirectory);
        if (contents.bytes)
            REQUIRE(found->second.bytes == contents.bytes);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    SZipArchive archive(streamOf({data, size}).Get());
    const MemoryWatch memory;
    const HRESULT status = archive.reload();
    // As the documents say: less than 64 MiB for a header of up to 64 KiB, names apart.
    REQUIRE(memory.most() <= 0x4000000 + 4096 * size);
    REQUIRE(status == S_OK || FAILED(status));
    if (status != S_OK) {
        REQUIRE(archive.items().empty());
        return 0;
    }
    if (archive.items().size() > 2000)
        return 0;
    checkNames(archive);
    const Listing listing = list(archive);
    checkSave(archive, listing);
    // Whatever a header promises: no more than its packed bytes can hold, the larger items included, and the
    // decoder's own.
    REQUIRE(memory.most() <= 0x10000000 + kMostExpansion * 8 * size);
    return 0;
}
