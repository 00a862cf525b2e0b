#include "support/compound_file.h"

#include <vexel/storage.h>
#include <vexel/temp_files.h>

#include <windows.h>

#include <gtest/gtest.h>
#include <shellapi.h>

#include <array>
#include <chrono>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <set>
#include <string>
#include <thread>

namespace {

/// Closes a kernel object.
class Handle {
public:
    explicit Handle(HANDLE handle = nullptr) noexcept : handle_(handle) {}
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() {
        if (handle_)
            CloseHandle(handle_);
    }
    HANDLE get() const noexcept { return handle_; }

private:
    HANDLE handle_;
};

HANDLE inheritableEvent() {
    SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
    return CreateEventW(&inherit, TRUE, FALSE, nullptr);
}

constexpr DWORD patience = 60'000;

/// Another process of this program that holds a compound file open for writing, with uncommitted changes,
/// until this object goes.
class Holder {
public:
    explicit Holder(const std::wstring& file) {
        std::array<wchar_t, MAX_PATH> program{};
        GetModuleFileNameW(nullptr, program.data(), static_cast<DWORD>(program.size()));
        std::wstring command = L"\"" + std::wstring(program.data()) + L"\" --hold " + number(ready_) + L" " +
                               number(finish_) + L" \"" + file + L"\"";
        STARTUPINFOW startup{};
        startup.cb = sizeof(startup);
        PROCESS_INFORMATION made{};
        EXPECT_TRUE(CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                                   &startup, &made));
        CloseHandle(made.hThread);
        process_ = made.hProcess;
        const std::array<HANDLE, 2> either{ready_.get(), process_};
        EXPECT_EQ(WaitForMultipleObjects(2, either.data(), FALSE, patience), WAIT_OBJECT_0) << "no holder";
    }
    ~Holder() {
        SetEvent(finish_.get());
        EXPECT_EQ(WaitForSingleObject(process_, patience), WAIT_OBJECT_0);
        CloseHandle(process_);
    }

private:
    static std::wstring number(const Handle& handle) {
        return std::to_wstring(reinterpret_cast<uintptr_t>(handle.get()));
    }
    Handle ready_{inheritableEvent()};
    Handle finish_{inheritableEvent()};
    HANDLE process_ = nullptr;
};

/// What the holder does; its command line is `--hold READY FINISH FILE`.
int hold() {
    int count = 0;
    wchar_t** arguments = CommandLineToArgvW(GetCommandLineW(), &count);
    const auto event = [](const wchar_t* text) {
        return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(std::wcstoull(text, nullptr, 10)));
    };
    const auto root =
        Support::openCompoundFile(arguments[4], STGM_TRANSACTED | STGM_SHARE_DENY_WRITE | STGM_READWRITE);
    if (!root)
        return 1;
    SetEvent(event(arguments[2]));
    return WaitForSingleObject(event(arguments[3]), patience) == WAIT_OBJECT_0 ? 0 : 1;
}

std::set<std::wstring> temporaryCopies() {
    std::set<std::wstring> names;
    for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::temp_directory_path()))
        if (entry.path().filename().wstring().starts_with(L"vxsv"))
            names.insert(entry.path().wstring());
    return names;
}

/// Whether the copies are deleted before long; a background thread does it.
bool soonGone(const std::set<std::wstring>& before) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (temporaryCopies() != before) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        TempFileContainer::Instance().clear();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

TEST(Sharing, WhileAnotherProcessWrites) {
    const Support::TempFolder folder;
    const std::wstring file = folder.file(L"held.cfb");
    Support::writeCompoundFile(file, {{L"Box/Note", "note"}});
    const SharedPathName path(file, false, false);
    const std::set<std::wstring> before = temporaryCopies();
    StorageRef root;
    {
        const Holder holder(file);
        EXPECT_EQ(root.open(path, RootStorageOpenMode::ReadWrite, false),
                  HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION));

        ASSERT_EQ(root.open(path, RootStorageOpenMode::ReadOnlyDenyWrite, false), S_OK);
        EXPECT_EQ(temporaryCopies().size(), before.size() + 1);
        EXPECT_EQ(root.name(), path) << "not the copy's";
        StorageRef box;
        StreamRef note;
        ASSERT_EQ(box.open(L"Box", root, true), S_OK);
        ASSERT_EQ(note.open(L"Note", box, true), S_OK);
        std::array<char, 8> bytes{};
        EXPECT_EQ(note.ReadBytes(bytes.data(), bytes.size()), 4u);
        EXPECT_STREQ(bytes.data(), "note");

        StorageRef shared;
        EXPECT_EQ(shared.open(path, RootStorageOpenMode::ReadOnly, false), S_OK) << "needs no copy";
        EXPECT_EQ(temporaryCopies().size(), before.size() + 1);
    }
    root.close();
    EXPECT_TRUE(soonGone(before)) << "the copy goes with its last handle";
    EXPECT_EQ(root.open(path, RootStorageOpenMode::ReadWrite, false), S_OK) << "the writer is gone";
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 5 && std::strcmp(argv[1], "--hold") == 0)
        return hold();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
