// A library of an application's own, as a client of the DLL: its static objects hold what the DLL hands out,
// and its threads are in the middle of their work when the process ends. process_exit_test loads it.

#include <vexel/diagnostics.h>
#include <vexel/path_name.h>
#include <vexel/storage.h>
#include <vexel/temp_files.h>

#include <windows.h>

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace {

// As an application's sink may be: it waits for a lock that an ended thread may hold.
std::mutex sinkLock;

void logToLock(int /*level*/, const wchar_t* /*message*/, void* /*context*/) {
    const std::lock_guard lock(sinkLock);
    Sleep(0);
}

/// Shared with all, so that the file can go while an ended thread still has it open.
SharedPathName write(const SharedPathName& name) {
    constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    CloseHandle(CreateFileW(name.asString(), GENERIC_WRITE, kShareAll, nullptr, CREATE_ALWAYS, 0, nullptr));
    return name;
}

/// Destroyed when the DLL is let go of: at the end of the process, when no other thread is left.
struct Statics {
    SharedPathName name;
    StorageRef compound;
    StorageRef package;
    StorageRef temporary;
    StreamRef stream;
    TempLocalFileContainer files;
    std::optional<SharedPathNameFlagsCacheBlock> block;
    HANDLE user = INVALID_HANDLE_VALUE;
    bool isUsed = false;
    bool cleansUp = false;

    ~Statics() {
        if (!isUsed)
            return;
        VxLog_WriteW(VxLog_Error, L"the process ends");
        VxLog_SetSink(nullptr, nullptr);
        const SharedPathName late(L"C:\\late\\name", false, false);
        static_cast<void>(late.getDirectory().fileExists());
        name = late;
        write(files.Add(L"late", L"tmp", false, false));
        TempFileContainer::Instance().clear();
        if (cleansUp)
            StorageContainer::Instance().deleteUnusedObjects();
        CloseHandle(user);
    }
};

Statics statics;

std::wstring folder;
std::atomic<unsigned> threads{0};

SharedPathName inFolder(const std::wstring& name) { return {folder + name, false, false}; }

void startThreads() {
    std::thread([] {}).join();
}

void log() { VxLog_WriteW(VxLog_Error, L"%d", 1); }

void openDocuments() {
    StorageRef document;
    document.open(inFolder(L"document.xls"), RootStorageOpenMode::ReadOnly, false);
    StreamRef stream;
    stream.open(L"Workbook", document, true);
    StorageContainer::Instance().deleteUnusedObjects();
}

void save() {
    thread_local const SharedPathName kPath = inFolder(L"saved" + std::to_wstring(++threads));
    StorageRef document;
    document.create(kPath);
    StreamRef stream;
    static const std::string kContents(100'000, 'x'); // worth threads for packing
    for (const wchar_t* name : {L"One", L"Two", L"Three"}) {
        stream.create(name, document);
        stream.WriteBytes(kContents.data(), kContents.size());
    }
    document.commit();
}

/// Of a compound file into a new package.
void copy() {
    thread_local const SharedPathName kPath = inFolder(L"copied" + std::to_wstring(++threads));
    StorageRef from, to;
    from.open(inFolder(L"document.xls"), RootStorageOpenMode::ReadOnly, false);
    to.create(kPath);
    from.copyTo(to);
    to.commit();
}

void name() {
    const SharedPathNameFlagsCacheBlock block;
    const SharedPathName path(L"C:\\some\\folder\\file.txt", false, false);
    static_cast<void>(path.getDirectoryPathName().fileExists());
}

void makeFiles() {
    TempLocalFileContainer files;
    write(files.Add(L"mine", L"tmp", false, false));
    Sleep(0);
}

void work(void (*step)()) {
    for (int i = 0; i < 3; ++i) {
        std::thread([step] {
            for (;;)
                step();
        }).detach();
    }
}

} // namespace

extern "C" {

/// Puts temporary files in every state, one of them only while `withThread`.
__declspec(dllexport) void leaveFiles(bool withThread) {
    TempFileContainer& files = TempFileContainer::Instance();
    const auto insert = [&files](const wchar_t* prefix) {
        return write(files.insert(prefix, L"tmp", false, false));
    };
    insert(L"registered");
    files.insert(insert(L"held"), true, false);
    files.release(insert(L"released"));
    if (!withThread)
        return;
    statics.files.Add(insert(L"local"), false, false);
    StorageContainer::Instance().setCreateOnDisk(true);
    StorageRef temporary; // stays open without a handle
    temporary.createTemporary(false);
    temporary.commit();
    files.erase(insert(L"marked"));
    files.clear(); // wakes the thread, which may be anywhere when the process ends
    const SharedPathName used = files.insert(L"used", L"tmp", false, false);
    statics.user = CreateFileW(used.asString(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                               FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    files.erase(used);
}

/// Fills the static objects, then starts threads that do `activity` for ever, in `directory`, where there is
/// a compound file "document.xls".
__declspec(dllexport) bool beBusy(const wchar_t* activity, const wchar_t* directory) {
    static const std::map<std::wstring_view, void (*)()> kActivities = {
        {L"threads", startThreads},
        {L"log", log},
        {L"open", openDocuments},
        {L"save", save},
        {L"copy", copy},
        {L"name", name},
        {L"files", makeFiles},
    };
    folder = directory;
    statics.isUsed = true;
    VxLog_SetSink(logToLock, nullptr);
    statics.name = inFolder(L"static");
    statics.block.emplace();
    statics.cleansUp = activity != std::wstring_view(L"nothing");
    const long failures[] = {
        statics.compound.open(inFolder(L"document.xls"), RootStorageOpenMode::ReadOnly, false),
        statics.stream.open(L"Workbook", statics.compound, true),
        statics.package.create(inFolder(L"package")),
        statics.temporary.createTemporary(false),
        statics.temporary.commit(),
    };
    for (const long failure : failures) {
        if (failure != S_OK)
            return false;
    }
    for (const auto& [what, step] : kActivities) {
        if (what == activity || activity == std::wstring_view(L"all"))
            work(step);
    }
    return true;
}
}
