// Archives that are damaged, or as no program writes them: whatever is wrong with one, opening it, listing it
// and reading all of it ends in a status and a message, with memory for what the file can hold.

#include "io/com_pointer.h"
#include "io/memory_blocks.h"
#include "support/archive_bytes.h"
#include "support/archive_file.h"
#include "support/log_capture.h"

#include <vexel/archive.h>
#include <vexel/memory_streams.h>

#include <windows.h>

#include <gtest/gtest.h>
#include <psapi.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>

using namespace ArchiveBytes;
using namespace std::string_view_literals;
using Microsoft::WRL::ComPtr;
using Support::FaultyStream;
using Vexel::Storage::SZipArchive;

namespace {

struct Seen {
    HRESULT opened;
    std::map<std::wstring, std::string> whole; ///< what could be read
    unsigned refused = 0;                      ///< how many items could not be
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
    EXPECT_EQ(FAILED(seen.opened), log.count(L"\"patient\"") > 0);
    EXPECT_TRUE(SUCCEEDED(seen.opened) || archive.isEmpty());
    for (const auto& [path, item] : archive.items()) {
        if (item.isDirectory())
            continue;
        ComPtr<IStream> stream;
        const auto messages = log.count(L"archive \"patient\"");
        const HRESULT status = archive.extractFile(&stream, path);
        seen.refused += !stream;
        if (stream)
            seen.whole[path.GetString()] = Support::bytesOf(stream.Get());
        EXPECT_TRUE(stream ? status == S_OK
                           : status == STG_E_INVALIDNAME || log.count(L"archive \"patient\"") > messages)
            << std::hex << status;
    }
    return seen;
}

unsigned long long mostMemory() {
    PROCESS_MEMORY_COUNTERS counters{};
    counters.cb = sizeof counters;
    EXPECT_TRUE(K32GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters));
    return counters.PeakWorkingSetSize;
}

/// A small archive of ours: its packed contents and its header.
struct Parts {
    std::string contents, header;
};
Parts smallArchive() {
    SZipArchive archive(L"", false, true);
    EXPECT_EQ(archive.createDirectory(L"d", true, false), S_OK);
    EXPECT_EQ(Support::writeItem(archive, L"d/a", "some text, some more text and some text again"), S_OK);
    EXPECT_EQ(Support::writeItem(archive, L"b", std::string(3000, 'b')), S_OK);
    EXPECT_EQ(Support::writeItem(archive, L"empty", ""), S_OK);
    archive.item(L"b"sv)->touch();
    const auto stream = Vexel::Detail::adopt(new FaultyStream);
    EXPECT_EQ(archive.save(stream.Get()), S_OK);
    const std::string file = Support::bytesOf(stream.Get());
    std::uint64_t offset = 0;
    std::memcpy(&offset, file.data() + 12, sizeof offset);
    return {file.substr(32, offset), file.substr(32 + offset)};
}

/// With the checksums that the bytes have, when all before the header is left alone.
std::string repaired(std::string file, std::size_t header) {
    file.replace(28, 4, little(checksum(std::string_view(file).substr(header))));
    return file.replace(8, 4, little(checksum(std::string_view(file).substr(12, 20))));
}

TEST(DamagedArchives, EndInAStatus) {
    const Parts parts = smallArchive();
    const auto memory = mostMemory();
    std::size_t largest = 0;
    for (const std::string& file :
         {archiveOf(parts.contents, parts.header), withPackedHeader(parts.header, parts.contents)}) {
        const Seen whole = examine(file);
        EXPECT_EQ(whole.opened, S_OK);
        EXPECT_EQ(whole.whole.size(), 3U);
        largest = (std::max)(largest, file.size());
        std::uint64_t offset = 0;
        std::memcpy(&offset, file.data() + 12, sizeof offset);
        const std::size_t header = 32 + offset;
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
    EXPECT_LE(mostMemory() - memory, 2 * (largest * 8192 + 0x10000) + 0x1000000);
}

TEST(DamagedArchives, TellWhyContentsAreRefused) {
    const auto withDigest = [](std::uint32_t crc) {
        return packInfo(5) + unpackInfo(copyFolder, 5) + bytes({8, 10, 1}) + little(crc) + bytes({0});
    };
    struct Case {
        const char* name;
        std::string streams;
        int items;
        HRESULT status;
        std::wstring message;
    };
    const Case cases[] = {
        {"nothing wrong", withDigest(checksum("hello")), 1, S_OK, L""},
        {"other checksum", withDigest(1), 1, STG_E_READFAULT,
         L"Decompressed version of the file \"a\" in archive \"patient\" has not met the expectations: size "
         L"5/5, "
         L"CRC 0x3610a686/0x00000001"},
        {"too short, without a checksum", packInfo(5) + unpackInfo(copyFolder, 9), 1, STG_E_READFAULT,
         L"Decompressed version of the file \"a\" in archive \"patient\" has not met the expectations: size "
         L"5/9"},
        {"more data than contents", packInfo(5) + unpackInfo(copyFolder, 3), 1, S_OK,
         L"Failed to decompress the file \"a\" in archive \"patient\": 0x00000000"},
        {"two in a folder", packInfo(5) + unpackInfo(copyFolder, 5) + bytes({8, 13, 2, 9, 2, 0}), 2,
         STG_E_INVALIDFUNCTION, L"File \"a\" in archive \"patient\" belongs to a multi-file solid block"},
    };
    for (const auto& [name, streams, items, status, message] : cases) {
        SCOPED_TRACE(name);
        const LogCapture log;
        const auto list = items == 1 ? u"a\0"s : u"a\0b\0"s;
        SZipArchive archive(
            Vexel::Detail::adopt(new FaultyStream(archiveOf("hello", streamsHeader(streams, items, list))))
                .Get());
        archive.setFileName(L"patient");
        ASSERT_EQ(archive.reload(), S_OK);
        ComPtr<IStream> stream;
        EXPECT_EQ(archive.extractFile(&stream, L"a"sv), status);
        EXPECT_EQ(stream == nullptr, !message.empty());
        EXPECT_EQ(log.count(L""), message.empty() ? 0 : 1);
        EXPECT_EQ(log.count(VxLog_Error, message), message.empty() ? 0 : 1);
    }
}

TEST(DamagedArchives, TellWhatIsMissingToReadThem) {
    const LogCapture log;
    const auto source = Vexel::Detail::adopt(new FaultyStream(
        archiveOf("hello", streamsHeader(packInfo(5) + unpackInfo(copyFolder, 5), 1, u"a\0"s))));
    SZipArchive archive(source.Get());
    archive.setFileName(L"patient");
    ASSERT_EQ(archive.reload(), S_OK);
    ComPtr<IStream> stream;
    source->cloneFails = true;
    EXPECT_EQ(archive.extractFile(&stream, L"a"sv), STG_E_TOOMANYOPENFILES);
    EXPECT_EQ(log.count(VxLog_Error, L"Failed to clone an IStream: 0x80030004"), 1);
    const auto saved = Vexel::Detail::memorySource;
    Vexel::Detail::memorySource.reallocate = [](void*, unsigned long long) noexcept -> void* {
        return nullptr;
    };
    EXPECT_EQ(archive.extractFile(&stream, L"a"sv), STG_E_INSUFFICIENTMEMORY);
    Vexel::Detail::memorySource = saved;
    EXPECT_EQ(log.count(VxLog_Error,
                        L"Not enough memory for decompressed contents of the file \"a\" (5 byte(s)) in "
                        L"archive \"patient\""),
              1);
    EXPECT_EQ(log.count(L""), 2);
    EXPECT_EQ(stream, nullptr);
}

// What other programs may do with such names is no reason not to open the document.
TEST(DamagedArchives, KeepNamesAsTheyAre) {
    const auto list = u"../x\0/x\0C:\\x\0a//b\0\0a\0a\0d/\0"s; // the second "a" is a directory
    const std::string files = bytes({0x0F, 1, 0xFC});
    const auto namesOf = [](const SZipArchive& archive) {
        std::map<std::wstring, bool> found;
        for (const auto& [path, item] : archive.items())
            found[path.GetString()] = item.isDirectory();
        return found;
    };
    const std::map<std::wstring, bool> expected{{L"../x", false}, {L"/x", false}, {L"C:\\x", false},
                                                {L"a//b", false}, {L"", false},   {L"a", true},
                                                {L"d/", true}};
    std::string file = archiveOf("", listHeader(8, list, files));
    for (int round = 0; round < 2; ++round) {
        const auto stream = Vexel::Detail::adopt(new FaultyStream(file));
        SZipArchive archive(stream.Get());
        ASSERT_EQ(archive.reload(), S_OK);
        EXPECT_EQ(namesOf(archive), expected);
        ComPtr<IStream> contents;
        EXPECT_EQ(archive.extractFile(&contents, L"../x"sv), S_OK);
        EXPECT_EQ(archive.extractFile(&contents, L"/x"sv), STG_E_INVALIDNAME);
        EXPECT_EQ(archive.extractFile(&contents, L"a"sv), STG_E_FILENOTFOUND);
        const auto copy = Vexel::Detail::adopt(new FaultyStream);
        EXPECT_EQ(archive.save(copy.Get()), S_OK);
        file = Support::bytesOf(copy.Get());
    }
}

} // namespace
