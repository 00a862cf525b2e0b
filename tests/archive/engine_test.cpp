// The adapters between the library and the engine, and what is written and read through them.

#include "archive/database.h"
#include "archive/engine.h"
#include "archive/folder_decoder.h"
#include "archive/update_step.h"
#include "io/com_pointer.h"
#include "support/compound_file.h"
#include "support/log_capture.h"
#include "support/streams.h"

#include <vexel/memory_streams.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace Vexel::Storage;
using namespace Vexel::Storage::Engine;
using Support::FaultyStream;
using Support::noise;
using Vexel::Detail::adopt;

namespace {

/// What the system's calls are made to do.
struct Calls {
    unsigned reads = 0;
    DWORD most = ~DWORD{0}; ///< bytes that a call does at once
    unsigned untilFailure = ~0U;
};
Calls calls;

BOOL countedRead(HANDLE file, void* data, DWORD size, DWORD* done, OVERLAPPED* position) {
    ++calls.reads;
    if (calls.untilFailure-- == 0) {
        SetLastError(ERROR_CRC);
        return FALSE;
    }
    return ReadFile(file, data, (std::min)(size, calls.most), done, position);
}

BOOL limitedWrite(HANDLE file, const void* data, DWORD size, DWORD* done, OVERLAPPED* position) {
    if (calls.untilFailure-- == 0) {
        SetLastError(ERROR_DISK_FULL);
        return FALSE;
    }
    return WriteFile(file, data, (std::min)(size, calls.most), done, position);
}

class Engine7z : public testing::Test {
protected:
    static void SetUpTestSuite() { start(); }
    void SetUp() override {
        calls = {};
        platform().readFile = countedRead;
        platform().writeFile = limitedWrite;
    }
    void TearDown() override { platform() = saved_; }

    Vexel::Detail::FileHandle openForReading() const {
        return Vexel::Detail::FileHandle(
            CreateFileW(path_.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    }
    void write(const std::vector<UpdateEntry>& entries, const DatabaseStream* old = nullptr) const {
        const auto file = adopt(new TemporaryFile(path_.c_str()));
        ASSERT_EQ(file->create(), S_OK);
        ASSERT_EQ(writeArchive(entries, old, file.Get(), path_.c_str()), S_OK);
        ASSERT_EQ(file->finish(), S_OK);
        file->keep();
    }
    std::shared_ptr<DatabaseStream> read() const {
        std::shared_ptr<DatabaseStream> archive;
        EXPECT_EQ(openFile(path_.c_str(), archive), S_OK);
        EXPECT_EQ(archive->read(path_.c_str()), S_OK);
        return archive;
    }

    Platform saved_ = platform();
    Support::TempFolder folder_;
    std::wstring path_ = folder_.file(L"a.7z");
    LogCapture log_;
};

// --- Files

TEST_F(Engine7z, FileInputReadsWhatTheFileHolds) {
    const std::string bytes = noise(3'000'000);
    Support::writeFile(path_, bytes);
    for (const DWORD most : {~DWORD{0}, DWORD{70'000}, DWORD{999}}) {
        calls.most = most;
        SharedFile file(openForReading());
        FileInStream input(file, bytes.size());
        std::mt19937 random(most);
        std::size_t position = 0;
        std::vector<char> target(200'000);
        for (int step = 0; step < 3000; ++step) {
            const auto size = static_cast<UInt32>(random() % (step % 50 == 0 ? 200'000 : 3000));
            if (random() % 4 == 0) {
                position = random() % (bytes.size() + 5000);
                UInt64 reached = 0;
                ASSERT_EQ(input.Seek(static_cast<Int64>(position) - 3'000'000, STREAM_SEEK_END, &reached),
                          S_OK);
                ASSERT_EQ(reached, position);
            }
            UInt32 done = 0;
            ASSERT_EQ(input.Read(target.data(), size, &done), S_OK);
            ASSERT_EQ(done == 0, size == 0 || position >= bytes.size());
            ASSERT_EQ(std::string_view(target.data(), done),
                      std::string_view(bytes).substr((std::min)(position, bytes.size()), done));
            position += done;
        }
    }
    SharedFile none;
    EXPECT_EQ(FileInStream(none, 5).Seek(-1, STREAM_SEEK_SET, nullptr), STG_E_INVALIDFUNCTION);
}

TEST_F(Engine7z, FileInputReadsAheadOnlyForWhoReadsOn) {
    Support::writeFile(path_, noise(3'000'000));
    SharedFile file(openForReading());
    char target[3000];
    UInt32 done = 0;
    FileInStream one(file, 3'000'000);
    one.Seek(5000, STREAM_SEEK_SET, nullptr);
    EXPECT_EQ(one.Read(target, sizeof target, &done), S_OK);
    EXPECT_EQ(calls.reads, 1U);
    FileInStream all(file, 3'000'000);
    calls.reads = 0;
    for (Int64 i = 0; i < 1000; ++i) {
        all.Seek(i * 3000, STREAM_SEEK_SET, nullptr);
        ASSERT_EQ(all.Read(target, sizeof target, &done), S_OK);
    }
    EXPECT_LE(calls.reads, 16U);
    calls.untilFailure = 0;
    EXPECT_EQ(one.Read(target, sizeof target, &done), storageStatus(ERROR_CRC));
    EXPECT_EQ(one.Read(target, sizeof target, &done), S_OK);
}

TEST_F(Engine7z, TemporaryFileHoldsWhatIsWritten) {
    for (const DWORD most : {~DWORD{0}, DWORD{4999}}) {
        calls.most = most;
        std::string expected;
        const std::string source = noise(2'500'000);
        std::mt19937 random(most);
        const auto file = adopt(new TemporaryFile(path_.c_str()));
        ASSERT_EQ(file->create(), S_OK);
        std::size_t position = 0;
        for (int step = 0; step < 400; ++step) {
            if (random() % 8 == 0) {
                position = random() % (expected.size() + 100);
                ASSERT_EQ(file->Seek(static_cast<Int64>(position), STREAM_SEEK_SET, nullptr), S_OK);
            } else if (random() % 40 == 0) {
                expected.resize(expected.size() * 3 / 4);
                ASSERT_EQ(file->SetSize(expected.size()), S_OK);
            }
            const std::string_view part =
                std::string_view(source).substr(0, random() % (step % 100 == 0 ? source.size() : 9000));
            UInt32 done = 0;
            ASSERT_EQ(file->Write(part.data(), static_cast<UInt32>(part.size()), &done), S_OK);
            ASSERT_EQ(done, part.size());
            if (!part.empty())
                expected.resize((std::max)(expected.size(), position + part.size()));
            expected.replace(position < expected.size() ? position : 0, part.size(), part);
            position += part.size();
        }
        ASSERT_EQ(file->finish(), S_OK);
        EXPECT_TRUE(Support::readFile(path_) == expected);
    }
    EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(Engine7z, TemporaryFileTellsOfEveryFailedWrite) {
    const std::string part = noise(300'000);
    for (unsigned n = 0;; ++n) {
        const auto file = adopt(new TemporaryFile(path_.c_str()));
        ASSERT_EQ(file->create(), S_OK);
        calls.untilFailure = n;
        bool failed = false;
        for (int i = 0; i < 8; ++i) {
            const bool failedNow = FAILED(file->Write(part.data(), 300'000, nullptr));
            failed = failed || failedNow;
        }
        const HRESULT status = file->finish();
        EXPECT_TRUE(failed || n > 0);
        if (status == S_OK) {
            EXPECT_FALSE(failed);
            EXPECT_EQ(n, 3U);
            break;
        }
        EXPECT_EQ(status, storageStatus(ERROR_DISK_FULL));
    }
}

// --- Archives

UpdateEntry entryOf(const wchar_t* name, std::string_view bytes) {
    UpdateEntry entry;
    entry.name = name;
    entry.size = bytes.size();
    entry.hasNewData = true;
    entry.contents = adopt<::IStream>(new FaultyStream(bytes));
    return entry;
}

std::vector<UpdateEntry> manyEntries(unsigned count, std::size_t size) {
    std::vector<UpdateEntry> entries;
    const std::string bytes = noise(size + count);
    for (unsigned i = 0; i < count; ++i)
        entries.push_back(
            entryOf((L"item " + std::to_wstring(i)).c_str(), std::string_view(bytes).substr(i, size)));
    return entries;
}

std::string decoded(const DatabaseStream& archive, unsigned index, HRESULT expected = S_OK) {
    const auto size = archive.database().Files[index].Size;
    DynamicBuffer bytes;
    bytes.data = static_cast<unsigned char*>(std::malloc(size));
    bytes.capacity = size;
    const DecodedFolder folder = decodeFolder(archive, archive.folderOf(index).index, bytes);
    EXPECT_EQ(folder.status, expected);
    EXPECT_TRUE(expected != S_OK || folder.crc == archive.database().Files[index].Crc);
    return {reinterpret_cast<const char*>(bytes.data), bytes.size};
}

TEST_F(Engine7z, WritesWhatItReads) {
    const std::string large = noise(1'500'000) + std::string(2'000'000, 'x');
    std::vector<UpdateEntry> entries(3);
    entries[0].name = L"folder";
    entries[0].isDirectory = true;
    entries[1].name = L"gone";
    entries[1].isAnti = true;
    entries[2].name = L"nothing";
    entries[2].creation = {5, 6};
    entries.push_back(entryOf(L"folder/\x44f \xd83d\xde00", large));
    entries.back().modification = {7, 0x01d90000};
    entries.push_back(entryOf(L"folder/one", "1"));
    write(entries);

    const auto archive = read();
    const auto& records = archive->database();
    ASSERT_EQ(archive->count(), entries.size());
    for (unsigned i = 0; i < archive->count(); ++i) {
        const auto entry = std::find_if(entries.begin(), entries.end(), [&](const UpdateEntry& candidate) {
            return archive->path(i) == std::wstring_view(candidate.name.GetString());
        });
        ASSERT_NE(entry, entries.end());
        EXPECT_EQ(records.Files[i].Size, entry->size);
        EXPECT_EQ(records.Files[i].IsDir, entry->isDirectory);
        EXPECT_EQ(records.IsItemAnti(i), entry->isAnti);
        UInt64 time = 0;
        EXPECT_EQ(records.CTime.GetItem(i, time), entry->creation.dwLowDateTime != 0);
        EXPECT_EQ(records.MTime.GetItem(i, time), entry->modification.dwLowDateTime != 0);
        if (entry->size > 0) {
            EXPECT_FALSE(archive->folderOf(i).isShared);
            EXPECT_TRUE(decoded(*archive, i) == (entry->size > 1 ? large : "1"));
            NArchive::N7z::CFolder folder;
            records.ParseFolderInfo(archive->folderOf(i).index, folder);
            ASSERT_EQ(folder.Coders.Size(), 1U);
            EXPECT_EQ(folder.Coders[0].MethodID, 0x21U);
            EXPECT_TRUE(entry->size == 1 || folder.Coders[0].Props[0] == 16); // 1 MiB
        }
    }
}

TEST_F(Engine7z, CopiesPackedBytesWithFewCalls) {
    std::vector<UpdateEntry> entries = manyEntries(2000, 1000);
    write(entries);
    auto old = read();
    const std::string before = Support::readFile(path_);
    for (unsigned i = 0; i < entries.size(); ++i) {
        entries[i].databaseIndex = static_cast<int>(i);
        entries[i].name = old->path(i).data();
        entries[i].hasNewData = i == 1234;
    }
    entries[1234].contents = adopt<::IStream>(new FaultyStream("new"));
    entries[1234].size = 3;
    path_ = folder_.file(L"b.7z");
    calls.reads = 0;
    write(entries, old.get());
    EXPECT_LE(calls.reads, 16U);

    const auto packedParts = [](const DatabaseStream& archive, const std::string& file) {
        std::map<std::wstring, std::string> parts;
        for (unsigned i = 0; i < archive.count(); ++i)
            parts[std::wstring(archive.path(i))] = file.substr(
                archive.database().GetFolderStreamPos(archive.folderOf(i).index, 0), archive.packedSize(i));
        return parts;
    };
    const auto copy = read();
    auto expected = packedParts(*old, before);
    auto written = packedParts(*copy, Support::readFile(path_));
    ASSERT_EQ(written.size(), 2000U);
    const std::wstring changed(old->path(1234));
    EXPECT_TRUE(written[changed] != expected[changed]);
    written[changed] = expected[changed];
    EXPECT_TRUE(written == expected);
    EXPECT_EQ(decoded(*copy, 1999), "new");
}

TEST_F(Engine7z, PacksHeadersThatAreLargeBesideTheContents) {
    for (const auto& [count, size, isPacked] :
         {std::tuple{10U, 5U, false}, {1000U, 5U, true}, {300U, 5000U, false}}) {
        write(manyEntries(count, size));
        const std::string file = Support::readFile(path_);
        std::uint64_t offset = 0;
        std::memcpy(&offset, file.data() + 12, sizeof offset);
        EXPECT_EQ(file.at(32 + offset), isPacked ? '\x17' : '\x01') << count;
        EXPECT_EQ(read()->count(), count);
    }
}

TEST_F(Engine7z, TellsWhereWritingFailed) {
    const std::vector<UpdateEntry> entries = manyEntries(3, 70'000);
    ptrdiff_t updateFailures = 0;
    ptrdiff_t headerFailures = 0;
    for (const bool isEmpty : {false, true})
        for (unsigned n = 0;; ++n) {
            const auto target = adopt(new FaultyStream);
            target->writesLeft = n;
            const auto output = adopt(new PassThroughOutStream(target.Get()));
            log_.clear();
            const HRESULT status = writeArchive(isEmpty ? std::vector<UpdateEntry>() : entries, nullptr,
                                                output.Get(), L"target");
            if (status == S_OK)
                break;
            EXPECT_EQ(status, STG_E_WRITEFAULT);
            const auto update = log_.count(7, L"Failed to create or update archive \"target\": 0x8003001d");
            const auto header = log_.count(7, L"Failed to write archive header to \"target\": 0x8003001d");
            EXPECT_EQ(update + header, 1) << n;
            EXPECT_TRUE(!isEmpty || header == 1);
            updateFailures += update;
            headerFailures += header;
        }
    EXPECT_GE(updateFailures, 4);
    EXPECT_GE(headerFailures, 4);
}

TEST_F(Engine7z, PassesFailuresOfStreamsOn) {
    std::vector<UpdateEntry> entries = manyEntries(2, 100);
    const auto output = adopt(new PassThroughOutStream(adopt(new FaultyStream).Get()));
    const auto contents = adopt(new FaultyStream("contents"));
    contents->readFails = true;
    entries[1].contents = contents;
    EXPECT_EQ(writeArchive(entries, nullptr, output.Get(), L"x"), STG_E_READFAULT);
    entries[1].contents.Reset();
    EXPECT_EQ(writeArchive(entries, nullptr, output.Get(), L"x"), STG_E_INVALIDPARAMETER);

    write(manyEntries(2, 100));
    const auto file = adopt(new FaultyStream(Support::readFile(path_)));
    DatabaseStream archive(file.Get());
    EXPECT_EQ(archive.read(L"x"), S_OK);
    EXPECT_EQ(decoded(archive, 1).size(), 100U);
    file->cloneFails = true;
    DynamicBuffer none;
    EXPECT_EQ(decodeFolder(archive, 0, none).status, STG_E_TOOMANYOPENFILES);
    EXPECT_EQ(log_.count(7, L"Failed to clone an IStream: 0x80030004"), 1);
}

TEST_F(Engine7z, DecodesOnManyThreadsAndAfterDamage) {
    write(manyEntries(200, 3000));
    std::string bytes = Support::readFile(path_);
    const auto first = read();
    const auto position = first->database().GetFolderStreamPos(first->folderOf(7).index, 0);
    bytes[position] = '\x7f'; // no chunk begins so
    const std::string expected = decoded(*first, 8);
    path_ = folder_.file(L"b.7z");
    Support::writeFile(path_, bytes);
    const auto archive = read();
    std::vector<std::thread> threads;
    std::atomic<unsigned> wrong{0};
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 100; ++i) {
                wrong += !decoded(*archive, 7, S_FALSE).empty();
                wrong += decoded(*archive, 8) != expected;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0U);
}

} // namespace
