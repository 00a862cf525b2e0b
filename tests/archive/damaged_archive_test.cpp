// Archives that are damaged, or as no program writes them: whatever is wrong with one, opening it, listing it
// and reading all of it ends in a status and a message, with memory for what the file can hold.

#include "archive/folder_coders.h"
#include "archive/szip_storage.h"
#include "support/archive_bytes.h"
#include "support/archive_file.h"
#include "support/com_storage.h"
#include "support/compound_file.h"
#include "support/log_capture.h"
#include "support/platform_guard.h"

#include <psapi.h>

#include <memory>
#include <thread>
#include <vector>

using namespace ArchiveBytes;
using namespace std::string_view_literals;
using Microsoft::WRL::ComPtr;
using Support::FaultyStream;
using namespace Vexel::Storage;

namespace {

struct Seen {
    HRESULT opened;
    Support::Contents whole; ///< what could be read
};

/// Opens and reads all there is; the archive is called "patient".
Seen examine(const std::string& file) {
    const LogCapture log;
    SZipArchive archive(Vexel::Detail::adopt(new FaultyStream(file)).Get());
    archive.setFileName(L"patient");
    Seen seen{archive.reload(), {}};
    EXPECT_TRUE(seen.opened == S_OK || seen.opened == STG_E_INVALIDHEADER || seen.opened == E_FAIL ||
                seen.opened == HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED) ||
                seen.opened == STG_E_INSUFFICIENTMEMORY)
        << std::hex << seen.opened;
    EXPECT_EQ(seen.opened != S_OK, log.count(VxLog_Error, L"") + log.count(VxLog_Trace, L"") > 0);
    EXPECT_TRUE(SUCCEEDED(seen.opened) || archive.isEmpty());
    for (const auto& [path, item] : archive.items()) {
        if (item.isDirectory())
            continue;
        ComPtr<IStream> stream;
        const auto messages = log.count(L"archive \"patient\"");
        const HRESULT status = archive.extractFile(&stream, path);
        if (stream)
            seen.whole[path.GetString()] = Support::bytesOf(stream.Get());
        EXPECT_TRUE(stream ? status == S_OK
                           : status == STG_E_INVALIDNAME || log.count(L"archive \"patient\"") > messages)
            << std::hex << status;
    }
    return seen;
}

/// What memory the process takes beyond what it has now. Its own count of the most is of no use, since what
/// the test itself had before hides what comes.
class MemoryWatch {
public:
    std::size_t growth() {
        sampler_.request_stop();
        sampler_.join();
        return most_ - before_;
    }

private:
    static std::size_t inUse() {
        PROCESS_MEMORY_COUNTERS counters{};
        counters.cb = sizeof counters;
        EXPECT_TRUE(K32GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters));
        return counters.WorkingSetSize;
    }
    const std::size_t before_ = inUse();
    std::size_t most_ = before_;
    std::jthread sampler_{[this](const std::stop_token& stop) {
        for (; !stop.stop_requested(); Sleep(1))
            most_ = (std::max)(most_, inUse());
    }};
};

/// A small archive of ours: its packed contents and its header.
struct Parts {
    std::string contents, header;
};
Parts smallArchive() {
    SZipArchive archive = Support::inMemory({{L"d", Support::directoryMark},
                                             {L"d/a", "some text, some more text and some text again"},
                                             {L"b", std::string(3000, 'b')},
                                             {L"empty", ""}});
    archive.item(L"b"sv)->touch();
    const auto stream = Vexel::Detail::adopt(new FaultyStream);
    EXPECT_EQ(archive.save(stream.Get()), S_OK);
    const std::string file = Support::bytesOf(stream.Get());
    return {file.substr(32, headerOf(file) - 32), file.substr(headerOf(file))};
}

/// With the checksums that the bytes have, when all before the header is left alone.
std::string repaired(std::string file, std::size_t header) {
    file.replace(28, 4, little(checksum(std::string_view(file).substr(header))));
    return file.replace(8, 4, little(checksum(std::string_view(file).substr(12, 20))));
}

TEST(DamagedArchives, EndInAStatus) {
    const Parts parts = smallArchive();
    MemoryWatch watch;
    std::size_t largest = 0;
    for (const std::string& file :
         {archiveOf(parts.contents, parts.header), withPackedHeader(parts.header, parts.contents)}) {
        const Seen whole = examine(file);
        EXPECT_EQ(whole.opened, S_OK);
        EXPECT_EQ(whole.whole.size(), 3U);
        largest = (std::max)(largest, file.size());
        const std::size_t header = headerOf(file);
        for (std::size_t i = 0; i < file.size() && !testing::Test::HasFailure(); ++i) {
            SCOPED_TRACE(i);
            EXPECT_EQ(examine(file.substr(0, i)).opened, STG_E_INVALIDHEADER);
            for (const int bits : {1, 2, 4, 8, 16, 32, 64, 128, 255}) {
                std::string damaged = file;
                damaged[i] = static_cast<char>(damaged[i] ^ bits);
                const Seen seen = examine(damaged);
                if (i < 32 || i >= 32 + parts.contents.size()) {
                    EXPECT_TRUE(FAILED(seen.opened) || i == 7); // the minor version
                    examine(i >= header ? repaired(damaged, header)
                                        : damaged.replace(8, 4, little(checksum(damaged.substr(12, 20)))));
                    continue;
                }
                EXPECT_EQ(seen.opened, S_OK);
                EXPECT_GE(seen.whole.size(), 2U);
                for (const auto& [path, bytes] : seen.whole)
                    EXPECT_TRUE(bytes == whole.whole.at(path));
            }
        }
    }
    EXPECT_LE(watch.growth(), 2 * (largest * 8192 + 0x10000) + 0x1000000);
}

// A stored item "a" of 5 bytes.
TEST(DamagedArchives, TellWhyContentsAreRefused) {
    const auto withDigest = [](std::uint32_t crc) {
        return packInfo(5) + unpackInfo(copyFolder, 5) + bytes({8, 10, 1}) + little(crc) + bytes({0});
    };
    const std::wstring unexpected = L"Decompressed version of the file \"a\" in archive \"patient\" has not "
                                    L"met the expectations: size ";
    const std::string good = withDigest(checksum("hello"));
    const std::u16string one = u"a\0"s, two = u"a\0b\0"s;
    enum class Lack { Nothing, Clones, Memory };
    const struct {
        const char* name;
        std::string streams;
        std::u16string items;
        Lack lack;
        HRESULT status;
        std::wstring message;
    } cases[] = {
        {"nothing wrong", good, one, Lack::Nothing, S_OK, L""},
        {"other checksum", withDigest(1), one, Lack::Nothing, STG_E_READFAULT,
         unexpected + L"5/5, CRC 0x3610a686/0x00000001"},
        {"other checksum, of the folder alone",
         packInfo(5) + unpackInfo(copyFolder, 5, bytes({10, 1}) + little(1U)), one, Lack::Nothing,
         STG_E_READFAULT, unexpected + L"5/5, CRC 0x3610a686/0x00000001"},
        {"too short, without a checksum", packInfo(5) + unpackInfo(copyFolder, 9), one, Lack::Nothing,
         STG_E_READFAULT, unexpected + L"5/9"},
        {"more data than contents", packInfo(5) + unpackInfo(copyFolder, 3), one, Lack::Nothing, S_OK,
         L"Failed to decompress the file \"a\" in archive \"patient\": 0x00000000"},
        {"two in a folder", packInfo(5) + unpackInfo(copyFolder, 5) + bytes({8, 13, 2, 9, 2, 0}), two,
         Lack::Nothing, STG_E_INVALIDFUNCTION,
         L"File \"a\" in archive \"patient\" belongs to a multi-file solid block"},
        {"no clone", good, one, Lack::Clones, STG_E_TOOMANYOPENFILES,
         L"Failed to clone an IStream: 0x80030004"},
        {"no memory", good, one, Lack::Memory, STG_E_INSUFFICIENTMEMORY,
         L"Not enough memory for decompressed contents of the file \"a\" (5 byte(s)) in archive \"patient\""},
    };
    for (const auto& [name, streams, items, lack, status, message] : cases) {
        SCOPED_TRACE(name);
        const LogCapture log;
        const auto source = Vexel::Detail::adopt(new FaultyStream(
            archiveOf("hello", streamsHeader(streams, static_cast<int>(items.size() / 2), items))));
        SZipArchive archive(source.Get());
        archive.setFileName(L"patient");
        EXPECT_EQ(archive.reload(), S_OK);
        const PlatformGuard platform;
        if (lack == Lack::Clones)
            *source->plan = {FaultyStream::Cloning, STG_E_TOOMANYOPENFILES};
        if (lack == Lack::Memory)
            Vexel::Detail::platform().reallocate = [](auto...) noexcept -> void* { return nullptr; };
        ComPtr<IStream> stream;
        EXPECT_EQ(archive.extractFile(&stream, L"a"sv), status);
        EXPECT_EQ(stream == nullptr, !message.empty());
        EXPECT_EQ(log.count(L""), message.empty() ? 0 : 1);
        EXPECT_EQ(log.count(VxLog_Error, message), message.empty() ? 0 : 1);
    }
}

// --- Headers that hold very much in few bytes

/// A header, as texts that are repeated.
using Repeats = std::vector<std::pair<std::string, std::uint64_t>>;

std::string packedArchive(const Repeats& parts) {
    std::uint64_t size = 0;
    for (const auto& [text, times] : parts)
        size += text.size() * times;
    std::string header;
    header.reserve(size);
    for (const auto& [text, times] : parts)
        for (std::uint64_t i = 0; i < times; ++i)
            header += text;
    return withPackedHeader(header);
}

TEST(DamagedArchives, TakeMemoryForWhatTheyHoldAlone) {
    constexpr std::uint64_t kMuch = 48 << 20;
    constexpr std::uint64_t kMany = 4 << 20;
    const std::string zero(1, '\0'), end = bytes({0, 0}), streams = bytes({1, 4});
    const auto nameless = [&](std::uint64_t count) {
        return Repeats{{bytes({1, 5}) + number(count) + bytes({0x0E}) + number(count / 8), 1},
                       {"\xFF", count / 8}};
    };
    const auto with = [](Repeats first, const Repeats& more) {
        first.insert(first.end(), more.begin(), more.end());
        return first;
    };
    const auto named = [&](std::uint64_t count, const std::string& name) {
        return with(nameless(count),
                    {{bytes({0x11}) + number(count * name.size() + 1) + zero, 1}, {name, count}, {end, 1}});
    };
    const std::string longName = std::string(800, 'n') + bytes({0, 0});
    const std::pair<const char*, Repeats> bombs[] = {
        {"property of the archive", {{bytes({1, 2, 0x19}) + number(kMuch), 1}, {zero, kMuch}, {end, 1}}},
        {"properties of the archive", {{bytes({1, 2}), 1}, {bytes({0x19, 1, 0}), kMuch / 3}, {end, 1}}},
        {"filler", {{bytes({1, 5, 0, 0x19}) + number(kMuch), 1}, {zero, kMuch}, {end, 1}}},
        {"behind the end", {{bytes({1, 0}), 1}, {zero, kMuch}}},
        {"very many items", with(nameless(kMuch), {{end, 1}})},
        {"items of one name", named(kMany, bytes({'a', 0, 0, 0}))},
        {"items of two names", named(kMany / 2, bytes({'a', 0, 0, 0, 'b', 0, 0, 0}))},
        {"long names", named(60'000, longName)},
        {"times", with(nameless(kMany), {{bytes({0x12}) + number(8 * kMany + 2) + bytes({1, 0}), 1},
                                         {std::string(8, 't'), kMany},
                                         {end, 1}})},
        {"a time again and again",
         {{bytes({1, 5, 1}), 1}, {bytes({0x12, 10, 1, 0, 1, 2, 3, 4, 5, 6, 7, 8}), kMany}, {end, 1}}},
        {"packed streams",
         {{streams + bytes({6, 0}) + number(kMuch) + bytes({9}), 1}, {zero, kMuch}, {end, 1}}},
        {"folders",
         {{streams + bytes({6, 0}) + number(kMany) + bytes({9}), 1},
          {zero, kMany},
          {bytes({0, 7, 11}) + number(kMany) + zero, 1},
          {copyFolder, kMany},
          {"\x0C", 1},
          {zero, kMany},
          {end, 1}}},
    };
    for (const auto& [name, header] : bombs) {
        SCOPED_TRACE(name);
        const std::string file = packedArchive(header);
        MemoryWatch watch;
        EXPECT_EQ(examine(file).opened, STG_E_INVALIDHEADER);
        EXPECT_LT(watch.growth() >> 20, 16U);
    }
}

// A dictionary of 256 MiB or 4 GiB for some bytes is no reason not to read them. Behind the five bytes of
// LZMA's properties may be more, which nobody reads.
TEST(DamagedArchives, ReadSmallItemsWithLargeDictionaries) {
    const std::string chunk = bytes({1, 0, 4}) + "hello" + bytes({0}); // of LZMA2, stored
    const std::string lzma = "\0\x34\x19\x49\xEE\x8E\x68\x21\xFF\xFF\xFF\xB9\xE0\0\0"s;
    const struct {
        std::string folder, packed;
    } cases[] = {{bytes({1, 0x21, 0x21, 1, 0}), chunk},
                 {bytes({1, 0x21, 0x21, 1, 30}), chunk},
                 {bytes({1, 0x21, 0x21, 1, 40}), chunk},
                 {bytes({1, 0x23, 3, 1, 1, 5, 0x5D, 255, 255, 255, 255}), lzma},
                 {bytes({1, 0x23, 3, 1, 1, 6, 0x5D, 255, 255, 255, 255, 0}), lzma}};
    for (const auto& [folder, packed] : cases) {
        const std::string file =
            archiveOf(packed, streamsHeader(packInfo(packed.size()) + unpackInfo(folder, 5), 1, u"a\0"s));
        MemoryWatch watch;
        EXPECT_EQ(examine(file).whole, (Support::Contents{{L"a", "hello"}}))
            << testing::PrintToString(folder);
        EXPECT_LT(watch.growth() >> 20, 16U) << testing::PrintToString(folder);
    }
}

// What is reserved and never touched shows in no count of the process, so the coders are asked themselves,
// and what they give the engine.
TEST(DamagedArchives, NeedNoLargeDictionaries) {
    const struct {
        std::string declared, cut;
    } cases[] = {
        {bytes({1, 0x23, 3, 1, 1, 5, 0x5D, 255, 255, 255, 255}),
         bytes({1, 0x23, 3, 1, 1, 5, 0x5D, 0, 0, 16, 0})},
        {bytes({1, 0x23, 3, 1, 1, 6, 0x5D, 255, 255, 255, 255, 7}),
         bytes({1, 0x23, 3, 1, 1, 6, 0x5D, 0, 0, 16, 0, 7})},
        {bytes({1, 0x21, 0x21, 1, 40}), bytes({1, 0x21, 0x21, 1, 16})},
    };
    for (const auto& [declared, cut] : cases) {
        NArchive::N7z::CFolders folders, alone;
        const auto set = [](auto& list, const auto&... values) {
            list.Alloc(sizeof...(values));
            std::size_t at = 0;
            ((list[at++] = static_cast<std::remove_cvref_t<decltype(list[0])>>(values)), ...);
        };
        set(folders.FoToCoderUnpackSizes, 0, 1);
        set(folders.FoCodersDataOffset, 0, declared.size());
        set(folders.FoStartPackStreamIndex, 0, 1);
        set(folders.FoToMainUnpackSizeIndex, 0);
        set(folders.PackPositions, 0, 9);
        set(folders.CoderUnpackSizes, 5);
        folders.CodersData.CopyFrom(reinterpret_cast<const Byte*>(declared.data()), declared.size());
        const Engine::FolderCoders coders(folders, 0);
        EXPECT_EQ(coders.dictionary(), 0x100000U) << declared.size();
        EXPECT_TRUE(coders.isExcessive()) << declared.size();
        coders.copyTo(alone);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(alone.CodersData.ConstData()), cut.size()), cut);
    }
}

// --- What other programs make

/// A stored item of each name, which it holds as its contents.
std::string storedArchive(const std::vector<std::string>& names) {
    std::string packed, sizes, folders;
    std::u16string list;
    for (const std::string& name : names) {
        packed += name;
        sizes += number(name.size());
        folders += copyFolder;
        list += std::u16string(name.begin(), name.end()) + u'\0';
    }
    const std::string count = number(names.size());
    return archiveOf(packed, bytes({1, 4, 6, 0}) + count + bytes({9}) + sizes + bytes({0, 7, 11}) + count +
                                 bytes({0}) + folders + bytes({12}) + sizes + bytes({0, 0, 5}) + count +
                                 ArchiveBytes::names(list) + bytes({0, 0}));
}

enum class Paths { Clear, Ambiguous };

struct Foreign {
    const char* name;
    std::vector<std::string> items;
    const char* reached; ///< by the storages, as `describe` tells it
    Paths paths = Paths::Clear;
    std::vector<std::wstring> log{}; // NOLINT(readability-redundant-member-init): GCC wants it
};

const Foreign kForeignArchives[] = {
    {"no directories",
     {"d/x", "d/sub/y", "top", "d!/z"},
     "d!/= d!/z=d!/z d/= d/sub/= d/sub/y=d/sub/y d/x=d/x top=top "},
    {"names that nobody encoded",
     {"100%.txt", "a%20b", "50%", "%zA", "b%2Fc", "tab\there", "n%00n", "p%/q%41"},
     "%zA=%zA 100%.txt=100%.txt 50%=50% a%20b=a%20b b%2Fc=b%2Fc n%00n=n%00n p%/= p%/q%41=p%/q%41 "
     "tab\there=tab\there "},
    {"two of which one is encoded",
     {"100%25", "100%", "100%2525", "%25", "%"},
     "%=%25 %25=% 100%=100%25 100%25=100%2525 100%2525=100% "},
    {"encoded names", {"a%05", "%25"}, "%=%25 a\x05=a%05 "},
    {"out of reach",
     {"/x", "a//b", "c/", "good"},
     "c/= good=good ",
     Paths::Clear,
     {L"\"/x\" in archive \"f\" (number", L"\"a//b\" in archive \"f\" (number", L"\"c/\" in archive"}},
    {"one path twice",
     {"a", "b", "a"},
     "a=a b=b ",
     Paths::Ambiguous,
     {L"\"a\" in archive \"f\" (number 0) is hidden"}},
    {"file with items below",
     {"a/b", "a", "c"},
     "a=a c=c ",
     Paths::Ambiguous,
     {L"\"a\" in archive \"f\" is a file with items below it"}},
};

// Where a change would drop items, for reading only.
TEST(ForeignArchives, AreReachedAndSavedAsTheyAre) {
    const Support::TempFolder folder;
    const std::wstring path = folder.file(L"f.7z");
    for (const Foreign& foreign : kForeignArchives) {
        SCOPED_TRACE(foreign.name);
        const HRESULT changed = foreign.paths == Paths::Ambiguous ? STG_E_ACCESSDENIED : S_OK;
        std::string file = storedArchive(foreign.items);
        for (int round = 0; round < 2; ++round) {
            const LogCapture log;
            const auto stream = Vexel::Detail::adopt(new FaultyStream(file));
            auto archive = std::make_shared<SZipArchive>(stream.Get());
            archive->setFileName(L"f");
            ASSERT_EQ(archive->reload(), S_OK);
            EXPECT_FALSE(archive->isChanged());
            for (const std::wstring& message : foreign.log)
                EXPECT_EQ(log.count(message), 1);
            for (const std::string& name : foreign.items)
                EXPECT_NE(archive->item(std::wstring(name.begin(), name.end())), nullptr);
            const auto root = Vexel::Detail::make<SZipStorage>(CString(), archive, DWORD{STGM_READ});
            EXPECT_EQ(Support::describe(root.Get()), foreign.reached);
            const auto copy = Vexel::Detail::adopt(new FaultyStream);
            EXPECT_EQ(archive->save(copy.Get()), changed);
            if (changed == S_OK)
                file = Support::bytesOf(copy.Get());
        }
        Support::writeFile(path, file);
        const LogCapture quiet;
        ComPtr<SZipStorage> root;
        EXPECT_EQ(Vexel::Storage::openPackage(path.c_str(), STGM_READ, true, root.GetAddressOf()), S_OK);
        root.Reset();
        EXPECT_EQ(Vexel::Storage::openPackage(path.c_str(), STGM_READWRITE, true, root.GetAddressOf()),
                  changed);
        root.Reset();
        SZipArchive archive(path, false, true);
        ASSERT_EQ(archive.reload(), S_OK);
        ComPtr<IStream> created; // a change without a byte being written
        EXPECT_EQ(archive.createFile(&created, L"new", true, false), changed);
        EXPECT_EQ(archive.save(false), changed);
        EXPECT_EQ(Support::readFile(path) == file, changed != S_OK);
    }
}

} // namespace
