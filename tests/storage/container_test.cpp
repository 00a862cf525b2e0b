#include "archive/platform.h"
#include "storage/error_status.h"
#include "storage/platform_storage.h"
#include "support/compound_file.h"
#include "support/handles.h"
#include "support/log_capture.h"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

using namespace Support;
using Vexel::Detail::StoragePlatform;

namespace {

/// Counts the calls that touch the disk; `failOpen` is what the next opening of a compound file answers, and
/// `stgm` are the flags of the last.
class CountedSystem {
public:
    static inline int touched;
    static inline HRESULT failOpen;
    static inline DWORD stgm;

    CountedSystem() {
        touched = 0;
        failOpen = S_OK;
        real_ = StoragePlatform();
        realFiles_ = Vexel::Storage::Engine::platform();
        Vexel::Storage::Engine::platform().createFile = [](const wchar_t* path, DWORD access, DWORD share,
                                                           SECURITY_ATTRIBUTES* security, DWORD how,
                                                           DWORD attributes, HANDLE model) {
            ++touched;
            return realFiles_.createFile(path, access, share, security, how, attributes, model);
        };
        StoragePlatform().probeForWriting = [](const wchar_t* path) {
            ++touched;
            return real_.probeForWriting(path);
        };
        StoragePlatform().openStorage = open;
    }
    CountedSystem(const CountedSystem&) = delete;
    CountedSystem& operator=(const CountedSystem&) = delete;
    ~CountedSystem() {
        StoragePlatform() = real_;
        Vexel::Storage::Engine::platform() = realFiles_;
    }

private:
    static HRESULT WINAPI open(const wchar_t* path, DWORD flags, DWORD format, DWORD attributes,
                               STGOPTIONS* options, void* security, REFIID iid, void** result) {
        ++touched;
        stgm = flags;
        if (const HRESULT status = std::exchange(failOpen, S_OK); FAILED(status))
            return status;
        return real_.openStorage(path, flags, format, attributes, options, security, iid, result);
    }
    static inline Vexel::Detail::PlatformStorage real_;
    static inline Vexel::Storage::Engine::Platform realFiles_;
};

class Container : public testing::Test {
protected:
    void SetUp() override { writeCompoundFile(file_, {{L"Box/Note", "box"}, {L"Note", "note"}}); }
    ~Container() override {
        container().setDeleteUnusedObjectsCallback(nullptr);
        container().deleteUnusedObjects();
    }

    TempFolder folder_;
    std::wstring file_ = folder_.file(L"sample.cfb");
    SharedPathName path_ = path(file_);
    LogCapture log_;
};

TEST_F(Container, OneRootForPathAndKey) {
    StorageRef shared = openRoot(path_, modeRead), keyed, keyedToo;
    EXPECT_EQ(shared, openRoot(path_, modeRead));
    EXPECT_EQ(keyed.open(path_, modeReadDenyWrite, true), S_OK);
    EXPECT_EQ(keyedToo.open(path(folder_.file(L"SAMPLE.CFB")), modeReadDenyWrite, false), S_OK);
    EXPECT_TRUE(keyed == keyedToo && shared != keyed);
    EXPECT_EQ(keyed.format(), StorageFormat::CompoundFile) << "though a package is tried first";
    EXPECT_EQ(StorageRef().create(path_), STG_E_FILEALREADYEXISTS);
    EXPECT_TRUE(shared.storage());
    shared.close();
    EXPECT_EQ(keyedToo.open(path_, modeWrite, false), S_OK);
    EXPECT_TRUE(keyedToo == keyed && !keyed.readOnly());
    EXPECT_EQ(log_.count(VxLog_Minor, L""), 0);
}

TEST_F(Container, MissingFilesAreAskedForOnce) {
    const CountedSystem system;
    const SharedPathName missing = path(folder_.file(L"missing"));
    StorageRef root;
    const auto openings = [&](RootStorageOpenMode mode, long status) {
        const int before = CountedSystem::touched;
        EXPECT_EQ(root.open(missing, mode, false), status);
        return CountedSystem::touched - before;
    };
    EXPECT_EQ(openings(modeRead, STG_E_FILENOTFOUND), 1);
    EXPECT_EQ(openings(modeRead, STG_E_FILENOTFOUND), 1) << "nothing is kept without the flags' cache";
    for (const RootStorageOpenMode first : {modeRead, modeWrite}) {
        const SharedPathNameFlagsCacheBlock block;
        const long status =
            first == modeWrite ? HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND) : STG_E_FILENOTFOUND;
        EXPECT_EQ(openings(first, status), 1);
        for (const RootStorageOpenMode mode : {modeRead, modeReadDenyWrite, modeWrite})
            EXPECT_EQ(openings(mode, status), 0) << "the first answer stands";
        EXPECT_EQ(log_.count(VxLog_Minor, L"missing\": 0x8"), first == modeRead ? 3 : 4)
            << "nor logged again";
    }
    EXPECT_EQ(openings(modeWrite, HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)), 1) << "kept by no block";
    const SharedPathNameFlagsCacheBlock block;
    EXPECT_FALSE(missing.fileExists());
    EXPECT_EQ(openings(modeRead, STG_E_FILENOTFOUND), 0) << "known without having been opened";
    writeCompoundFile(missing.asString(), {{L"Note", ""}});
    EXPECT_EQ(openings(modeRead, STG_E_FILENOTFOUND), 0) << "until somebody looks";
    missing.updateFileExists();
    EXPECT_EQ(openings(modeRead, S_OK), 2);
    root.close();
    const SharedPathName made = path(folder_.file(L"made")), text = path(folder_.file(L"text"));
    EXPECT_EQ(root.open(made, modeRead, false), STG_E_FILENOTFOUND);
    EXPECT_EQ(root.create(made), S_OK);
    newStream(L"Note", root);
    EXPECT_EQ(root.commit(), S_OK);
    EXPECT_EQ(root.open(made, modeReadDenyWrite, false), S_OK) << "made by us";
    root.close();
    writeFile(text.asString(), "text");
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(root.open(text, modeRead, false), STG_E_INVALIDHEADER) << "not missing";
}

// New files are packages, even in the place of a compound file that was open and is in nobody's use.
TEST_F(Container, ThePlaceOfPackages) {
    StorageRef root = openRoot(path_, modeRead);
    EXPECT_EQ(root.format(), StorageFormat::CompoundFile);
    ASSERT_EQ(root.create(path_), S_OK) << "the handle lets go of it first";
    newStream(L"Note", root);
    EXPECT_EQ(root.commit(), S_OK);
    for (const char* const replacement : {"", "no longer a storage", "7z\xBC\xAF\x27\x1C damaged"}) {
        root.close();
        container().deleteUnusedObjects();
        if (*replacement)
            writeFile(file_, replacement);
        EXPECT_EQ(root.open(path_, modeRead, false), *replacement ? STG_E_INVALIDHEADER : S_OK);
        EXPECT_EQ(root.format(), *replacement ? StorageFormat::None : StorageFormat::Package);
    }
}

TEST_F(Container, RootsKeepWritersOutAgainAfterAFailure) {
    const CountedSystem system;
    const StorageRef reader = openRoot(path_, modeReadDenyWrite);
    EXPECT_EQ(CountedSystem::stgm, 0x10020u);
    CountedSystem::failOpen = STG_E_READFAULT;
    EXPECT_EQ(StorageRef().open(path_, modeWrite, false), STG_E_READFAULT)
        << "which closes the readers' root";
    EXPECT_EQ(openRoot(path_, modeReadDenyWrite), reader);
    EXPECT_EQ(CountedSystem::stgm, 0x10020u);
}

TEST_F(Container, UnusedNodesLetGoForAKeyedRoot) {
    const StorageRef shared = openRoot(path_, modeRead), box = openStorage(L"Box", shared);
    openStream(L"Note", box);
    const StorageRef keyed = openRoot(path_, modeReadDenyWrite);
    EXPECT_FALSE(container().deleteUnusedObjects()) << "nothing was left to free";
    EXPECT_TRUE(box.hasChild(element(L"Note"), StorageType::Stream) && shared.storage());
}

TEST_F(Container, CleanUpDuringAnOpening) {
    const CountedSystem system;
    StorageRef used = openRoot(path_, modeRead), root;
    openStream(L"Note", used);
    const SharedPathName other = path(folder_.file(L"other.cfb"));
    writeCompoundFile(other.asString(), {{L"Note", ""}});

    CountedSystem::failOpen = STG_E_TOOMANYOPENFILES;
    EXPECT_EQ(root.open(other, modeRead, false), S_OK) << "the unused stream was freed";
    root.close();
    container().deleteUnusedObjects();
    CountedSystem::failOpen = STG_E_TOOMANYOPENFILES;
    EXPECT_EQ(root.open(other, modeRead, false), STG_E_TOOMANYOPENFILES) << "there was nothing to free";

    static int runs;
    runs = 0;
    container().setDeleteUnusedObjectsCallback([] {
        ++runs;
        container().deleteUnusedObjects(); // the lock is this thread's already
        return true;
    });
    CountedSystem::failOpen = STG_E_INSUFFICIENTMEMORY;
    EXPECT_EQ(root.open(other, modeWrite, false), S_OK);
    EXPECT_EQ(runs, 1);
    EXPECT_TRUE(used.storage());
}

TEST_F(Container, ClearingLeavesHandlesSafe) {
    StorageRef root = openRoot(path_, modeRead);
    StreamRef note = openStream(L"Note", root);
    const std::wstring caller = folder_.file(L"caller.cfb");
    writeCompoundFile(caller, {{L"Note", "note"}});
    const auto storage = openCompoundFile(caller, STGM_TRANSACTED | STGM_SHARE_EXCLUSIVE | STGM_READWRITE);
    StorageRef wrapped = StorageRef::fromPtr(storage.Get());
    container().clearAll();
    EXPECT_NE(openCompoundFile(file_, STGM_READWRITE | STGM_TRANSACTED | STGM_SHARE_EXCLUSIVE), nullptr)
        << "the file is let go of";
    EXPECT_NE(StorageRef::fromPtr(storage.Get()), wrapped) << "the table is empty";
    StorageRef again = openRoot(path_, modeRead);
    EXPECT_TRUE(again != root && note.size() == 4 && root.storage()) << "opened anew, apart";
    again.close();
    container().deleteUnusedObjects();
    root.close();
    note.close();
    wrapped.close();
    EXPECT_TRUE(container().deleteUnusedObjects());
    EXPECT_FALSE(container().deleteUnusedObjects());
}

TEST_F(Container, WrappedInterfacesComeBackAfterTheirLastHandle) {
    const auto storage = openCompoundFile(file_, STGM_TRANSACTED | STGM_SHARE_EXCLUSIVE | STGM_READWRITE);
    for (int i = 0; i < 2; ++i) {
        StorageRef root = StorageRef::fromPtr(storage.Get());
        EXPECT_EQ(root, StorageRef::fromPtr(storage.Get()));
        EXPECT_TRUE(root.storage() == storage.Get() && root.name().empty() && !root.readOnly());
        openStream(L"Note", root);
    }
    Microsoft::WRL::ComPtr<::IStream> free;
    EXPECT_EQ(storage->OpenStream(L"Note", nullptr, STGM_SHARE_EXCLUSIVE | STGM_READ, 0, &free), S_OK)
        << "the last handle closed it";
    storage->AddRef();
    EXPECT_EQ(storage->Release(), 2u) << "the table's";
    EXPECT_TRUE(container().deleteUnusedObjects());
    storage->AddRef();
    EXPECT_EQ(storage->Release(), 1u);

    StorageRef temporary;
    ASSERT_EQ(temporary.createTemporary(false), S_OK);
    EXPECT_EQ(StorageRef::fromPtr(temporary.storage()), temporary) << "a package stays one";
}

TEST_F(Container, OpenCloseAndCleanUpOnManyThreads) {
    StorageRef outer = openRoot(path_, modeReadDenyWrite);
    std::atomic<bool> stop{false};
    std::atomic<int> failures{0};
    std::thread cleaner([&] {
        while (!stop)
            container().deleteUnusedObjects();
    });
    // The nodes of one root are for one thread; the root itself is opened and closed by all.
    const auto work = [&](int number) {
        const std::wstring file = folder_.file(L"own" + std::to_wstring(number));
        writeCompoundFile(file, {{L"Box/Note", "box"}});
        for (int i = 0; i < 40; ++i) {
            StorageRef root, box;
            StreamRef note;
            if (FAILED(root.open(path_, modeReadDenyWrite, false)) ||
                FAILED(root.open(path(file), modeRead, false)))
                ++failures;
            for (int again = 0; again < 5; ++again)
                if (FAILED(box.open(L"Box", root, true)) || FAILED(note.open(L"Note", box, true)) ||
                    note.size() != 3 || box.hasChild(element(L"Nix"), StorageType{}))
                    ++failures;
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back(work, i);
    for (std::thread& thread : threads)
        thread.join();
    stop = true;
    cleaner.join();
    EXPECT_EQ(failures, 0);
    outer.close();
    container().deleteUnusedObjects();
    EXPECT_FALSE(container().deleteUnusedObjects());
}

TEST(ErrorStatus, OfConditions) {
    using Vexel::Detail::statusOf;
    EXPECT_EQ(statusOf({}), S_OK);
    EXPECT_EQ(statusOf(std::make_error_code(std::errc::permission_denied)), STG_E_ACCESSDENIED);
    EXPECT_EQ(statusOf(std::make_error_code(std::errc::file_exists)), E_FAIL) << "as any other";
}

} // namespace
