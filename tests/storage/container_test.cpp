#include "base/platform.h"
#include "support/fake_storage.h"
#include "support/scarce_memory.h"
#include "support/storage_test.h"

#include <thread>

using namespace Support;
using Vexel::Detail::platform;

namespace {

/// Counts the calls that touch the disk. From the one with the number `failing` on, `failures` of them find
/// no file handle left; `failOpen` is what the next opening of a compound file answers, and `stgm` are the
/// flags of the last.
class CountedSystem {
public:
    static inline int touched;
    static inline int failing;
    static inline int failures;
    static inline HRESULT failOpen;
    static inline DWORD stgm;

    CountedSystem() {
        touched = failures = 0;
        failOpen = S_OK;
        platform().createFile = [](auto name, auto access, auto share, auto security, auto how, DWORD flags,
                                   auto model) -> HANDLE {
            const bool isLook = (flags & FILE_FLAG_RANDOM_ACCESS) != 0; // at a compound file, which may fail
            return !isLook && fails() ? INVALID_HANDLE_VALUE
                                      : kReal.createFile(name, access, share, security, how, flags, model);
        };
        platform().probeForWriting = [](const wchar_t* path) {
            return fails() ? DWORD{ERROR_TOO_MANY_OPEN_FILES} : kReal.probeForWriting(path);
        };
        platform().openStorage = [](const wchar_t* path, DWORD flags, auto... rest) -> HRESULT {
            stgm = flags;
            if (fails())
                return STG_E_TOOMANYOPENFILES;
            const HRESULT status = std::exchange(failOpen, S_OK);
            return FAILED(status) ? status : kReal.openStorage(path, flags, rest...);
        };
        platform().isStorageFile = [](const wchar_t* path) {
            // Counted only where it may fail.
            return failures > 0 && fails() ? STG_E_TOOMANYOPENFILES : kReal.isStorageFile(path);
        };
    }

private:
    static bool fails() {
        SetLastError(ERROR_TOO_MANY_OPEN_FILES);
        const int number = touched++;
        return number >= failing && number < failing + failures;
    }
    static inline const Vexel::Detail::Platform kReal = platform();
    PlatformGuard guard_;
};

class Container : public StorageTest<> {
protected:
    static constexpr DWORD kExclusive = STGM_READWRITE | STGM_TRANSACTED | STGM_SHARE_EXCLUSIVE;

    void SetUp() override { writeCompoundFile(file_, {{L"Box/Note", "box"}, {L"Note", "note"}}); }
};

TEST_F(Container, MissingFilesAreAskedForOnce) {
    const CountedSystem system;
    const long missingForWriting = HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
    const SharedPathName missing = path(folder_.file(L"missing"));
    StorageRef root;
    const auto openings = [&](RootStorageOpenMode mode, long status) {
        const int before = CountedSystem::touched;
        EXPECT_EQ(root.open(missing, mode, false), status);
        return CountedSystem::touched - before;
    };
    for (int i = 0; i < 2; ++i) // nothing is kept without the flags' cache
        EXPECT_EQ(openings(modeRead, STG_E_FILENOTFOUND), 1);
    for (const RootStorageOpenMode first : {modeRead, modeWrite}) {
        const SharedPathNameFlagsCacheBlock block;
        const long status = first == modeWrite ? missingForWriting : STG_E_FILENOTFOUND;
        EXPECT_EQ(openings(first, status), 1);
        for (const RootStorageOpenMode mode : {modeRead, modeReadDenyWrite, modeWrite})
            EXPECT_EQ(openings(mode, status), 0) << "the first answer stands";
        EXPECT_EQ(log_.count(VxLog_Minor, L"missing\": 0x8"), first == modeRead ? 3 : 4)
            << "nor logged again";
    }
    EXPECT_EQ(openings(modeWrite, missingForWriting), 1) << "kept by no block";
    const SharedPathNameFlagsCacheBlock block;
    EXPECT_FALSE(missing.fileExists());
    EXPECT_EQ(openings(modeRead, STG_E_FILENOTFOUND), 0) << "known without having been opened";
    writeCompoundFile(missing.asString(), {{L"Note", ""}});
    EXPECT_EQ(openings(modeRead, STG_E_FILENOTFOUND), 0) << "until somebody looks";
    missing.updateFileExists();
    EXPECT_EQ(openings(modeRead, S_OK), 2);
    const SharedPathName made = path(folder_.file(L"made"));
    EXPECT_EQ(root.open(made, modeRead, false), STG_E_FILENOTFOUND);
    EXPECT_EQ(root.create(made), S_OK);
    EXPECT_EQ(newStorage(L"Box", root).commit(), S_OK);
    EXPECT_EQ(root.open(made, modeReadDenyWrite, false), S_OK) << "made by us";
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
    EXPECT_TRUE(box.hasChild(element(L"Note"), StorageType::Stream));
    EXPECT_NE(shared.storage(), nullptr);
}

// Whichever call of the system fails, and whatever it is for.
TEST_F(Container, EveryCallIsTriedTwiceWhenHandlesRunOut) {
    StorageRef root, spare; // the second is what the application can do without
    const CleanUp cleanUp([&] {
        closeForGood(spare); // the lock is this thread's already
        return true;
    });
    const SharedPathName package = path(folder_.file(L"package")), other = path(folder_.file(L"spare"));
    writeDocument(package.asString(), StorageFormat::Package, {{L"Note", "note"}});
    writeCompoundFile(other.asString(), {{L"Note", ""}});
    SharedPathName file;
    const auto prepare = [&] {
        root = openRoot(file, modeWrite);
        if (root.format() == StorageFormat::Package)
            newStream(L"Note", root, "note");
    };
    const auto open = [&](RootStorageOpenMode mode) { return root.open(file, mode, false) == S_OK; };
    FILETIME time;
    const struct {
        const char* what;
        std::function<void()> prepare;
        std::function<bool()> call;
        int most = 20; // calls of the system that are to fail
    } calls[] = {
        {"open", [] {}, [&] { return open(modeRead); }},
        {"open keyed", [] {}, [&] { return open(modeReadDenyWrite); }},
        {"open for writing", [] {}, [&] { return open(modeWrite); }},
        {"times", prepare, [&] { return root.getFileTimes(&time, &time, &time); }},
        {"commit", prepare, [&] { return root.commit() == S_OK; }, 1}, // the others come too late
    };
    int failed = 0;
    const auto callFails = [&](const auto& test, int failing, int failures) {
        closeForGood(root);
        const CountedSystem system;
        test.prepare();
        spare = openRoot(other, modeRead);
        CleanUp::runs = CountedSystem::touched = 0;
        CountedSystem::failing = failing;
        CountedSystem::failures = failures;
        const bool succeeded = test.call();
        CountedSystem::failures = 0;
        if (CountedSystem::touched <= failing)
            return false;
        EXPECT_EQ(succeeded, failures == 1);
        EXPECT_EQ(CleanUp::runs, 1);
        return ++failed > 0;
    };
    for (const SharedPathName& each : {path_, package})
        for (const auto& test : calls)
            for (const int failures : {1, 2})
                for (int failing = 0; failing < test.most; ++failing) {
                    SCOPED_TRACE(testing::Message() << test.what << each.asString() << failures << failing);
                    file = each;
                    if (!callFails(test, failing, failures))
                        break;
                }
    EXPECT_GE(failed, 30);
}

// A caller's interface behind a proxy may need another thread, with locks of its own, for its answer.
TEST_F(Container, CallersInterfacesAreAskedUnderNoLock) {
    FakeCalls calls;
    const auto storage = fakeStorage(calls);
    calls.during = [] { std::thread([] { container().deleteUnusedObjects(); }).join(); };
    StorageRef root = StorageRef::fromPtr(storage.Get());
    calls.during = nullptr;
    EXPECT_EQ(calls.take(), L"Stat 1\n");
    EXPECT_EQ(root, StorageRef::fromPtr(storage.Get()));
    closeForGood(root);
    EXPECT_EQ(calls.take(), L"");
}

// Short of memory at any point, the tables stay as they are or are empty.
TEST_F(Container, ClearingNeedsNoMemory) {
    const StorageRef root = openRoot(path_, modeRead);
    const auto storage = openCompoundFile(samplePath(L"namesdemo.xls"), STGM_TRANSACTED | STGM_READ);
    const StorageRef wrapped = StorageRef::fromPtr(storage.Get());
    EXPECT_FALSE(WithFailingAllocation(0, [] { container().clearAll(); }));
    EXPECT_NE(openRoot(path_, modeRead), root);
}

TEST_F(Container, ClearingLeavesHandlesSafe) {
    StorageRef root = openRoot(path_, modeRead);
    StreamRef note = openStream(L"Note", root);
    const std::wstring caller = folder_.file(L"caller.cfb");
    writeCompoundFile(caller, {{L"Note", "note"}});
    const auto storage = openCompoundFile(caller, kExclusive);
    StorageRef wrapped = StorageRef::fromPtr(storage.Get());
    container().clearAll();
    EXPECT_NE(openCompoundFile(file_, kExclusive), nullptr) << "the file is let go of";
    EXPECT_NE(StorageRef::fromPtr(storage.Get()), wrapped) << "the table is empty";
    StorageRef again = openRoot(path_, modeRead);
    EXPECT_NE(again, root) << "opened anew, apart";
    EXPECT_EQ(note.size(), 4u);
    EXPECT_NE(root.storage(), nullptr);
    closeForGood(again);
    root.close();
    note.close();
    wrapped.close();
    EXPECT_TRUE(container().deleteUnusedObjects());
    EXPECT_FALSE(container().deleteUnusedObjects());
}

TEST_F(Container, WrappedInterfacesComeBackAfterTheirLastHandle) {
    const auto storage = openCompoundFile(file_, kExclusive);
    const auto references = [&] { return (storage->AddRef(), storage->Release()); };
    for (int i = 0; i < 2; ++i) {
        const StorageRef root = StorageRef::fromPtr(storage.Get());
        EXPECT_EQ(root, StorageRef::fromPtr(storage.Get()));
        EXPECT_EQ(root.storage(), storage.Get());
        EXPECT_TRUE(root.name().empty());
        EXPECT_FALSE(root.readOnly());
        openStream(L"Note", root);
    }
    Microsoft::WRL::ComPtr<::IStream> free;
    EXPECT_EQ(storage->OpenStream(L"Note", nullptr, STGM_SHARE_EXCLUSIVE | STGM_READ, 0, &free), S_OK)
        << "the last handle closed it";
    EXPECT_EQ(references(), 2u) << "the table's";
    EXPECT_TRUE(container().deleteUnusedObjects());
    EXPECT_EQ(references(), 1u);

    StorageRef temporary;
    ASSERT_EQ(temporary.createTemporary(false), S_OK);
    EXPECT_EQ(StorageRef::fromPtr(temporary.storage()), temporary) << "a package stays one";
}

TEST_F(Container, WrappedInterfacesAreAsOpenAsTheyWere) {
    const auto reading = openCompoundFile(file_, STGM_TRANSACTED | STGM_SHARE_DENY_WRITE | STGM_READ);
    StorageRef root = StorageRef::fromPtr(reading.Get());
    EXPECT_TRUE(root.readOnly());
    EXPECT_EQ(root.destroy(L"Note"), STG_E_ACCESSDENIED);
    EXPECT_EQ(StorageRef().open(L"Box", root, false), STG_E_ACCESSDENIED);
    EXPECT_EQ(read(L"Note", root), "note") << "once closed it could not be opened again";
    EXPECT_FALSE(root.getFileTimes(nullptr, nullptr, nullptr)) << "no file is known";

    FakeCalls silent;
    silent.failures = {{0, E_NOTIMPL}};
    EXPECT_FALSE(StorageRef::fromPtr(fakeStorage(silent).Get()).readOnly()) << "nothing says so";
    container().clearAll(); // the fake, before what it writes to
}

} // namespace
