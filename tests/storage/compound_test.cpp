#include "storage/compound/compound_storage.h"
#include "storage/handles/root_tables.h"
#include "support/fake_storage.h"
#include "support/scarce_memory.h"
#include "support/storage_test.h"

#include <cwchar>
#include <deque>

using namespace Support;
using Vexel::Detail::compoundOptionsVersion;
using Vexel::Detail::platform;

namespace {

/// Answers the opening of root files in the system's place, and notes each call's flags, the version of its
/// options, and whether it is for a copy.
class ScriptedSystem {
public:
    static inline std::deque<HRESULT> answers; // S_OK when there are no more
    static inline std::wstring calls, copy;
    static inline FakeCalls storages;

    explicit ScriptedSystem(std::deque<HRESULT> script) {
        answers = std::move(script);
        calls.clear();
        platform().openStorage = open;
    }
    ScriptedSystem(const ScriptedSystem&) = delete;
    ScriptedSystem& operator=(const ScriptedSystem&) = delete;
    ~ScriptedSystem() { compoundOptionsVersion() = 2; }

private:
    static HRESULT WINAPI open(const wchar_t* path, DWORD stgm, DWORD format, DWORD attributes,
                               STGOPTIONS* options, void* security, REFIID, void** result) {
        EXPECT_EQ(format, DWORD{STGFMT_DOCFILE});
        EXPECT_EQ(attributes + options->reserved, 0u);
        EXPECT_EQ(options->ulSectorSize, 4096u);
        EXPECT_EQ(security, options->pwcsTemplateFile) << "both null";
        wchar_t call[40];
        std::swprintf(call, std::size(call), L"%lx/%u ", stgm, unsigned{options->usVersion});
        if (std::wcsstr(path, L"\\vxsv-"))
            calls += (copy = path).ends_with(L".xls") ? L"copy " : L"copy by another name ";
        calls += call;
        const HRESULT status = answers.empty() ? S_OK : answers.front();
        if (!answers.empty())
            answers.pop_front();
        *result = SUCCEEDED(status) ? fakeStorage(storages).Detach() : nullptr;
        return status;
    }

    PlatformGuard guard_;
};

class CompoundRoots : public StorageTest<> {
protected:
    void SetUp() override { writeCompoundFile(file_, {{L"Box/Note", "note"}}); }
    static bool isSoonGone(const std::wstring& file) {
        return isSoon([&] { return GetFileAttributesW(file.c_str()) == INVALID_FILE_ATTRIBUTES; });
    }
};

TEST_F(CompoundRoots, OpenAgainWhereThatHelps) {
    enum Mode { Reading, ReadingKeyed, WritingKeyed };
    constexpr HRESULT kHeld = STG_E_SHAREVIOLATION, kLocked = STG_E_LOCKVIOLATION, kLost = STG_E_FILENOTFOUND,
                      kUnknown = STG_E_INVALIDPARAMETER, kDenied = STG_E_ACCESSDENIED,
                      kBad = STG_E_INVALIDNAME, kFault = STG_E_READFAULT, kMemory = STG_E_INSUFFICIENTMEMORY;
    const struct {
        const char* what;
        Mode mode;
        std::deque<HRESULT> answers;
        HRESULT status;
        std::wstring calls;   // "clean" where what nobody uses is closed
        bool isThere = false; // to be copied
    } cases[] = {
        {"at once", Reading, {S_OK}, S_OK, L"210000/2 "},
        {"no scratch file", WritingKeyed, {kDenied}, S_OK, L"110022/2 10022/2 "},
        {"without NOSNAPSHOT", Reading, {kLocked}, S_OK, L"210000/2 10000/2 "},
        {"held for good", Reading, {kHeld, kHeld}, kHeld, L"210000/2 10000/2 "},
        {"no file to copy", ReadingKeyed, {kHeld}, kHeld, L"10020/2 "},
        {"a file to copy", ReadingKeyed, {kLocked}, S_OK, L"10020/2 copy 10020/2 ", true},
        {"a bad copy", ReadingKeyed, {kHeld, kFault}, kFault, L"10020/2 copy 10020/2 ", true},
        {"no copy for other readers", Reading, {kHeld}, S_OK, L"210000/2 10000/2 ", true},
        {"no copy for writers", WritingKeyed, {kHeld}, S_OK, L"110022/2 10022/2 ", true},
        {"older options", Reading, {kUnknown}, S_OK, L"210000/2 210000/1 "},
        {"no options will do", Reading, {kUnknown, kUnknown}, kUnknown, L"210000/2 210000/1 "},
        {"bad name", Reading, {kBad}, kBad, L"210000/2 "},
        {"missing", Reading, {kLost}, kLost, L"210000/2 "},
        {"memory", WritingKeyed, {kMemory}, S_OK, L"110022/2 clean 110022/2 "},
        {"all three", WritingKeyed, {kDenied, kMemory, kFault}, kFault, L"110022/2 10022/2 clean 110022/2 "},
    };
    const CleanUp cleanUp([] { return !(ScriptedSystem::calls += L"clean ").empty(); });
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        const ScriptedSystem system(test.answers);
        const SharedPathName place = test.isThere ? path_ : path(folder_.file(L"no folder\\held.xls"));
        VxCompoundStorage root(place);
        root.setKeyed(test.mode != Reading);
        root.setKeeper(Vexel::Detail::rootTables());
        EXPECT_EQ(root.open(test.mode != WritingKeyed, false), test.status);
        EXPECT_EQ(ScriptedSystem::calls, test.calls);
        EXPECT_EQ(root.isOpen(), SUCCEEDED(test.status));
        EXPECT_EQ(root.name(), place) << "not the copy's";
        root.close();
        EXPECT_TRUE(isSoonGone(ScriptedSystem::copy));
    }
    EXPECT_EQ(ScriptedSystem::storages.alive, 0);

    const ScriptedSystem system({kUnknown, S_OK, kUnknown});
    for (const HRESULT expected : {S_OK, kUnknown}) {
        VxCompoundStorage root(path_);
        EXPECT_EQ(root.open(true, false), expected);
    }
    EXPECT_EQ(ScriptedSystem::calls, L"210000/2 210000/1 210000/1 ") << "older options for good";
}

TEST_F(CompoundRoots, RaiseNothingWhileTheyOpenACopy) {
    sweepFaults([&](unsigned spared) {
        const ScriptedSystem system({STG_E_SHAREVIOLATION});
        VxCompoundStorage root(path_);
        root.setKeyed(true);
        HRESULT status = S_OK;
        const bool struck = WithFailingAllocation(spared, [&] { status = root.open(true, false); });
        EXPECT_THAT(status, testing::AnyOf(STG_E_INSUFFICIENTMEMORY, S_OK)) << spared;
        EXPECT_EQ(root.isOpen(), status == S_OK) << spared;
        return struck;
    });
}

TEST_F(CompoundRoots, MayBeOpenedByOthersWhileTheyAreLookedAt) {
    VxCompoundStorage* shared = nullptr;
    IStorage* first = nullptr;
    const CleanUp cleanUp([&] { return shared->open(true, false), first = shared->storage(), true; });
    int opened = 0;
    sweepFaults([&](unsigned spared) {
        const ScriptedSystem system({STG_E_SHAREVIOLATION});
        VxCompoundStorage root(path_);
        root.setKeeper(Vexel::Detail::rootTables());
        shared = &root;
        first = nullptr;
        HRESULT status = S_OK;
        const bool struck = WithFailingAllocation(spared, [&] { status = root.open(true, false); });
        opened += first != nullptr;
        EXPECT_EQ(status, first || !struck ? S_OK : STG_E_INSUFFICIENTMEMORY) << spared;
        EXPECT_EQ(first ? root.storage() : nullptr, first) << spared;
        return struck;
    });
    EXPECT_GE(opened, 2);
}

// The system's own structured storage keeps others out, as it does in another process.
TEST_F(CompoundRoots, AreReadWhileAnotherWrites) {
    static std::wstring opened;
    platform().openStorage = [](const wchar_t* path, auto... rest) -> HRESULT {
        return StgOpenStorageEx((opened = path).c_str(), rest...);
    };
    auto holder = openCompoundFile(file_, STGM_TRANSACTED | STGM_SHARE_DENY_WRITE | STGM_READWRITE);
    StorageRef root;
    EXPECT_EQ(root.open(path_, modeWrite, false), HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION));
    root = openRoot(path_, modeReadDenyWrite);
    const std::wstring copy = opened;
    EXPECT_NE(copy, file_);
    EXPECT_EQ(elementsOf(root), readCompoundFile(copy));
    EXPECT_EQ(read(L"Note", openStorage(L"Box", root)), "note");
    openRoot(path_, modeRead);
    EXPECT_EQ(opened, file_) << "needs no copy";
    holder = nullptr;
    closeForGood(root);
    EXPECT_TRUE(isSoonGone(copy)) << "the copy goes with its last handle";
    openRoot(path_, modeWrite); // the writer is gone
}

TEST(CompoundChildren, AreThereWhenTheyCannotBeOpenedNow) {
    const std::pair<HRESULT, bool> cases[] = {
        {STG_E_TOOMANYOPENFILES, true},  {STG_E_ACCESSDENIED, true},  {STG_E_SHAREVIOLATION, true},
        {STG_E_LOCKVIOLATION, false},    {STG_E_FILENOTFOUND, false}, {STG_E_INVALIDNAME, false},
        {STG_E_INVALIDPARAMETER, true}, // of the newer options; tried again with the older
        {STG_E_INVALIDPARAMETER, false},
    };
    FakeCalls calls;
    VxCompoundStorage root{SharedPathName()};
    root.attach(fakeStorage(calls).Get(), false);
    for (const auto& [failure, there] : cases) {
        calls.take();
        calls.failures = {{0, failure}};
        EXPECT_EQ(root.hasChild(element(L"any"), StorageType::Storage), there) << std::hex << failure;
    }
    EXPECT_EQ(compoundOptionsVersion().exchange(2), 1);
}

// The system takes an element away before it makes the new one.
TEST(CompoundStreams, ThatAreLostWhenTheyAreEmptiedKeepTheirStorageFromCommitting) {
    for (const bool isLost : {false, true}) {
        FakeCalls calls;
        calls.mode = STGM_READWRITE;
        calls.size = 5;
        StorageRef root = StorageRef::fromPtr(fakeStorage(calls).Get());
        calls.take();
        calls.failures = {{3, STG_E_WRITEFAULT}, {4, isLost ? STG_E_FILENOTFOUND : S_OK}};
        EXPECT_EQ(StreamRef().open(element(L"Note"), root, false), STG_E_WRITEFAULT);
        EXPECT_THAT(calls.take(),
                    testing::StartsWith(
                        L"OpenStream Note 0x12\nStat 1\n~Stream\nCreateStream Note 0x1012\nOpenStream N"));
        calls.failures.clear();
        EXPECT_EQ(root.commit(), isLost ? STG_E_REVERTED : S_OK);
        closeForGood(root);
    }
}

} // namespace
