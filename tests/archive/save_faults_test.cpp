// Saves and reloads of which a part fails. Whatever happens, the file on the disk is the old one, byte for
// byte, or the new one, and the archive in memory can be saved. (That every call and every allocation may
// fail is held in faults_test.)

#include "archive/engine_outputs.h"
#include "archive_fixture.h"
#include "base/platform.h"
#include "support/platform_guard.h"
#include "support/scarce_memory.h"

#include <filesystem>

using namespace std::string_view_literals;
using namespace Support;
using Vexel::Storage::SZipArchive;

namespace {

constexpr std::size_t kLarge = 60'000;
/// Bytes to pack that a save has another thread for, on more than one processor.
constexpr std::size_t kWorthAThread = 70'000;

/// Of all kinds.
HRESULT change(SZipArchive& archive) {
    SZipArchive other(L"", false, true);
    writeItem(other, L"x", std::string(kWorthAThread, 'x'));
    for (const HRESULT status :
         {writeItem(archive, L"empty", "changed"), archive.remove(L"d/b.txt"sv),
          archive.addItem(other, L"x"sv, L"copied"), archive.move(L"empty"sv, L"moved"sv)})
        if (status != S_OK)
            return status;
    return S_OK;
}

class SaveFaults : public Support::ArchiveTest {
protected:
    void SetUp() override {
        ArchiveTest::SetUp();
        Vexel::Detail::platform().flushFile = [](HANDLE) -> BOOL { return TRUE; }; // takes most of the time
        make({{L"empty", ""},
              {L"d", kDirectory},
              {L"d/a.txt", "first"},
              {L"d/b.txt", noise(50'000)},
              {L"f", noise(kLarge)}},
             model_);
        oldBytes_ = readFile(model_);
        SZipArchive archive = changed();
        new_ = saved(archive);
    }

    /// The old file, changed in memory.
    SZipArchive changed() const {
        EXPECT_TRUE(CopyFileW(model_.c_str(), archivePath.c_str(), FALSE));
        SZipArchive archive = open();
        EXPECT_EQ(change(archive), S_OK);
        return archive;
    }

    /// What holds after a save, however it ended. `isReplaced`: whether a failed one may have put the new
    /// file in its place.
    void verifySaved(SZipArchive& archive, HRESULT status, bool isReplaced = true, bool isTidy = true) {
        const std::wstring temporary = archivePath + L".7ztmp";
        EXPECT_TRUE(status == S_OK || FAILED(status));
        if (readFile(archivePath) == oldBytes_) {
            EXPECT_NE(status, S_OK);
        } else {
            EXPECT_TRUE(status == S_OK || isReplaced);
            EXPECT_TRUE(onDisk() == new_);
        }
        EXPECT_TRUE(!isTidy || !std::filesystem::exists(temporary));
        EXPECT_EQ(archive.isChanged(), status != S_OK);
        EXPECT_TRUE((status == S_OK ? onDisk() : saved(archive)) == new_);
        EXPECT_TRUE(status == S_OK || !std::filesystem::exists(temporary));
        EXPECT_TRUE(statesOf(archive) == new_);
    }

    std::wstring model_ = folder_.file(L"old.7z");
    std::string oldBytes_;
    Contents new_;
};

using ScarceMemory = SaveFaults;

// The engine never cuts what it writes, but may.
TEST_F(SaveFaults, ACutThatFailsFailsTheFile) {
    for (const auto call : {ArchiveFaults::SetEnd, ArchiveFaults::Position}) {
        const auto file =
            Vexel::Detail::adopt(new Vexel::Storage::Engine::TemporaryFile(archivePath.c_str()));
        EXPECT_EQ(file->create(), S_OK);
        EXPECT_EQ(file->Write("0123", 4, nullptr), S_OK);
        ArchiveFaults::arm(call, 0, 0, false);
        EXPECT_EQ(file->SetSize(2), HRESULT(0x80030000));
        EXPECT_TRUE(ArchiveFaults::disarm());
        EXPECT_EQ(file->finish(), HRESULT(0x80030000));
    }
}

// A temporary of a process that was killed.
TEST_F(SaveFaults, AStaleTemporaryDoesNoHarm) {
    SZipArchive archive = changed();
    writeFile(archivePath + L".7ztmp", std::string(1'000'000, '7'));
    EXPECT_EQ(archive.save(false), S_OK);
    verifySaved(archive, S_OK);
}

TEST_F(SaveFaults, ATemporaryThatCannotBeDeletedDoesNoHarm) {
    SZipArchive archive = changed();
    ArchiveFaults::arm(ArchiveFaults::Move, ERROR_ACCESS_DENIED, 0, true);
    ArchiveFaults::arm(ArchiveFaults::Delete, ERROR_ACCESS_DENIED, 0, true);
    EXPECT_EQ(archive.save(false), STG_E_ACCESSDENIED);
    ArchiveFaults::disarm();
    verifySaved(archive, STG_E_ACCESSDENIED, false, false);
}

TEST_F(ScarceMemory, AFailedReloadKeepsWhatIsInMemory) {
    for (const bool memory : {false, true})
        sweepFaults([&](unsigned n) {
            SCOPED_TRACE((memory ? "allocation " : "read ") + std::to_string(n));
            SZipArchive archive = changed();
            HRESULT status = S_OK;
            const auto reload = [&] { status = archive.reload(); };
            if (!memory) {
                ArchiveFaults::arm(ArchiveFaults::Read, ERROR_CRC, n, false);
                reload();
            }
            const bool hit = memory ? WithFailingAllocation(n, reload) : ArchiveFaults::disarm();
            EXPECT_EQ(FAILED(status), hit) << std::hex << status;
            EXPECT_TRUE(archive.isChanged());
            EXPECT_TRUE(!hit || saved(archive) == new_);
            return hit;
        });
}

TEST_F(ScarceMemory, IsReportedByAVisitAndByAClone) {
    SZipArchive archive = open(model_, true);
    Microsoft::WRL::ComPtr<IStream> stream, clone;
    ASSERT_EQ(archive.extractFile(&stream, L"f"sv), S_OK);
    const HRESULT visited =
        archive.visitChildren({}, [](const auto&, const auto&) { throw std::bad_alloc(); });
    HRESULT cloned = S_OK;
    WithFailingAllocation(0, [&] { cloned = stream->Clone(&clone); });
    EXPECT_EQ(visited, STG_E_INSUFFICIENTMEMORY);
    EXPECT_EQ(cloned, STG_E_INSUFFICIENTMEMORY);
}

// The file has been replaced, but cannot be opened again before something else is done.
TEST_F(SaveFaults, WhatIsDoneInBetweenIsSavedLater) {
    SZipArchive archive = changed();
    Microsoft::WRL::ComPtr<IStream> stream;
    ASSERT_EQ(archive.extractFile(&stream, L"copied"sv), S_OK);
    // The file is looked at, the temporary is made and read, and then it happens.
    EXPECT_EQ(saveFailing(archive, ArchiveFaults::Create, ERROR_ACCESS_DENIED, 3), STG_E_ACCESSDENIED);
    EXPECT_TRUE(onDisk() == new_);
    EXPECT_EQ(stream->Write("late", 4, nullptr), S_OK);
    EXPECT_EQ(archive.remove(L"moved"sv), S_OK);
    EXPECT_EQ(archive.move(L"d/a.txt"sv, L"e"sv), S_OK);
    EXPECT_EQ(stateOf(archive, L"f"), noise(kLarge)); // which opens the file first
    Contents expected = new_;
    expected[L"copied"].replace(0, 4, "late");
    expected[L"e"] = "first";
    expected.erase(L"moved");
    expected.erase(L"d/a.txt");
    EXPECT_TRUE(saved(archive) == expected);
}

} // namespace
