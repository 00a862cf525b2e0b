// What only shows in the DLL itself: its static objects, and those of its clients, are destroyed when the
// system has ended all other threads, wherever they were; and it can be unloaded.

#include <windows.h>

#include <gtest/gtest.h>
#include <process.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

namespace fs = std::filesystem;

namespace {

constexpr wchar_t kVariable[] = L"VEXEL_TEST_EXIT";
constexpr UINT kEndedWell = 42;

/// exit_client.dll, loaded: only by it is the DLL in the process. A function that is missing crashes the
/// caller.
class Client {
public:
    void leaveFiles(bool withThread) const { find<void (*)(bool)>(library_, "leaveFiles")(withThread); }
    bool beBusy(const std::wstring& activity, const std::wstring& folder) const {
        using Call = bool (*)(const wchar_t*, const wchar_t*);
        return find<Call>(library_, "beBusy")(activity.c_str(), folder.c_str());
    }
    /// To be called last: the process ends with `kEndedWell` as soon as the library's DLLs are let go of.
    void prepareEnd() const { find<void (*)(UINT)>(guard_, "prepareEnd")(kEndedWell); }
    void unload() const { FreeLibrary(library_); }

private:
    template <class Function>
    static Function find(HMODULE module, const char* name) {
        return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
    }
    HMODULE guard_ = LoadLibraryW(L"runtime_guard.dll"); // first: what is loaded last ends first
    HMODULE library_ = LoadLibraryW(L"exit_client.dll");
};

/// Not a test of its own: what the others run in a second process.
TEST(ProcessExitChild, DISABLED_Ends) {
    const std::wstring order = _wgetenv(kVariable); // the activity, a blank, the way to end
    const std::size_t blank = order.find(L' ');
    const Client client;
    client.leaveFiles(true);
    ASSERT_TRUE(client.beBusy(order.substr(0, blank), std::wstring(_wgetenv(L"TMP")) + L"\\..\\"));
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
    const auto handle =
        reinterpret_cast<HANDLE>(_wspawnl(_P_NOWAIT, _wpgmptr, L"child", L"--gtest_also_run_disabled_tests",
                                          L"--gtest_filter=ProcessExitChild.*", nullptr));
    const std::unique_ptr<void, decltype(&CloseHandle)> child(handle, CloseHandle);
    DWORD exitCode = WAIT_TIMEOUT;
    if (WaitForSingleObject(child.get(), 30000) == WAIT_OBJECT_0)
        GetExitCodeProcess(child.get(), &exitCode);
    else
        TerminateProcess(child.get(), exitCode);
    return exitCode;
}

/// A directory with one for temporary files in it, which are this process's and its children's.
class ProcessExit : public testing::Test {
protected:
    ProcessExit() {
        fs::create_directories(temporary_);
        _wputenv_s(L"TMP", temporary_.c_str());
        fs::copy_file(VEXEL_TEST_DATA_DIR "/namesdemo.xls", root_ / "document.xls",
                      fs::copy_options::skip_existing);
    }
    ~ProcessExit() override {
        _wputenv_s(L"TMP", usual_.c_str());
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
    std::wstring usual_ = _wgetenv(L"TMP");
    fs::path root_ = fs::temp_directory_path() / ("vexel exit " + std::to_string(GetCurrentProcessId()));
    fs::path temporary_ = root_ / "temporary";
};

TEST_F(ProcessExit, WaitsForNobodyAndLeavesNothing) {
    // Rounds of 27 exits, which take 9 seconds.
    const char* const wanted = std::getenv("VEXEL_TEST_EXITS");
    const long rounds = wanted ? std::strtol(wanted, nullptr, 10) : 2;
    for (long round = 0; round < rounds; ++round) {
        for (const std::wstring activity :
             {L"nothing", L"threads", L"log", L"open", L"save", L"copy", L"name", L"files", L"all"}) {
            for (const wchar_t* way : {L" return", L" exit", L" ExitProcess"}) {
                _wputenv_s(kVariable, (activity + way).c_str());
                EXPECT_EQ(runChild(), kEndedWell) << fs::path(activity + way) << round;
                EXPECT_EQ(leftBehind(), "") << fs::path(activity + way) << round;
            }
        }
    }
}

TEST_F(ProcessExit, TheDllCanBeUnloadedUntilItHasAThread) {
    for (const bool withThread : {false, false, true}) {
        const Client client;
        client.leaveFiles(withThread);
        client.unload();
        const bool isLoaded = GetModuleHandleW(L"vexelstorage.dll") != nullptr;
        EXPECT_EQ(isLoaded, withThread) << "the thread runs its code";
        if (!withThread) {
            EXPECT_EQ(leftBehind(), "");
        }
    }
}

} // namespace
