// Saves and reloads during which a call to the system fails: first the first one, then the second, and so on
// until nothing fails any more, once each and from there on for good, with the status that the call's error
// gives. Whatever happens, the file on the disk is the old one, byte for byte, or the new one, and the
// archive in memory can be saved. (All else that is done to documents, and allocations, fail in faults_test.)

#include "archive/engine_outputs.h"
#include "archive_fixture.h"
#include "base/platform.h"
#include "support/platform_guard.h"
#include "support/scarce_memory.h"

#include <filesystem>
#include <functional>
#include <thread>

using namespace std::string_view_literals;
using namespace Support;
using Vexel::Storage::SZipArchive;

namespace {

constexpr std::size_t kLarge = 60'000;
/// Bytes to pack that a save has another thread for, on more than one processor.
constexpr std::size_t kWorthAThread = 70'000;

/// Made by us, or by other programs.
constexpr const wchar_t* kOurs = L"";
constexpr const wchar_t* kSolid = L"solid-without-directories.7z";
constexpr const wchar_t* kSolidWithAntiItems = L"solid-with-anti-items.7z";

/// "empty" and "d/b.txt" are in all of them, the latter in a folder with others where these are shared.
struct Change {
    const char* name;
    HRESULT (*apply)(SZipArchive& archive);
};
const Change kChanges[] = {
    {"change", [](SZipArchive& a) { return writeItem(a, L"empty", "changed"); }},
    {"remove", [](SZipArchive& a) { return a.remove(L"d/b.txt"sv); }},
    {"move", [](SZipArchive& a) { return a.move(L"d/b.txt"sv, L"moved"sv); }},
    {"replace",
     [](SZipArchive& a) {
         const HRESULT status = a.remove(L"d/b.txt"sv);
         return status == S_OK ? writeItem(a, L"e", "new") : status;
     }},
    {"copy",
     [](SZipArchive& a) {
         SZipArchive other(L"", false, true);
         writeItem(other, L"x", std::string(kWorthAThread, 'x'));
         return a.addItem(other, L"x"sv, L"copied");
     }},
    {"all",
     [](SZipArchive& a) {
         for (const unsigned i : {0U, 1U, 4U})
             if (const HRESULT status = kChanges[i].apply(a); status != S_OK)
                 return status;
         return a.move(L"empty"sv, L"moved"sv);
     }},
};

class SaveFaults : public Support::ArchiveTest {
protected:
    void SetUp() override {
        ArchiveTest::SetUp();
        Vexel::Detail::platform().flushFile = [](HANDLE) -> BOOL { return TRUE; }; // takes most of the time
        use(kOurs);
    }

    void use(const wchar_t* sample) {
        DeleteFileW(model_.c_str());
        if (sample != kOurs)
            std::filesystem::copy_file(Support::samplePath(sample), model_);
        else
            make({{L"empty", ""},
                  {L"d", kDirectory},
                  {L"d/a.txt", "first"},
                  {L"d/b.txt", noise(50'000)},
                  {L"f", noise(kLarge)}},
                 model_);
        oldBytes_ = readFile(model_);
        expect(kChanges[5]);
    }
    /// What the change comes to when nothing fails.
    void expect(const Change& change) {
        static unsigned started;
        started = 0;
        const PlatformGuard guard;
        Vexel::Detail::platform().startThread = [](const std::function<void()>& body) {
            ++started;
            return std::thread(body);
        };
        SZipArchive archive = changed(change);
        new_ = saved(archive);
        EXPECT_EQ(started > 0, &change == &kChanges[5] && std::thread::hardware_concurrency() > 1);
    }
    /// The old file, changed in memory.
    SZipArchive changed(const Change& change = kChanges[5]) const {
        EXPECT_TRUE(CopyFileW(model_.c_str(), archivePath.c_str(), FALSE));
        SZipArchive archive = open();
        EXPECT_EQ(change.apply(archive), S_OK);
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

struct Fault {
    const char* name;
    ArchiveFaults::Call call;
    DWORD error;
    bool isAfterwards; ///< whether there are such calls after the file was replaced
};
const Fault kFaults[] = {
    {"create", ArchiveFaults::Create, ERROR_ACCESS_DENIED, true},
    {"size", ArchiveFaults::Size, ERROR_IO_DEVICE, true},
    {"read", ArchiveFaults::Read, ERROR_CRC, true},
    {"write", ArchiveFaults::Write, ERROR_DISK_FULL, false},
    {"position", ArchiveFaults::Position, ERROR_SEEK, true},
    {"flush", ArchiveFaults::Flush, ERROR_WRITE_FAULT, false},
    {"move", ArchiveFaults::Move, ERROR_SHARING_VIOLATION, false},
};

class SweptSaves : public SaveFaults {
protected:
    /// False when there is no call that could fail any more.
    bool sweep(const Change& change, const Fault& fault, ArchiveFaults::Form form, unsigned n, bool forGood) {
        SCOPED_TRACE(std::string(change.name) + ": " + fault.name + ", form " + std::to_string(form) +
                     (forGood ? ", from call " : ", only call ") + std::to_string(n));
        SZipArchive archive = changed(change);
        ArchiveFaults::arm(fault.call, fault.error, n, forGood, form);
        const HRESULT status = archive.save(false);
        const bool hit = ArchiveFaults::disarm();
        const auto expected =
            static_cast<HRESULT>(form == ArchiveFaults::NoError ? 0x80030000 : 0x80030000 | fault.error);
        // A call that is repeated may fail once without harm, and a file without a size is no archive.
        const bool isKnown = form <= ArchiveFaults::NoError && fault.call != ArchiveFaults::Size;
        EXPECT_TRUE(!hit || !forGood || !isKnown || status == expected) << std::hex << status;
        EXPECT_TRUE(status == S_OK || (hit && form != ArchiveFaults::Short)) << std::hex << status;
        verifySaved(archive, status, fault.isAfterwards);
        return hit;
    }
    static bool isSwept(const Change& change, const Fault& fault, ArchiveFaults::Form form, bool forGood) {
        if (&change != &kChanges[5]) // which meets no other calls than all together
            return form == ArchiveFaults::Error && forGood;
        return form <= ArchiveFaults::NoError || fault.call == ArchiveFaults::Read ||
               fault.call == ArchiveFaults::Write;
    }
};

TEST_F(SweptSaves, NoFailingCallCostsADocument) {
    constexpr ArchiveFaults::Form kForms[] = {ArchiveFaults::Error, ArchiveFaults::NoError,
                                              ArchiveFaults::Short, ArchiveFaults::Nothing};
    for (const wchar_t* sample : {kOurs, kSolid, kSolidWithAntiItems}) {
        SCOPED_TRACE(testing::PrintToString(std::wstring(sample)));
        use(sample);
        for (const Change& change : kChanges) {
            expect(change);
            for (const Fault& fault : kFaults)
                for (const auto form : kForms)
                    for (const bool forGood : {true, false}) {
                        if (!isSwept(change, fault, form, forGood))
                            continue;
                        const unsigned faults =
                            sweepFaults([&](unsigned n) { return sweep(change, fault, form, n, forGood); });
                        EXPECT_GT(faults, 0U) << fault.name << " never occurs";
                    }
            if (HasFailure())
                return;
        }
    }
}

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
