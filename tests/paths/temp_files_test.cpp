#include "base/handles.h"
#include "base/platform.h"
#include "paths/temp_names.h"
#include "paths/temp_records.h"
#include "support/log_capture.h"
#include "support/platform_guard.h"
#include "support/scarce_memory.h"

#include <vexel/paths.h>
#include <vexel/temp_files.h>

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

using Vexel::FileSystemEntryExists;
using namespace Vexel::Detail;

namespace {

DWORD tick;
int deletesBeforeFailure;

TempFileContainer& registry() { return TempFileContainer::Instance(); }

void write(const SharedPathName& name, std::string_view text = "x") {
    std::ofstream(name.asString(), std::ios::binary) << text;
}

bool exists(const SharedPathName& name) { return FileSystemEntryExists(name.asString()); }

/// Keeps others from writing and deleting the file.
FileHandle lock(const SharedPathName& name) {
    return FileHandle(
        CreateFileW(name.asString(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
}

template <class Condition>
bool wakeThreadUntil(Condition condition) {
    for (int attempts = 0; attempts < 5000; ++attempts) {
        registry().clear();
        if (condition())
            return true;
        Sleep(1);
    }
    return false;
}

class TempFiles : public testing::Test {
protected:
    ~TempFiles() override { registry().clearAll(); }

    SharedPathName insertFile() {
        SharedPathName name = registry().insert(nullptr, L"tmp", false, false);
        write(name);
        return name;
    }
    static void refuseThreads() {
        platform().startThread = [](const std::function<void()>&) -> std::thread {
            throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
        };
    }
    static SharedPathName insertCopy(const wchar_t* source, unsigned long* error) {
        return registry().insertCopy(source, L"copy", L"x", error, false, false);
    }
    std::ptrdiff_t failuresLogged() const { return log_.count(7, L"Failed to delete temporary file \""); }

    PlatformGuard platform_;
    LogCapture log_;
};

template <class... Numbers>
std::wstring formatted(const wchar_t* format, Numbers... numbers) {
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
    const std::wstring tag = formatted(L"-18-%08lx-%08lx%08lx-", GetCurrentProcessId(),
                                       created.dwHighDateTime, created.dwLowDateTime);

    const SharedPathName first = registry().insert(nullptr, L"tmp", false, false);
    const std::wstring start = directory + (L"vexelapp" + tag);
    std::wstring text = first.asString();
    ASSERT_TRUE(text.starts_with(start)) << std::string(text.begin(), text.end());
    EXPECT_FALSE(exists(first));
    unsigned long long counter = std::stoull(text.substr(start.size()), nullptr, 16);

    const auto next = [&counter] { return formatted(L"%llx", ++counter); };
    EXPECT_EQ(registry().insert(L"", L".tmp", false, false).asString(), start + next() + L".tmp");
    EXPECT_EQ(registry().generateUniqueFileName(L"p", nullptr), (L'p' + tag + next()).c_str());
    EXPECT_EQ(registry().generateUniqueFileName(L"p", L""), (L'p' + tag + next() + L'.').c_str());
}

TEST_F(TempFiles, NamesDoWithoutWhatTheSystemDoesNotTell) {
    refuse(platform().getTempPath, ERROR_NOT_READY);
    refuse(platform().getProcessTimes, ERROR_ACCESS_DENIED);
    const Vexel::Detail::TempNaming naming = Vexel::Detail::computeTempNaming();
    EXPECT_STREQ(naming.directory.data(), L"C:\\Temp"); // and no separator
    EXPECT_EQ(naming.processTag.data(), formatted(L"-18-%08lx", GetCurrentProcessId()));
    EXPECT_EQ(log_.count(7, L"Failed to get the path to the temporary directory: 0x00000015"), 1);
    EXPECT_EQ(log_.count(7, L"Failed to get timing information of the process: 0x00000005"), 1);
}

TEST_F(TempFiles, AreDeletedByTheThreadWhenItIsWoken) {
    EXPECT_TRUE(registry().clear()); // nothing is marked
    const SharedPathName file = insertFile();
    registry().erase(file);
    registry().erase(file);
    EXPECT_TRUE(wakeThreadUntil([&] { return !registry().contains(file); }));
    EXPECT_FALSE(exists(file));
    EXPECT_TRUE(registry().clear());

    // A thread that was only just started, and never woken, stops all the same.
    for (int i = 0; i < 50; ++i) {
        registry().clearAll();
        registry().erase(insertFile());
    }
    registry().clearAll();
    EXPECT_TRUE(registry().clear());
}

TEST_F(TempFiles, InUseAreTriedAgainAndReportedOnce) {
    const SharedPathName name = insertFile(), other = insertFile();
    FileHandle user = lock(name);
    registry().erase(name);
    EXPECT_TRUE(wakeThreadUntil([this] { return failuresLogged() > 0; }));
    registry().erase(other);
    EXPECT_TRUE(wakeThreadUntil([&] { return !registry().contains(other); })); // a later pass
    EXPECT_EQ(log_.count(7, std::wstring(name.asString()) + L"\": 0x00000020"), 1);
    EXPECT_EQ(failuresLogged(), 1);
    EXPECT_FALSE(registry().clear());
    user.close();
    EXPECT_TRUE(wakeThreadUntil([&] { return !registry().contains(name); }));
    EXPECT_FALSE(exists(name));
}

TEST_F(TempFiles, FailuresAreReportedOnceAMinute) {
    const SharedPathName name = insertFile();
    platform().getTickCount = [] { return tick; };
    constexpr DWORD kStart = 0xFFFFFF00, kMinute = 60'001; // the count of milliseconds wraps in between
    constexpr DWORD kDenied = ERROR_ACCESS_DENIED, kUsed = ERROR_SHARING_VIOLATION;
    const struct {
        DWORD passed, error;
        int logged;
    } passes[] = {{0, kDenied, 1}, {kMinute - 1, kDenied, 1}, {kMinute, kDenied, 2}, {kMinute, kUsed, 3}};
    for (const auto& pass : passes) {
        tick = kStart + pass.passed;
        refuse(platform().deleteFile, pass.error);
        registry().clearAll();
        EXPECT_EQ(failuresLogged(), pass.logged) << &pass - passes;
        EXPECT_TRUE(registry().contains(name));
    }
    refuse(platform().deleteFile, ERROR_FILE_NOT_FOUND); // gone by itself
    registry().clearAll();
    EXPECT_FALSE(registry().contains(name));
    EXPECT_EQ(failuresLogged(), 3);
    DeleteFileW(name.asString());
}

TEST_F(TempFiles, AreDeletedAtOnceWithoutAThread) {
    refuseThreads();
    const SharedPathName name = insertFile(), used = insertFile();
    FileHandle user = lock(used);
    registry().erase(name);
    EXPECT_EQ(log_.count(7, L"Failed to start the temporary file deletion thread: "), 1);
    EXPECT_FALSE(registry().contains(name));
    EXPECT_FALSE(exists(name));
    EXPECT_TRUE(registry().clear());
    registry().erase(used);
    EXPECT_EQ(failuresLogged(), 1);
    EXPECT_FALSE(registry().clear());
    registry().release(used); // marked, so it stays
    EXPECT_TRUE(registry().contains(used));
    user.close();
    EXPECT_TRUE(registry().clear());
    EXPECT_FALSE(exists(used));
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
    std::jthread holder([&first] { registry().erase(first); });
    while (!held)
        Sleep(1);
    platform().deleteFile = DeleteFileW;
    platform().startThread = startThread; // not to be tried any more
    platform().processIsEnding = [] { return true; };
    registry().erase(second);
    EXPECT_FALSE(exists(second));
    const SharedPathName third = insertFile(); // without the lock, too
    EXPECT_TRUE(registry().contains(third));
    registry().release(third);
    EXPECT_FALSE(registry().contains(third));
    EXPECT_TRUE(DeleteFileW(third.asString()));
    over = true;
    holder.join();
}

// The end of the process stops threads in the middle of a change.
TEST_F(TempFiles, AreKnownAtTheEndWhereverAThreadWasStopped) {
    std::vector<SharedPathName> names;
    for (int i = 0; i < 60; ++i)
        names.emplace_back(L"C:\\file " + std::to_wstring(i * 7 % 60), false, false);
    TempRecords records;
    for (std::size_t i = 0; i < names.size(); i += 2)
        records.findOrAdd(names[i]);
    std::atomic<bool> isOver = false;
    std::atomic<DWORD> threadId = 0;
    std::jthread changing([&] {
        threadId = GetCurrentThreadId();
        for (std::size_t i = 1; !isOver; i = (i + 2) % names.size()) {
            if (TempRecords::Entry* const file = records.find(names[i]))
                records.remove(*file);
            records.findOrAdd(names[(i + 26) % names.size()]);
        }
    });
    while (threadId == 0)
        Sleep(1);
    const FileHandle thread(OpenThread(THREAD_SUSPEND_RESUME | THREAD_GET_CONTEXT, FALSE, threadId));
    CONTEXT context{};
    context.ContextFlags = CONTEXT_CONTROL;
    for (DWORD round = 0; round < 400; ++round) {
        Sleep(round % 2);
        // Nothing takes memory while the thread stands still, for it may stand in the middle of the heap.
        SuspendThread(thread.get());
        GetThreadContext(thread.get(), &context); // waits until it does
        platform().processIsEnding = [] { return true; };
        std::size_t visited = 0, found = 0;
        records.forEach([&](const TempRecords::Entry& /*file*/) { ++visited; });
        for (std::size_t i = 0; i < names.size(); i += 2)
            found += records.find(names[i]) != nullptr;
        platform().processIsEnding = [] { return false; };
        ResumeThread(thread.get());
        ASSERT_EQ(found, names.size() / 2);
        ASSERT_GE(visited, found);
        ASSERT_LE(visited, names.size());
    }
    isOver = true;
}

TEST_F(TempFiles, ClearAllDeletesWhatItCan) {
    for (int n = 0; n <= 3; ++n) {
        registry().clearAll(); // what this round or another test has left
        const SharedPathName files[] = {insertFile(), insertFile(), insertFile()};
        deletesBeforeFailure = n;
        platform().deleteFile = [](const wchar_t* path) -> BOOL {
            SetLastError(ERROR_ACCESS_DENIED);
            return deletesBeforeFailure-- != 0 && DeleteFileW(path);
        };
        registry().clearAll();
        int left = 0;
        for (const SharedPathName& file : files) {
            EXPECT_EQ(exists(file), registry().contains(file));
            left += exists(file);
        }
        EXPECT_EQ(left, n < 3 ? 1 : 0);
    }
}

TEST_F(TempFiles, ThreadOutlivesWantOfMemory) {
    const SharedPathName name = insertFile();
    registry().erase(name);
    FailAllocationsElsewhere(1);
    EXPECT_TRUE(wakeThreadUntil(
        [this] { return log_.count(7, L"Failed to collect the temporary files to delete: ") == 1; }));
    EXPECT_TRUE(wakeThreadUntil([&] { return !registry().contains(name); }));
}

TEST_F(TempFiles, HeldFilesGoWithTheirHandle) {
    const SharedPathName name = insertFile();
    EXPECT_EQ(registry().insert(name, true, true), name);
    registry().release(name);
    EXPECT_TRUE(registry().contains(name)); // held, so it stays
    refuse(platform().deleteFile, ERROR_ACCESS_DENIED);
    registry().erase(name);
    EXPECT_FALSE(exists(name)); // closing was enough

    // Of a link the link itself goes, not what it leads to.
    platform().createFile = [](const wchar_t*, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES,
                               DWORD creation, DWORD flags, HANDLE) {
        EXPECT_EQ(access, 0U);
        EXPECT_EQ(share, static_cast<DWORD>(FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE));
        EXPECT_EQ(creation, static_cast<DWORD>(OPEN_EXISTING));
        EXPECT_EQ(flags, static_cast<DWORD>(FILE_FLAG_DELETE_ON_CLOSE | FILE_FLAG_OPEN_REPARSE_POINT));
        return INVALID_HANDLE_VALUE;
    };
    const SharedPathName missing = registry().insert(nullptr, L"tmp", true, false);
    registry().release(missing); // there was nothing to hold
    EXPECT_FALSE(registry().contains(missing));
}

TEST_F(TempFiles, UnknownNamesAreLeftAlone) {
    const SharedPathName name = insertFile();
    registry().release(name);
    EXPECT_TRUE(registry().insert(SharedPathName(), true, false).empty());
    for (const SharedPathName& unknown : {name, SharedPathName()}) {
        EXPECT_FALSE(registry().contains(unknown));
        registry().erase(unknown);
        registry().release(unknown);
    }
    registry().clearAll();
    EXPECT_TRUE(exists(name));
    DeleteFileW(name.asString());
}

TEST_F(TempFiles, CopiesAreWritable) {
    const SharedPathName source = insertFile();
    SetFileAttributesW(source.asString(), FILE_ATTRIBUTE_READONLY);
    unsigned long error = 1;
    const SharedPathName copy = insertCopy(source.asString(), &error);
    ASSERT_FALSE(copy.empty());
    EXPECT_EQ(error, 0UL);
    EXPECT_TRUE(registry().contains(copy));
    EXPECT_EQ(GetFileAttributesW(copy.asString()) & FILE_ATTRIBUTE_READONLY, 0U);
    EXPECT_EQ(log_.count(2, std::wstring(L"Copying file \"") + source.asString() + L"\" to \"" +
                                copy.asString() + L"\"..."),
              1);

    refuse(platform().setAttributes, ERROR_WRITE_PROTECT);
    const SharedPathName stuck = insertCopy(source.asString(), nullptr);
    EXPECT_TRUE(exists(stuck));
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
        EXPECT_TRUE(insertCopy(source, &error).empty());
        EXPECT_EQ(error, static_cast<unsigned long>(ERROR_INVALID_PARAMETER));
    }
    EXPECT_TRUE(insertCopy(L"C:\\no such file", &error).empty());
    EXPECT_EQ(error, static_cast<unsigned long>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(log_.count(7, L"Failed to copy file \"C:\\no such file\" to \""), 1);
    static std::wstring half;
    platform().copyFile = [](const wchar_t*, const wchar_t* to, BOOL) -> BOOL {
        half = to;
        std::ofstream(to) << "half";
        SetLastError(ERROR_DISK_FULL);
        return FALSE;
    };
    EXPECT_TRUE(insertCopy(L"C:\\full", &error).empty());
    EXPECT_FALSE(FileSystemEntryExists(half));
    EXPECT_TRUE(registry().clear());
    EXPECT_EQ(failuresLogged(), 0);
}

TEST_F(TempFiles, LocalContainerHandsItsNamesOver) {
    refuseThreads(); // so that each file goes at once
    SharedPathName given, made, copied, dropped;
    const auto left = [&] { return exists(made) + exists(given) + exists(copied); };
    {
        TempLocalFileContainer first;
        made = first.Add(L"local", L"tmp", false, false);
        write(made);
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
    EXPECT_TRUE(exists(dropped)); // still registered, for the end of the process
    EXPECT_TRUE(registry().contains(dropped));
}

// The last tests: what they do to the count of marks cannot be undone.

TEST_F(TempFiles, MarkedAgainWhileTheThreadDeletesThemStayMarked) {
    static SharedPathName name;
    name = insertFile();
    platform().deleteFile = [](const wchar_t* path) -> BOOL {
        platform().deleteFile = DeleteFileW;
        const BOOL deleted = DeleteFileW(path);
        registry().insert(name, false, false);
        write(name);
        registry().erase(name);
        return deleted;
    };
    registry().erase(name);
    EXPECT_TRUE(wakeThreadUntil([] { return !registry().contains(name); }));
    EXPECT_FALSE(exists(name));
    name.clear();
}

TEST_F(TempFiles, MarkTakenBackGoesOnCounting) {
    refuseThreads();
    const SharedPathName name = insertFile();
    FileHandle user = lock(name);
    registry().erase(name);
    user.close();
    registry().insert(name, false, false);
    EXPECT_FALSE(registry().clear());
    EXPECT_TRUE(exists(name)); // registered again, so not deleted
    registry().erase(name);
    EXPECT_FALSE(exists(name));
    EXPECT_FALSE(registry().clear());
}

} // namespace
