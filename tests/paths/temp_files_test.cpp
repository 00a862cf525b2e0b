#include "base/handles.h"
#include "base/platform.h"
#include "paths/temp_names.h"
#include "support/log_capture.h"
#include "support/platform_guard.h"
#include "support/scarce_memory.h"

#include <vexel/paths.h>
#include <vexel/temp_files.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

using Vexel::FileSystemEntryExists;
using Vexel::Detail::FileHandle;
using Vexel::Detail::platform;

namespace {

DWORD tick;
DWORD deleteError;
int deletesBeforeFailure;

TempFileContainer& Registry() { return TempFileContainer::Instance(); }

void Write(const SharedPathName& name, std::string_view text = "x") {
    std::ofstream(name.asString(), std::ios::binary) << text;
}

bool Exists(const SharedPathName& name) { return FileSystemEntryExists(name.asString()); }

/// Keeps others from writing and deleting the file.
FileHandle Lock(const SharedPathName& name) {
    return FileHandle(
        CreateFileW(name.asString(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
}

template <class Condition>
bool WakeThreadUntil(Condition condition) {
    for (int attempts = 0; attempts < 5000; ++attempts) {
        Registry().clear();
        if (condition())
            return true;
        Sleep(1);
    }
    return false;
}

class TempFiles : public testing::Test {
protected:
    ~TempFiles() override { Registry().clearAll(); }

    SharedPathName insertFile() {
        SharedPathName name = Registry().insert(nullptr, L"tmp", false, false);
        Write(name);
        return name;
    }
    static void refuseThreads() {
        platform().startThread = [](const std::function<void()>&) -> std::thread {
            throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
        };
    }
    static void refuseDeletion(DWORD error) {
        deleteError = error;
        platform().deleteFile = [](const wchar_t*) -> BOOL {
            SetLastError(deleteError);
            return FALSE;
        };
    }
    std::ptrdiff_t failuresLogged() const { return log_.count(7, L"Failed to delete temporary file \""); }

    PlatformGuard platform_;
    LogCapture log_;
};

template <class... Numbers>
std::wstring Formatted(const wchar_t* format, Numbers... numbers) {
    CString text;
    text.Format(format, numbers...);
    return text.GetString();
}

TEST_F(TempFiles, HaveNamesOfOneShape) {
    wchar_t directory[MAX_PATH]{};
    GetTempPathW(MAX_PATH, directory);
    GetLongPathNameW(directory, directory, MAX_PATH);
    FILETIME created{};
    FILETIME ignored{};
    GetProcessTimes(GetCurrentProcess(), &created, &ignored, &ignored, &ignored);
    const std::wstring tag = Formatted(L"-18-%08lx-%08lx%08lx-", GetCurrentProcessId(),
                                       created.dwHighDateTime, created.dwLowDateTime);

    const SharedPathName first = Registry().insert(nullptr, L"tmp", false, false);
    const std::wstring start = directory + (L"vexelapp" + tag);
    std::wstring text = first.asString();
    ASSERT_TRUE(text.starts_with(start)) << std::string(text.begin(), text.end());
    EXPECT_FALSE(Exists(first));
    unsigned long long counter = std::stoull(text.substr(start.size()), nullptr, 16);

    const auto next = [&counter] { return Formatted(L"%llx", ++counter); };
    EXPECT_EQ(Registry().insert(L"", L".tmp", false, false).asString(), start + next() + L".tmp");
    EXPECT_EQ(Registry().generateUniqueFileName(L"p", nullptr), (L'p' + tag + next()).c_str());
    EXPECT_EQ(Registry().generateUniqueFileName(L"p", L""), (L'p' + tag + next() + L'.').c_str());
    EXPECT_EQ(Registry().generateUniqueFileName(L"p", L"..x"), (L'p' + tag + next() + L"..x").c_str());
}

TEST_F(TempFiles, NamesDoWithoutWhatTheSystemDoesNotTell) {
    platform().getTempPath = [](DWORD, wchar_t*) -> DWORD {
        SetLastError(ERROR_NOT_READY);
        return 0;
    };
    platform().getProcessTimes = [](HANDLE, FILETIME*, FILETIME*, FILETIME*, FILETIME*) -> BOOL {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    };
    const Vexel::Detail::TempNaming naming = Vexel::Detail::computeTempNaming();
    EXPECT_STREQ(naming.directory.data(), L"C:\\Temp"); // and no separator
    EXPECT_EQ(naming.processTag.data(), Formatted(L"-18-%08lx", GetCurrentProcessId()));
    EXPECT_EQ(log_.count(7, L"Failed to get the path to the temporary directory: 0x00000015"), 1);
    EXPECT_EQ(log_.count(7, L"Failed to get timing information of the process: 0x00000005"), 1);
}

TEST_F(TempFiles, AreDeletedByTheThreadWhenItIsWoken) {
    EXPECT_TRUE(Registry().clear()); // nothing is marked
    const SharedPathName file = insertFile();
    Registry().erase(file);
    Registry().erase(file);
    EXPECT_TRUE(WakeThreadUntil([&] { return !Registry().contains(file); }));
    EXPECT_FALSE(Exists(file));
    EXPECT_TRUE(Registry().clear());

    // A thread that was only just started, and never woken, stops all the same.
    for (int i = 0; i < 50; ++i) {
        Registry().clearAll();
        Registry().erase(insertFile());
    }
    Registry().clearAll();
    EXPECT_TRUE(Registry().clear());
}

TEST_F(TempFiles, InUseAreTriedAgainAndReportedOnce) {
    const SharedPathName name = insertFile();
    const SharedPathName other = insertFile();
    {
        const FileHandle user = Lock(name);
        Registry().erase(name);
        EXPECT_TRUE(WakeThreadUntil([this] { return failuresLogged() > 0; }));
        Registry().erase(other);
        EXPECT_TRUE(WakeThreadUntil([&] { return !Registry().contains(other); })); // a later pass
        EXPECT_EQ(log_.count(7, std::wstring(name.asString()) + L"\": 0x00000020"), 1);
        EXPECT_EQ(failuresLogged(), 1);
        EXPECT_TRUE(Registry().contains(name));
        EXPECT_FALSE(Registry().clear());
    }
    EXPECT_TRUE(WakeThreadUntil([&] { return !Registry().contains(name); }));
    EXPECT_FALSE(Exists(name));
}

TEST_F(TempFiles, FailuresAreReportedOnceAMinute) {
    const SharedPathName name = insertFile();
    platform().getTickCount = [] { return tick; };
    struct {
        DWORD tick, error;
        bool logged;
    } const passes[] = {
        {0xFFFFFF00, 5, true}, {0xFFFFFFFF, 5, false}, {0x0000E960, 5, false}, // 60000 ms, over the wrap
        {0x0000E961, 5, true}, {0x0000E962, 32, true}, {0x0000E963, 32, false}, {0x0000E964, 5, true},
    };
    std::ptrdiff_t expected = 0;
    for (const auto& pass : passes) {
        tick = pass.tick;
        refuseDeletion(pass.error);
        Registry().clearAll();
        EXPECT_EQ(failuresLogged(), expected += pass.logged) << &pass - passes;
        EXPECT_TRUE(Registry().contains(name));
    }
    refuseDeletion(ERROR_FILE_NOT_FOUND); // gone by itself
    Registry().clearAll();
    EXPECT_FALSE(Registry().contains(name));
    EXPECT_EQ(failuresLogged(), expected);
    DeleteFileW(name.asString());
}

TEST_F(TempFiles, AreDeletedAtOnceWithoutAThread) {
    refuseThreads();
    const SharedPathName name = insertFile();
    Registry().erase(name);
    EXPECT_EQ(log_.count(7, L"Failed to start the temporary file deletion thread: "), 1);
    EXPECT_FALSE(Registry().contains(name));
    EXPECT_FALSE(Exists(name));
    EXPECT_TRUE(Registry().clear());
    const SharedPathName used = insertFile();
    {
        const FileHandle user = Lock(used);
        Registry().erase(used);
        EXPECT_EQ(failuresLogged(), 1);
        EXPECT_FALSE(Registry().clear());
        Registry().release(used); // marked, so it stays
        EXPECT_TRUE(Registry().contains(used));
    }
    EXPECT_TRUE(Registry().clear());
    EXPECT_FALSE(Exists(used));
}

// The end of the process may stop a thread that holds the registry's lock.
TEST_F(TempFiles, AreDeletedAtTheEndWhoeverHoldsTheLock) {
    static std::atomic<bool> held;
    static std::atomic<bool> over;
    held = over = false;
    const auto startThread = platform().startThread;
    refuseThreads();
    const SharedPathName first = insertFile();
    const SharedPathName second = insertFile();
    platform().deleteFile = [](const wchar_t* path) -> BOOL {
        held = true;
        while (!over)
            Sleep(1);
        return DeleteFileW(path);
    };
    std::jthread holder([&first] { Registry().erase(first); });
    while (!held)
        Sleep(1);
    platform().deleteFile = DeleteFileW;
    platform().startThread = startThread; // not to be tried any more
    platform().processIsEnding = [] { return true; };
    Registry().erase(second);
    EXPECT_FALSE(Exists(second));
    const SharedPathName third = insertFile(); // without the lock, too
    EXPECT_TRUE(Registry().contains(third));
    Registry().release(third);
    EXPECT_FALSE(Registry().contains(third));
    EXPECT_TRUE(DeleteFileW(third.asString()));
    over = true;
    holder.join();
}

TEST_F(TempFiles, ClearAllDeletesWhatItCan) {
    for (int n = 0; n <= 3; ++n) {
        Registry().clearAll(); // what this round or another test has left
        const SharedPathName files[] = {insertFile(), insertFile(), insertFile()};
        deletesBeforeFailure = n;
        platform().deleteFile = [](const wchar_t* path) -> BOOL {
            SetLastError(ERROR_ACCESS_DENIED);
            return deletesBeforeFailure-- != 0 && DeleteFileW(path);
        };
        Registry().clearAll();
        int left = 0;
        for (const SharedPathName& file : files) {
            EXPECT_EQ(Exists(file), Registry().contains(file));
            left += Exists(file);
        }
        EXPECT_EQ(left, n < 3 ? 1 : 0);
    }
}

TEST_F(TempFiles, ThreadOutlivesWantOfMemory) {
    const SharedPathName name = insertFile();
    Registry().erase(name);
    FailAllocationsElsewhere(1);
    EXPECT_TRUE(WakeThreadUntil(
        [this] { return log_.count(7, L"Failed to collect the temporary files to delete: ") == 1; }));
    EXPECT_TRUE(WakeThreadUntil([&] { return !Registry().contains(name); }));
}

TEST_F(TempFiles, HeldFilesGoWithTheirHandle) {
    const SharedPathName name = insertFile();
    EXPECT_EQ(Registry().insert(name, true, true), name);
    Registry().release(name);
    EXPECT_TRUE(Registry().contains(name)); // held, so it stays
    refuseDeletion(ERROR_ACCESS_DENIED);
    Registry().erase(name);
    EXPECT_FALSE(Exists(name)); // closing was enough

    // Of a link the link itself goes, not what it leads to.
    platform().createFile = [](const wchar_t*, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES,
                               DWORD creation, DWORD flags, HANDLE) {
        EXPECT_EQ(access, 0U);
        EXPECT_EQ(share, static_cast<DWORD>(FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE));
        EXPECT_EQ(creation, static_cast<DWORD>(OPEN_EXISTING));
        EXPECT_EQ(flags, static_cast<DWORD>(FILE_FLAG_DELETE_ON_CLOSE | FILE_FLAG_OPEN_REPARSE_POINT));
        return INVALID_HANDLE_VALUE;
    };
    const SharedPathName missing = Registry().insert(nullptr, L"tmp", true, false);
    Registry().release(missing); // there was nothing to hold
    EXPECT_FALSE(Registry().contains(missing));
}

TEST_F(TempFiles, UnknownNamesAreLeftAlone) {
    const SharedPathName name = insertFile();
    Registry().release(name);
    EXPECT_FALSE(Registry().contains(name));
    Registry().erase(name);
    Registry().release(name);
    for (const SharedPathName& null : {SharedPathName(), Registry().insert(SharedPathName(), true, false)}) {
        EXPECT_FALSE(Registry().contains(null));
        Registry().erase(null);
        Registry().release(null);
    }
    Registry().clearAll();
    EXPECT_TRUE(Exists(name));
    DeleteFileW(name.asString());
}

TEST_F(TempFiles, CopiesAreWritable) {
    const SharedPathName source = insertFile();
    SetFileAttributesW(source.asString(), FILE_ATTRIBUTE_READONLY);
    unsigned long error = 1;
    const SharedPathName copy = Registry().insertCopy(source.asString(), L"copy", L"x", &error, false, false);
    ASSERT_FALSE(copy.empty());
    EXPECT_EQ(error, 0UL);
    EXPECT_TRUE(Registry().contains(copy));
    EXPECT_EQ(GetFileAttributesW(copy.asString()) & FILE_ATTRIBUTE_READONLY, 0U);
    EXPECT_EQ(log_.count(2, std::wstring(L"Copying file \"") + source.asString() + L"\" to \"" +
                                copy.asString() + L"\"..."),
              1);

    platform().setAttributes = [](const wchar_t*, DWORD) -> BOOL {
        SetLastError(ERROR_WRITE_PROTECT);
        return FALSE;
    };
    const SharedPathName stuck =
        Registry().insertCopy(source.asString(), nullptr, L"x", nullptr, false, false);
    EXPECT_TRUE(Exists(stuck));
    EXPECT_EQ(log_.count(6, std::wstring(L"Failed to change attributes of the file \"") + stuck.asString() +
                                L"\": 0x00000013"),
              1);
    SetFileAttributesW(source.asString(), FILE_ATTRIBUTE_NORMAL);
    SetFileAttributesW(stuck.asString(), FILE_ATTRIBUTE_NORMAL);
}

TEST_F(TempFiles, FailedCopiesLeaveNothing) {
    refuseThreads();
    unsigned long error = 0;
    for (const wchar_t* source : {static_cast<const wchar_t*>(nullptr), L""}) {
        EXPECT_TRUE(Registry().insertCopy(source, nullptr, L"x", &error, false, false).empty());
        EXPECT_EQ(error, static_cast<unsigned long>(ERROR_INVALID_PARAMETER));
    }
    EXPECT_TRUE(Registry().insertCopy(L"C:\\no such file", nullptr, L"x", &error, false, false).empty());
    EXPECT_EQ(error, static_cast<unsigned long>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(log_.count(7, L"Failed to copy file \"C:\\no such file\" to \""), 1);
    static std::wstring half;
    platform().copyFile = [](const wchar_t*, const wchar_t* to, BOOL) -> BOOL {
        half = to;
        std::ofstream(to) << "half";
        SetLastError(ERROR_DISK_FULL);
        return FALSE;
    };
    EXPECT_TRUE(Registry().insertCopy(L"C:\\full", nullptr, L"x", &error, false, false).empty());
    EXPECT_FALSE(FileSystemEntryExists(half));
    EXPECT_TRUE(Registry().clear());
    EXPECT_EQ(failuresLogged(), 0);
}

TEST_F(TempFiles, LocalContainerHandsItsNamesOver) {
    refuseThreads(); // so that each file goes at once
    SharedPathName given, made, copied, dropped;
    const auto left = [&] { return Exists(made) + Exists(given) + Exists(copied); };
    {
        TempLocalFileContainer first;
        made = first.Add(L"local", L"tmp", false, false);
        Write(made);
        TempLocalFileContainer second(std::move(first));
        given = second.Add(insertFile(), false, false);
        copied = second.AddCopy(made.asString(), nullptr, L"tmp", nullptr, false, false);
        EXPECT_TRUE(second.AddCopy(L"", nullptr, L"tmp", nullptr, false, false).empty());

        TempLocalFileContainer assigned;
        dropped = assigned.Add(insertFile(), false, false);
        assigned = std::move(second);
        TempLocalFileContainer& itself = assigned;
        assigned = std::move(itself);
        EXPECT_EQ(left(), 3);
    }
    EXPECT_EQ(left(), 0);
    EXPECT_TRUE(Exists(dropped)); // still registered, for the end of the process
    EXPECT_TRUE(Registry().contains(dropped));
}

// The last tests: what they do to the count of marks cannot be undone.

TEST_F(TempFiles, RegistryServesManyThreads) {
    std::mutex mutex;
    std::set<std::wstring> all;
    std::vector<std::jthread> threads;
    for (int number = 0; number < 3; ++number)
        threads.emplace_back([&] {
            std::vector<std::wstring> names;
            for (int i = 0; i < 5000; ++i)
                names.emplace_back(Registry().generateUniqueFileName(nullptr, L"x").GetString());
            for (int i = 0; i < 60; ++i) {
                const SharedPathName name = insertFile();
                Registry().erase(name);
                if (i % 3 == 0)
                    Registry().insert(name, false, false);
                Registry().erase(name);
            }
            const std::lock_guard lock(mutex);
            all.insert(names.begin(), names.end());
        });
    threads.clear();
    EXPECT_EQ(all.size(), 15000U);
    Registry().clearAll();
    EXPECT_EQ(failuresLogged(), 0);
}

TEST_F(TempFiles, MarkedAgainWhileTheThreadDeletesThemStayMarked) {
    static SharedPathName name;
    name = insertFile();
    platform().deleteFile = [](const wchar_t* path) -> BOOL {
        platform().deleteFile = DeleteFileW;
        const BOOL deleted = DeleteFileW(path);
        Registry().insert(name, false, false);
        Write(name);
        Registry().erase(name);
        return deleted;
    };
    Registry().erase(name);
    EXPECT_TRUE(WakeThreadUntil([] { return !Registry().contains(name); }));
    EXPECT_FALSE(Exists(name));
    name.clear();
}

TEST_F(TempFiles, MarkTakenBackGoesOnCounting) {
    refuseThreads();
    const SharedPathName name = insertFile();
    {
        const FileHandle user = Lock(name);
        Registry().erase(name);
    }
    Registry().insert(name, false, false);
    EXPECT_FALSE(Registry().clear());
    EXPECT_TRUE(Exists(name)); // registered again, so not deleted
    Registry().erase(name);
    EXPECT_FALSE(Exists(name));
    EXPECT_FALSE(Registry().clear());
}

/// Destroyed after the registry; by then its files must be gone, or the program fails.
struct AfterTheRegistry {
    std::vector<std::wstring> files;
    ~AfterTheRegistry() {
        for (const std::wstring& file : files)
            if (FileSystemEntryExists(file))
                std::_Exit(1);
    }
} afterTheRegistry;

TEST(TempFilesAtLast, GoWithTheRegistry) {
    for (const bool marked : {false, true}) {
        const SharedPathName name = Registry().insert(nullptr, L"last", false, false);
        Write(name);
        if (marked)
            Registry().erase(name);
        afterTheRegistry.files.emplace_back(name.asString());
    }
}

} // namespace
