// What threads that share an archive wait for, and what is left when the end of the process has stopped some.
// Documents with many threads are in the tests of storage.

#include "archive_fixture.h"
#include "base/rw_lock.h"
#include "support/platform_guard.h"

#include <atomic>
#include <thread>

using namespace std::string_view_literals;
using Microsoft::WRL::ComPtr;
using Support::fill;
using Vexel::Storage::SZipArchive;

namespace {

// A reader counts 4; bit 0 is a writer that holds the lock, bit 1 one that waits.
TEST(RwLock, LetsAReaderBecomeTheWriter) {
    using namespace Vexel::Detail;
    enum Others { None, Reader, ReaderAndWaitingWriter };
    for (const Others others : {None, Reader, ReaderAndWaitingWriter}) {
        RwLockWord word{0};
        RwLock::lockShared(word);
        EXPECT_EQ(word, 4U);
        std::thread reader;
        if (others != None) {
            RwLock::lockShared(word);
            word.fetch_or(others == ReaderAndWaitingWriter ? 2 : 0);
            // Goes when the other one has said that it wants to write.
            const std::uint64_t before = word;
            reader = std::thread([&word, before] {
                while (word == before)
                    std::this_thread::yield();
                RwLock::unlockShared(word);
            });
        }
        // Who has to let another writer through first is told so.
        EXPECT_EQ(RwLock::upgrade(word), others != ReaderAndWaitingWriter);
        EXPECT_EQ(word, 1U);
        if (reader.joinable())
            reader.join();
        RwLock::unlockExclusive(word);
        EXPECT_EQ(word, 0U);
    }
}

class ProcessEnd : public Support::ArchiveTest {
protected:
    static void end() {
        Vexel::Detail::platform().processIsEnding = [] { return true; };
    }

private:
    PlatformGuard platform_;
};

// Whoever held the lock or waited for it is no more.
TEST_F(ProcessEnd, LeavesNobodyToWaitFor) {
    using namespace Vexel::Detail;
    end();
    for (const std::uint64_t word : {0U, 2U, 4U, 10U, 1U, 3U, 7U}) {
        SCOPED_TRACE(word);
        const bool isWhole = (word & 1) == 0; // nobody was changing anything
        for (const auto mode : {RwGuard::Shared, RwGuard::Exclusive}) {
            RwLockWord lock{word};
            const RwGuard guard(lock, mode);
            EXPECT_EQ(static_cast<bool>(guard), isWhole);
            EXPECT_EQ(lock & 1, mode == RwGuard::Exclusive || !isWhole);
        }
    }
    RwLockWord lock{12 + 2}; // two others read, one of them about to write
    EXPECT_TRUE(RwLock::upgrade(lock));
    EXPECT_EQ(lock, 1U);
}

// A thread was ended while it saved: what it was changing is left alone.
TEST_F(ProcessEnd, LeavesAnUnfinishedSaveAlone) {
    static const HANDLE kSaving = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    static const HANDLE kEnded = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    SZipArchive archive(archivePath, false, true);
    fill(archive, {{L"a", "1"}});
    Support::ArchiveFaults::alongside = [] {
        SetEvent(kSaving);
        WaitForSingleObject(kEnded, INFINITE);
    };
    Support::ArchiveFaults::arm(Support::ArchiveFaults::Flush, ERROR_WRITE_FAULT, 0, false);
    std::thread saver([&] { EXPECT_TRUE(FAILED(archive.save(false))); });
    WaitForSingleObject(kSaving, INFINITE);
    end();
    ComPtr<IStream> stream;
    SZipArchive other = Support::inMemory();
    Support::expectEach(STG_E_INUSE,
                        {archive.save(false), archive.save(Support::streamOf("").Get()), archive.reload(),
                         archive.openingStatus(), archive.extractFile(&stream, L"a"sv),
                         archive.createFile(&stream, L"b", true, false),
                         archive.createDirectory(L"d", true, false), archive.remove(L"a"sv),
                         archive.move(L"a"sv, L"b"sv), archive.clear(L""sv), archive.flush(L""sv),
                         other.addItems(archive, L""), other.borrowPackedData(archive),
                         archive.visitChildren(L"", [](const auto&, const auto&) {})});
    EXPECT_EQ(archive.flushIfIdle(L""sv), S_FALSE);
    EXPECT_FALSE(archive.hasDirectory(L"d"));
    EXPECT_FALSE(archive.fileTimes(nullptr, nullptr, nullptr));
    EXPECT_THROW(static_cast<void>(archive.nameOf(L"a")), std::bad_alloc);
    EXPECT_THROW(static_cast<void>(archive.childPath(L"", L"a")), std::bad_alloc);
    SetEvent(kEnded);
    saver.join();
    EXPECT_EQ(archive.items().size(), 1U);
}

} // namespace
