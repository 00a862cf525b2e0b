// What only shows in the DLL itself: its static objects, and those of its clients, are destroyed when the
// system has ended all other threads, wherever they were; and it can be unloaded.

#include <windows.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace fs = std::filesystem;

namespace {

constexpr wchar_t kVariable[] = L"VEXEL_TEST_EXIT";
constexpr UINT kEndedWell = 42;

/// exit_client.dll, loaded: only by it is the DLL in the process.
class Client {
public:
    /// To be called last: the process ends with `kEndedWell` as soon as the library's DLLs are let go of.
    void prepareEnd() const {
        if (const auto call = function<void (*)(UINT)>(guard_, "prepareEnd"))
            call(kEndedWell);
    }
    bool beBusy(const std::wstring& activity, const std::wstring& folder) const {
        const auto call = function<bool (*)(const wchar_t*, const wchar_t*)>(library_, "beBusy");
        return call && call(activity.c_str(), folder.c_str());
    }
    bool leaveFiles(bool withThread) const {
        const auto call = function<void (*)(bool)>(library_, "leaveFiles");
        if (call)
            call(withThread);
        return call != nullptr;
    }
    void unload() const { FreeLibrary(library_); }

private:
    template <class Function>
    static Function function(HMODULE library, const char* name) {
        return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(library, name)));
    }
    HMODULE guard_ = LoadLibraryW(L"runtime_guard.dll"); // first: what is loaded last ends first
    HMODULE library_ = LoadLibraryW(L"exit_client.dll");
};

struct Handle {
    HANDLE value;
    explicit Handle(HANDLE handle) : value(handle) {}
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() { CloseHandle(value); }
};

std::wstring environment(const wchar_t* name) {
    wchar_t value[MAX_PATH]{};
    return {value, GetEnvironmentVariableW(name, value, MAX_PATH)};
}

/// Not a test of its own: what the others run in a second process.
TEST(ProcessExitChild, DISABLED_Ends) {
    const std::wstring order = environment(kVariable); // the activity, a blank, the way to end
    const std::size_t blank = order.find(L' ');
    const Client client;
    ASSERT_TRUE(client.leaveFiles(true));
    ASSERT_TRUE(client.beBusy(order.substr(0, blank), environment(L"TMP") + L"\\..\\"));
    LARGE_INTEGER now{};
    QueryPerformanceCounter(&now);
    Sleep(static_cast<DWORD>(now.QuadPart % 40));
    client.prepareEnd();
    if (order.ends_with(L"ExitProcess"))
        ExitProcess(0);
    if (order.ends_with(L"exit"))
        std::exit(0);
}

DWORD runChild() {
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
    if (WaitForSingleObject(child.value, 30000) == WAIT_OBJECT_0)
        GetExitCodeProcess(child.value, &exitCode);
    else
        TerminateProcess(child.value, exitCode);
    return exitCode;
}

/// A directory with one for temporary files in it, which are this process's and its children's.
class ProcessExit : public testing::Test {
protected:
    ProcessExit() {
        fs::create_directories(temporary_);
        SetEnvironmentVariableW(L"TMP", temporary_.c_str());
        fs::copy_file(VEXEL_TEST_DATA_DIR "/namesdemo.xls", root_ / "document.xls",
                      fs::copy_options::skip_existing);
    }
    ~ProcessExit() override {
        SetEnvironmentVariableW(L"TMP", usual_.c_str());
        std::error_code error;
        fs::remove_all(root_, error);
    }

    /// The temporary files that are left, but for the one that nobody had a claim to.
    std::string leftBehind() const {
        std::string names;
        bool released = false;
        for (const fs::directory_entry& entry : fs::directory_iterator(temporary_)) {
            const std::string name = entry.path().filename().string();
            if (name.starts_with("released-"))
                released = true;
            else
                names += name + ' ';
            fs::remove(entry.path());
        }
        return released ? names : names + "(the released one is gone)";
    }

private:
    std::wstring usual_ = environment(L"TMP");
    fs::path root_ = fs::temp_directory_path() / ("vexel exit " + std::to_string(GetCurrentProcessId()));
    fs::path temporary_ = root_ / "temporary";
};

TEST_F(ProcessExit, WaitsForNobodyAndLeavesNothing) {
    // Rounds of 24 exits, which take 8 seconds.
    const char* const wanted = std::getenv("VEXEL_TEST_EXITS");
    const long rounds = wanted ? std::strtol(wanted, nullptr, 10) : 3;
    for (long round = 0; round < rounds; ++round) {
        for (const std::wstring activity :
             {L"nothing", L"threads", L"log", L"open", L"save", L"name", L"files", L"all"}) {
            for (const wchar_t* way : {L" return", L" exit", L" ExitProcess"}) {
                SetEnvironmentVariableW(kVariable, (activity + way).c_str());
                EXPECT_EQ(runChild(), kEndedWell) << fs::path(activity + way) << round;
                EXPECT_EQ(leftBehind(), "") << fs::path(activity + way) << round;
            }
        }
    }
}

TEST_F(ProcessExit, TheDllCanBeUnloadedUntilItHasAThread) {
    for (const bool withThread : {false, false, true}) {
        const Client client;
        ASSERT_TRUE(client.leaveFiles(withThread));
        client.unload();
        const bool isLoaded = GetModuleHandleW(L"vexelstorage.dll") != nullptr;
        EXPECT_EQ(isLoaded, withThread) << "the thread runs its code";
        if (!withThread) {
            EXPECT_EQ(leftBehind(), "");
        }
    }
}

} // namespace
