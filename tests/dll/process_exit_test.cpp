// What only shows in the DLL itself: its static objects are destroyed when the system has ended all other
// threads, the one that deletes temporary files among them.

#include <vexel/paths.h>
#include <vexel/temp_files.h>

#include <windows.h>

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>
#include <utility>

namespace {

constexpr wchar_t variable[] = L"VEXEL_TEST_FILES";

struct Handle {
    HANDLE value;
    explicit Handle(HANDLE handle) : value(handle) {}
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() { CloseHandle(value); }
};

SharedPathName make(const std::wstring& path) {
    std::ofstream(path.c_str()) << "x";
    return {path, false, false};
}

/// Not a test of its own: what `TemporaryFilesGo` runs in a second process. Leaves files in every state.
TEST(ProcessExitChild, DISABLED_LeavesFilesBehind) {
    wchar_t value[MAX_PATH]{};
    ASSERT_NE(GetEnvironmentVariableW(variable, value, MAX_PATH), 0U);
    const std::wstring path = value;
    TempFileContainer& files = TempFileContainer::Instance();
    static TempLocalFileContainer untilTheEnd; // goes with the program, before the DLL
    untilTheEnd.Add(make(path + L"local"), false, false);
    files.insert(make(path + L"registered"), false, false);
    files.insert(make(path + L"held"), true, false);
    files.erase(files.insert(make(path + L"marked"), false, false));
    files.clear(); // wakes the thread, which may be anywhere when the process ends
    files.release(files.insert(make(path + L"released"), false, false));
    static const Handle user(CreateFileW((path + L"used").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                         FILE_FLAG_DELETE_ON_CLOSE, nullptr));
    files.erase(files.insert(SharedPathName(path + L"used", false, false), false, false));
    static const SharedPathNameFlagsCacheBlock block;
    EXPECT_TRUE(SharedPathName(path + L"held", false, false).fileExists());
    if (path.ends_with(L'!'))
        ExitProcess(0); // and nothing of the program's own is destroyed
}

DWORD runChild(const std::wstring& path) {
    SetEnvironmentVariableW(variable, path.c_str());
    wchar_t program[MAX_PATH]{};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    std::wstring command = L'"' + std::wstring(program) +
                           L"\" --gtest_also_run_disabled_tests --gtest_filter=ProcessExitChild.*";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    if (!CreateProcessW(program, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                        &process))
        return GetLastError();
    const Handle child(process.hProcess);
    const Handle thread(process.hThread);
    DWORD exitCode = WAIT_TIMEOUT;
    if (WaitForSingleObject(child.value, 60000) == WAIT_OBJECT_0)
        GetExitCodeProcess(child.value, &exitCode);
    else
        TerminateProcess(child.value, exitCode);
    return exitCode;
}

TEST(ProcessExit, TemporaryFilesGo) {
    for (const wchar_t* how : {L"returns", L"exits!"}) {
        const std::wstring path =
            std::wstring(TempFileContainer::Instance().insert(how, nullptr, false, false).asString()) + how;
        EXPECT_EQ(runChild(path), 0U);
        for (const wchar_t* file : {L"local", L"registered", L"held", L"marked", L"used"})
            EXPECT_FALSE(Vexel::FileSystemEntryExists(path + file)) << how << file;
        EXPECT_TRUE(DeleteFileW((path + L"released").c_str())) << "nobody's any more";
    }
}

} // namespace
