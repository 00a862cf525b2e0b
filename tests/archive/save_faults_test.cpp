// Saves and reloads during which a call to the system or an allocation fails: first the first one, then the
// second, and so on until nothing fails any more, once each and from there on for good. Whatever happens, the
// file on the disk is the old or the new one, and the archive in memory can be saved.

#include "archive/platform.h"
#include "support/archive_file.h"
#include "support/compound_file.h"
#include "support/log_capture.h"
#include "support/scarce_memory.h"

#include <vexel/archive.h>

#include <windows.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <new>
#include <string>

using namespace std::string_view_literals;
using Support::noise;
using Vexel::Storage::SZipArchive;
using Vexel::Storage::Engine::Platform;
using Vexel::Storage::Engine::platform;

namespace {

using Contents = std::map<std::wstring, std::string>;

Platform real;
unsigned callsLeft = 0;
bool persistent = false;
bool hit = false;

/// Whether the call at hand is one that fails, with this error.
bool fails(DWORD error) {
    if (callsLeft > 0) {
        --callsLeft;
        return false;
    }
    if (hit && !persistent)
        return false;
    hit = true;
    SetLastError(error);
    return true;
}

/// For the main thread's allocation `n`.
void failAllocations(int n, bool forGood) {
    hit = false;
    persistent = forGood;
    AtMainAllocation(n, [] {
        hit = true;
        if (persistent)
            failAllocations(0, true);
        throw std::bad_alloc();
    });
}

struct Call {
    const char* name;
    DWORD error;
    bool isAfterwards; ///< whether there are such calls after the file was replaced
    void (*break_)(Platform& calls);
};

// The engine reads through the same calls when it opens the file, copies packed data and decodes.
const Call calls[] = {
    {"create", ERROR_ACCESS_DENIED, true,
     [](Platform& p) {
         p.createFile = [](const wchar_t* name, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
                           DWORD how, DWORD flags, HANDLE model) {
             return fails(ERROR_ACCESS_DENIED)
                        ? INVALID_HANDLE_VALUE
                        : real.createFile(name, access, share, security, how, flags, model);
         };
     }},
    {"read", ERROR_CRC, true,
     [](Platform& p) {
         p.readFile = [](HANDLE file, void* data, DWORD size, DWORD* count, OVERLAPPED* at) -> BOOL {
             return !fails(ERROR_CRC) && real.readFile(file, data, size, count, at);
         };
     }},
    {"write", ERROR_DISK_FULL, false,
     [](Platform& p) {
         p.writeFile = [](HANDLE file, const void* data, DWORD size, DWORD* count, OVERLAPPED* at) -> BOOL {
             return !fails(ERROR_DISK_FULL) && real.writeFile(file, data, size, count, at);
         };
     }},
    {"flush", ERROR_WRITE_FAULT, false,
     [](Platform& p) {
         p.flushFile = [](HANDLE file) -> BOOL { return !fails(ERROR_WRITE_FAULT) && real.flushFile(file); };
     }},
    {"move", ERROR_SHARING_VIOLATION, false,
     [](Platform& p) {
         p.moveFile = [](const wchar_t* from, const wchar_t* to, DWORD flags) -> BOOL {
             return !fails(ERROR_SHARING_VIOLATION) && real.moveFile(from, to, flags);
         };
     }},
};

class SaveFaults : public testing::Test {
protected:
    /// `large`: the size of the item that stays.
    explicit SaveFaults(std::size_t large = 1'200'000) : large_(noise(large)) {}

    void SetUp() override {
        real = platform();
        SZipArchive archive(model_, false, true);
        for (const auto& [path, bytes] : old_)
            ASSERT_EQ(bytes == Support::directoryMark ? archive.createDirectory(path.c_str(), true, false)
                                                      : Support::writeItem(archive, path.c_str(), bytes),
                      S_OK);
        ASSERT_EQ(archive.save(false), S_OK);
    }
    void TearDown() override {
        platform() = real;
        AtMainAllocation(0, nullptr);
    }

    void makeOld() const { ASSERT_TRUE(CopyFileW(model_.c_str(), path_.c_str(), FALSE)); }
    void open(SZipArchive& archive) { ASSERT_EQ(archive.reload(), S_OK); }
    void change(SZipArchive& archive) {
        ASSERT_EQ(Support::writeItem(archive, L"a", "changed"), S_OK);
        ASSERT_EQ(archive.remove(L"c"sv), S_OK);
        ASSERT_EQ(archive.move(L"d/b"sv, L"e"sv), S_OK);
        ASSERT_EQ(Support::writeItem(archive, L"d/new", "x"), S_OK);
    }
    Contents onDisk() const {
        SZipArchive archive(path_, true, true);
        EXPECT_EQ(archive.reload(), S_OK);
        return Support::contentsOf(archive);
    }

    /// What holds after a save, however it ended. `isReplaced`: whether a failed one may have put the new
    /// file in its place.
    void verifySaved(SZipArchive& archive, HRESULT status, bool isReplaced = true) {
        const Contents now = onDisk();
        EXPECT_TRUE((now == new_ && (SUCCEEDED(status) || isReplaced)) || (FAILED(status) && now == old_));
        EXPECT_FALSE(std::filesystem::exists(path_ + L".7ztmp"));
        EXPECT_EQ(archive.isChanged(), FAILED(status));
        if (FAILED(status)) {
            EXPECT_EQ(archive.save(false), S_OK);
        }
        EXPECT_EQ(Support::contentsOf(archive), new_);
        EXPECT_EQ(onDisk(), new_);
    }

    const std::string large_;
    Support::TempFolder folder_;
    std::wstring path_ = folder_.file(L"a.7z");
    std::wstring model_ = folder_.file(L"old.7z");
    const Contents old_{
        {L"a", "first"}, {L"c", ""}, {L"d", Support::directoryMark}, {L"d/b", noise(50'000)}, {L"f", large_}};
    const Contents new_{{L"a", "changed"},
                        {L"d", Support::directoryMark},
                        {L"d/new", "x"},
                        {L"e", noise(50'000)},
                        {L"f", large_}};
    LogCapture quiet_;
};

class ScarceMemory : public SaveFaults {
protected:
    ScarceMemory() : SaveFaults(50'000) {}
    void SetUp() override {
        SaveFaults::SetUp();
        platform().flushFile = [](HANDLE) -> BOOL { return TRUE; }; // takes most of the time
    }
};

TEST_F(SaveFaults, NoFailingCallCostsADocument) {
    for (const Call& call : calls)
        for (const bool forGood : {false, true})
            for (unsigned n = 0;; ++n) {
                SCOPED_TRACE(std::string(call.name) + (forGood ? " from call " : " only call ") +
                             std::to_string(n));
                makeOld();
                SZipArchive archive(path_, false, true);
                open(archive);
                change(archive);
                callsLeft = n;
                persistent = forGood;
                hit = false;
                call.break_(platform());
                const HRESULT status = archive.save(false);
                platform() = real;
                // A call that is repeated may fail once without harm.
                const auto expected = static_cast<HRESULT>(0x80030000 | call.error);
                EXPECT_TRUE(hit ? status == expected || !forGood : status == S_OK) << std::hex << status;
                EXPECT_TRUE(hit || n > 0);
                verifySaved(archive, status, call.isAfterwards);
                if (!hit || HasFailure())
                    break;
            }
}

TEST_F(ScarceMemory, NeverCostsADocument) {
    for (const bool forGood : {false, true})
        for (int n = 0;; n += forGood ? 7 : 1) { // there are hundreds of places
            SCOPED_TRACE((forGood ? "from allocation " : "only allocation ") + std::to_string(n));
            makeOld();
            SZipArchive archive(path_, false, true);
            open(archive);
            change(archive);
            failAllocations(n, forGood);
            const HRESULT status = archive.save(false);
            AtMainAllocation(0, nullptr);
            // Without memory to read ahead, the file is read piece by piece.
            EXPECT_TRUE(status == STG_E_INSUFFICIENTMEMORY || status == E_OUTOFMEMORY ||
                        (status == S_OK && !(hit && forGood)))
                << std::hex << status;
            verifySaved(archive, status);
            if (!hit || HasFailure())
                break;
        }
}

TEST_F(ScarceMemory, AFailedReloadKeepsWhatIsInMemory) {
    for (const bool memory : {false, true})
        for (int n = 0;; ++n) {
            SCOPED_TRACE((memory ? "allocation " : "read ") + std::to_string(n));
            makeOld();
            SZipArchive archive(path_, false, true);
            open(archive);
            change(archive);
            failAllocations(memory ? n : -1, false);
            callsLeft = static_cast<unsigned>(n);
            if (!memory)
                calls[1].break_(platform());
            const HRESULT status = archive.reload();
            platform() = real;
            AtMainAllocation(0, nullptr);
            EXPECT_EQ(FAILED(status), hit) << std::hex << status;
            if (!hit || HasFailure())
                break;
            EXPECT_EQ(archive.save(false), S_OK);
            EXPECT_EQ(onDisk(), new_);
        }
}

// Other programs often have a document open for a moment: to look for viruses, to back it up, to show it.
TEST_F(SaveFaults, AFileInUseCanBeSavedLater) {
    makeOld();
    SZipArchive archive(path_, false, true);
    open(archive);
    change(archive);
    HRESULT status = S_OK;
    {
        const Vexel::Detail::FileHandle other(
            CreateFileW(path_.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
        ASSERT_TRUE(other);
        status = archive.save(false);
        EXPECT_EQ(status, STG_E_ACCESSDENIED);
    }
    verifySaved(archive, status);
}

// The file has been replaced, but cannot be read back before something else is written.
TEST_F(SaveFaults, WhatIsWrittenInBetweenIsSavedLater) {
    makeOld();
    SZipArchive archive(path_, false, true);
    open(archive);
    change(archive);
    Microsoft::WRL::ComPtr<IStream> stream;
    ASSERT_EQ(archive.extractFile(&stream, L"d/new"sv), S_OK);
    callsLeft = 2; // the temporary file is made and read
    persistent = hit = false;
    calls[0].break_(platform());
    EXPECT_EQ(archive.save(false), STG_E_ACCESSDENIED);
    platform() = real;
    EXPECT_EQ(onDisk(), new_);
    EXPECT_EQ(stream->Write("late", 4, nullptr), S_OK);
    std::string bytes;
    EXPECT_EQ(Support::readItem(archive, L"f", bytes), S_OK); // which reads the file first
    EXPECT_EQ(archive.save(false), S_OK);
    EXPECT_EQ(onDisk().at(L"d/new"), "late");
}

// What a process that was killed left behind is neither read nor in the way.
TEST_F(SaveFaults, AStaleTemporaryDoesNoHarm) {
    makeOld();
    Support::writeFile(path_ + L".7ztmp", std::string(1'000'000, '7'));
    SZipArchive archive(path_, false, true);
    open(archive);
    change(archive);
    verifySaved(archive, archive.save(true));
}

} // namespace
