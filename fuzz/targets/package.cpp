// A whole package on whatever bytes: what the check of its headers lets through is read by the engine, and
// every item's contents are decoded by it. Then the package is saved, which must give what was read. As a
// file it is the same as in a stream, and with one item changed all others stay.

#include "archive/database.h"
#include "archive/item_paths.h"
#include "fuzz/platform/files.h"
#include "fuzz/targets/input.h"
#include "fuzz/targets/memory.h"

#include <vexel/archive.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <thread>

using namespace Vexel::Fuzz;
using Microsoft::WRL::ComPtr;
using Vexel::Storage::StringLess;
using Vexel::Storage::SZipArchive;

namespace {

/// Contents above are decoded, but neither compared nor kept, for that costs time.
constexpr unsigned long long kLargest = 0x400000;
/// As the documents say: what is unpacked from each packed byte at most, and what is not counted of these.
constexpr unsigned long long kMostExpansion = 8192;
constexpr unsigned long long kUncountedBytes = 8;
/// What a decoder takes beside: a dictionary, which is left as it is declared up to this, a block for each
/// processor, and its tables. A folder may have several decoders in a row; so many at most in what comes up.
constexpr unsigned long long kUsualDictionary = 0x100000;
constexpr unsigned long long kBlock = 0x400000;
constexpr unsigned long long kDecoder = 0x800000;
constexpr unsigned long long kCoders = 4;

struct Contents {
    bool isDirectory = false;
    bool isRead = false;
    std::optional<std::vector<unsigned char>> bytes;
    unsigned long long size = 0;
    unsigned crc = 0;

    bool operator==(const Contents&) const = default;
};
using Listing = std::map<std::wstring, Contents>;

/// Which items have been changed, and how, is up to the bytes.
std::uint64_t choiceOf(std::span<const std::uint8_t> bytes) {
    std::uint64_t sum = 0xCBF29CE484222325;
    for (const std::uint8_t byte : bytes)
        sum = (sum ^ byte) * 0x100000001B3;
    return sum ^ sum >> 32;
}

std::vector<unsigned char> readAll(IStream& stream, unsigned long long size) {
    std::vector<unsigned char> bytes(static_cast<std::size_t>(size) + 1);
    ULONG done = 0;
    REQUIRE(stream.Read(bytes.data(), static_cast<ULONG>(bytes.size()), &done) == S_OK);
    REQUIRE(done == size);
    bytes.resize(done);
    return bytes;
}

/// Contents take memory for themselves and for a dictionary as large, or for blocks on several threads;
/// nothing is taken for those that the packed bytes cannot hold, and these are never read.
void checkExtraction(const Vexel::Storage::SZipArchiveItem& item, HRESULT status, std::size_t memory) {
    const unsigned long long size = item.size(), held = item.packedSize() + kUncountedBytes;
    if (size / kMostExpansion > held) {
        REQUIRE(status == STG_E_READFAULT || status == E_NOTIMPL || status == STG_E_INVALIDFUNCTION);
        REQUIRE(memory <= 0x10000);
        return;
    }
    const unsigned long long dictionary = (std::max)(kUsualDictionary, kMostExpansion * (held + 1));
    const unsigned long long blocks = size < 0x100000 ? 0 : kBlock * std::thread::hardware_concurrency();
    REQUIRE(memory <= size + kCoders * dictionary + blocks + kDecoder);
    REQUIRE(size > 0 || status == S_OK);
}

Contents contentsOf(SZipArchive& archive, const CString& path, const Vexel::Storage::SZipArchiveItem& item) {
    const unsigned long long size = item.size();
    Contents contents{item.isDirectory(), false, std::nullopt, size, item.crc()};
    ComPtr<IStream> stream;
    const MemoryWatch memory;
    const HRESULT status = archive.extractFile(stream.GetAddressOf(), path);
    const bool isNamed = Vexel::Storage::isItemPath(StringLess::view(path));
    if (contents.isDirectory || !isNamed) {
        REQUIRE(status == (isNamed ? STG_E_FILENOTFOUND : STG_E_INVALIDNAME));
        return contents;
    }
    checkExtraction(item, status, memory.most());
    contents.isRead = status == S_OK && stream;
    if (contents.isRead && size <= kLargest)
        contents.bytes = readAll(*stream.Get(), size);
    return contents;
}

Listing list(SZipArchive& archive) {
    Listing listing;
    for (const auto& [path, item] : archive.items()) {
        const auto [place, isNew] = listing.emplace(StringLess::view(path), contentsOf(archive, path, item));
        REQUIRE(isNew);
        if (item.size() > kLargest) // what is held of all together has no bound
            archive.flush(path);
    }
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

/// What a package has beside its items: records that none of these stands for.
struct Hidden {
    bool isAnyTwice = false;
    bool isAnyBelowFile = false;
};

Hidden hiddenRecords(std::span<const std::uint8_t> bytes) {
    Vexel::Storage::Engine::DatabaseStream records(streamOf(bytes).Get());
    REQUIRE(records.read(L"") == S_OK);
    std::set<std::wstring, std::less<>> paths, filePaths;
    Hidden hidden;
    for (unsigned i = 0; i < records.count(); ++i) {
        hidden.isAnyTwice |= !paths.emplace(records.path(i)).second;
        if (!records.database().Files[i].IsDir)
            filePaths.emplace(records.path(i));
    }
    for (const std::wstring_view path : paths)
        for (std::size_t i = path.find(L'/'); i != path.npos; i = path.find(L'/', i + 1))
            hidden.isAnyBelowFile |= filePaths.contains(path.substr(0, i));
    return hidden;
}

bool areAllRead(const Listing& listing) {
    return std::ranges::all_of(listing,
                               [](const auto& one) { return one.second.isDirectory || one.second.isRead; });
}

/// Nothing but hidden records makes a save be denied, and those that are hidden by a path always do, for it
/// would lose them.
void checkDenial(const Hidden& hidden, HRESULT status) {
    REQUIRE(status != STG_E_ACCESSDENIED || hidden.isAnyTwice || hidden.isAnyBelowFile);
    REQUIRE(!hidden.isAnyTwice || status == STG_E_ACCESSDENIED);
}

/// What was there is still there. A save may make contents readable, but not others of them.
void checkKept(const Listing& listing, const Listing& again) {
    REQUIRE(again.size() == listing.size());
    for (const auto& [path, contents] : listing) {
        const auto found = again.find(path);
        REQUIRE(found != again.end() && found->second.isDirectory == contents.isDirectory);
        REQUIRE(found->second.size == contents.size);
        REQUIRE(contents.crc == 0 || contents.size == 0 || found->second.crc == contents.crc);
        REQUIRE(!contents.isRead || (found->second.isRead && found->second.bytes == contents.bytes));
    }
}

/// Where nothing keeps it from being saved, what is saved is what was read.
void checkSave(const SZipArchive& archive, const Listing& listing, const Hidden& hidden) {
    const ComPtr<Vexel::Storage::InMemoryIStream> target = streamOf({});
    const HRESULT status = archive.save(target.Get());
    checkDenial(hidden, status);
    if (status != S_OK) {
        REQUIRE(FAILED(status) && (status == STG_E_ACCESSDENIED || !areAllRead(listing)));
        return;
    }
    target->rewind();
    SZipArchive saved(target.Get());
    REQUIRE(saved.reload() == S_OK);
    checkKept(listing, list(saved));
}

constexpr std::wstring_view kPath = L"C:\\package.7z";

/// Removes the item and what is below it, or writes the bytes into it; the listing is what is to come of it.
/// False where nothing is changed.
bool change(SZipArchive& archive, const std::wstring& path, bool removes, std::span<const std::uint8_t> bytes,
            Listing& expected) {
    if (!Vexel::Storage::isItemPath(path))
        return false;
    if (removes || expected[path].isDirectory) {
        REQUIRE(archive.remove(path) == S_OK);
        std::erase_if(expected, [&](const auto& one) {
            return one.first == path || one.first.starts_with(path + L'/');
        });
        return true;
    }
    ComPtr<IStream> stream;
    const CString name = Vexel::Storage::stringOf(path);
    if (archive.item(path)->isAnti())
        return false;
    REQUIRE(archive.openEmptied(stream.GetAddressOf(), name) == S_OK);
    REQUIRE(stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr) == S_OK);
    expected[path] = {false, true, std::vector<unsigned char>(bytes.begin(), bytes.end()), bytes.size(), 0};
    return true;
}

/// By its path the package is what it is in a stream, and can be changed.
void checkFile(std::span<const std::uint8_t> bytes, std::uint64_t choice, HRESULT status,
               const Listing& listing, const Hidden& hidden) {
    auto& all = files();
    const std::vector<unsigned char> before(bytes.begin(), bytes.end());
    all.clear();
    all[std::wstring(kPath)] = before;
    SZipArchive archive(kPath, false, true);
    REQUIRE(archive.reload() == status);
    if (status != S_OK) {
        REQUIRE(archive.items().empty());
        return;
    }
    REQUIRE(list(archive) == listing);
    checkDenial(hidden, archive.readOnly() ? STG_E_ACCESSDENIED : S_OK);
    if (archive.readOnly() || listing.empty())
        return;
    REQUIRE(archive.flush(CString()) == S_OK); // so that the save has to read
    Listing expected = listing;
    const std::wstring path =
        std::next(listing.begin(), static_cast<std::ptrdiff_t>(choice / 8 % listing.size()))->first;
    if (!change(archive, path, choice / 4 % 2 == 0, bytes, expected))
        return;
    if (const HRESULT saved = archive.save(false); saved != S_OK) {
        REQUIRE(FAILED(saved) && !areAllRead(expected));
        REQUIRE(all.size() == 1 && all.begin()->second == before);
        return;
    }
    REQUIRE(all.size() == 1 && all.begin()->first == kPath);
    SZipArchive again(kPath, true, true);
    REQUIRE(again.reload() == S_OK);
    const Listing fresh = list(again);
    checkKept(expected, fresh);
    REQUIRE(list(archive) == fresh);
}

/// Nothing stands in the way of bytes that are packed here: they are saved, and read.
void checkOwn(std::span<const std::uint8_t> bytes) {
    SZipArchive archive(std::wstring_view(), false, true);
    const std::wstring_view path = L"contents";
    ComPtr<IStream> stream;
    REQUIRE(archive.createFile(stream.GetAddressOf(), Vexel::Storage::stringOf(path), true, false) == S_OK);
    REQUIRE(stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr) == S_OK);
    const ComPtr<Vexel::Storage::InMemoryIStream> target = streamOf({});
    REQUIRE(archive.save(target.Get()) == S_OK);
    target->rewind();
    SZipArchive saved(target.Get());
    REQUIRE(saved.reload() == S_OK);
    const Listing listing = list(saved);
    REQUIRE(listing.size() == 1 && listing.begin()->first == path);
    REQUIRE(listing.begin()->second.bytes == std::vector<unsigned char>(bytes.begin(), bytes.end()));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size % 64 == 0)
        checkOwn({data, size});
    SZipArchive archive(streamOf({data, size}).Get());
    HRESULT status = S_OK;
    {
        const MemoryWatch memory;
        status = archive.reload();
        // As the documents say: less than 64 MiB for a header of up to 64 KiB, names apart.
        REQUIRE(memory.most() <= 0x4000000 + 4096 * size);
    }
    REQUIRE(status == S_OK || FAILED(status));
    const std::uint64_t choice = choiceOf({data, size});
    const bool isFileToo = choice % 4 == 0;
    if (status != S_OK) {
        REQUIRE(archive.items().empty());
        if (isFileToo)
            checkFile({data, size}, choice, status, {}, {});
        return 0;
    }
    if (archive.items().size() > 2000)
        return 0;
    checkNames(archive);
    const Listing listing = list(archive);
    const Hidden hidden = hiddenRecords({data, size});
    checkSave(archive, listing, hidden);
    if (isFileToo)
        checkFile({data, size}, choice, status, listing, hidden);
    return 0;
}
