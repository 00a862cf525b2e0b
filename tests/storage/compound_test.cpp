#include "base/platform.h"
#include "storage/compound/compound_storage.h"
#include "storage/tree/element_name.h"
#include "support/compound_file.h"
#include "support/fake_storage.h"
#include "support/scarce_memory.h"

#include <vexel/storage.h>
#include <vexel/temp_files.h>

#include <gtest/gtest.h>

#include <cwchar>
#include <deque>
#include <new>
#include <string>
#include <vector>

using Support::FakeCalls;
using Vexel::Detail::compoundOptionsVersion;
using Vexel::Detail::elementName;
using Vexel::Detail::platform;

namespace {

/// Answers the opening of root files in the system's place, and notes each call's path, flags and the version
/// of its options.
class ScriptedSystem {
public:
    static inline std::deque<HRESULT> answers; // S_OK when there are no more
    static inline std::vector<std::wstring> paths;
    static inline std::wstring calls;
    static inline FakeCalls storages;

    explicit ScriptedSystem(std::deque<HRESULT> script) {
        answers = std::move(script);
        paths.clear();
        calls.clear();
        platform().openStorage = open;
    }
    ScriptedSystem(const ScriptedSystem&) = delete;
    ScriptedSystem& operator=(const ScriptedSystem&) = delete;
    ~ScriptedSystem() {
        platform() = saved_;
        compoundOptionsVersion() = 2;
    }

private:
    static HRESULT WINAPI open(const wchar_t* path, DWORD stgm, DWORD format, DWORD attributes,
                               STGOPTIONS* options, void* security, REFIID, void** result) {
        EXPECT_TRUE(format == STGFMT_DOCFILE && attributes == 0 && !security && !options->pwcsTemplateFile);
        EXPECT_TRUE(options->reserved == 0 && options->ulSectorSize == 4096);
        wchar_t call[40];
        std::swprintf(call, std::size(call), L"%lx/%u ", stgm, unsigned{options->usVersion});
        calls += call;
        paths.emplace_back(path);
        HRESULT status = S_OK;
        if (!answers.empty()) {
            status = answers.front();
            answers.pop_front();
        }
        *result = SUCCEEDED(status) ? Support::fakeStorage(storages).Detach() : nullptr;
        return status;
    }

    Vexel::Detail::Platform saved_ = platform();
};

TEST(CompoundRoots, OpenAgainWhereThatHelps) {
    enum Mode { Reading, ReadingKeyed, WritingKeyed };
    constexpr HRESULT held = STG_E_SHAREVIOLATION, unknown = STG_E_INVALIDPARAMETER;
    const struct {
        const char* what;
        Mode mode;
        std::deque<HRESULT> answers;
        HRESULT status;
        std::wstring calls; // "clean" where what nobody uses is closed
    } cases[] = {
        {"at once", Reading, {S_OK}, S_OK, L"210000/2 "},
        {"no scratch file", WritingKeyed, {STG_E_ACCESSDENIED}, S_OK, L"110022/2 10022/2 "},
        {"without NOSNAPSHOT", Reading, {STG_E_LOCKVIOLATION}, S_OK, L"210000/2 10000/2 "},
        {"held for good", Reading, {held, held}, held, L"210000/2 10000/2 "},
        {"no file to copy", ReadingKeyed, {held}, held, L"10020/2 "},
        {"older options", Reading, {unknown}, S_OK, L"210000/2 210000/1 "},
        {"no options will do", Reading, {unknown, unknown}, unknown, L"210000/2 210000/1 "},
        {"bad name", Reading, {STG_E_INVALIDNAME}, STG_E_INVALIDNAME, L"210000/2 "},
        {"missing", Reading, {STG_E_FILENOTFOUND}, STG_E_FILENOTFOUND, L"210000/2 "},
        {"memory", WritingKeyed, {STG_E_INSUFFICIENTMEMORY}, S_OK, L"110022/2 clean 110022/2 "},
        {"all three",
         WritingKeyed,
         {STG_E_ACCESSDENIED, STG_E_TOOMANYOPENFILES, STG_E_READFAULT},
         STG_E_READFAULT,
         L"110022/2 10022/2 clean 110022/2 "},
    };
    StorageContainer::Instance().setDeleteUnusedObjectsCallback(
        [] { return !(ScriptedSystem::calls += L"clean ").empty(); });
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        const ScriptedSystem system(test.answers);
        VxCompoundStorage root(SharedPathName(L"C:\\no such folder\\file.cfb", false, false));
        root.setKeyed(test.mode != Reading);
        EXPECT_EQ(root.open(test.mode != WritingKeyed, false), test.status);
        EXPECT_EQ(ScriptedSystem::calls, test.calls);
        EXPECT_EQ(root.isOpen(), SUCCEEDED(test.status));
    }
    StorageContainer::Instance().setDeleteUnusedObjectsCallback(nullptr);
    EXPECT_EQ(ScriptedSystem::storages.alive, 0);
}

TEST(CompoundRoots, LowerTheOptionsForGood) {
    const ScriptedSystem system({STG_E_INVALIDPARAMETER, S_OK, S_OK, STG_E_INVALIDPARAMETER});
    VxCompoundStorage root(SharedPathName(L"C:\\no such folder\\file.cfb", false, false));
    for (const HRESULT expected : {S_OK, S_OK, STG_E_INVALIDPARAMETER}) {
        EXPECT_EQ(root.open(true, false), expected);
        root.close();
    }
    EXPECT_EQ(ScriptedSystem::calls, L"210000/2 210000/1 210000/1 210000/1 ");
}

class HeldRoots : public testing::Test {
protected:
    ~HeldRoots() override { platform() = saved_; }
    /// How `root` opens the file.
    HRESULT open(VxCompoundStorage& root, bool keyed, bool readOnly) {
        root.setKeyed(keyed);
        return root.open(readOnly, false);
    }
    /// A background thread deletes what is given up.
    static bool isSoonGone(const std::wstring& file) {
        for (int i = 0; i < 3000; ++i) {
            if (GetFileAttributesW(file.c_str()) == INVALID_FILE_ATTRIBUTES)
                return true;
            TempFileContainer::Instance().clear();
            Sleep(10);
        }
        return false;
    }
    void SetUp() override { Support::writeCompoundFile(file_, {{L"Box/Note", "note"}}); }

    Support::TempFolder folder_;
    std::wstring file_ = folder_.file(L"held.xls");
    SharedPathName path_{file_, false, false};

private:
    Vexel::Detail::Platform saved_ = platform();
};

TEST_F(HeldRoots, AreReadFromACopy) {
    for (const HRESULT ofCopy : {S_OK, STG_E_READFAULT}) {
        const ScriptedSystem system({STG_E_LOCKVIOLATION, ofCopy});
        VxCompoundStorage root(path_);
        EXPECT_EQ(open(root, true, true), ofCopy);
        ASSERT_EQ(ScriptedSystem::calls, L"10020/2 10020/2 ");
        const std::wstring& copy = ScriptedSystem::paths[1];
        EXPECT_TRUE(copy.find(L"\\vxsv-") != copy.npos && copy.ends_with(L".xls")) << "named after the file";
        EXPECT_EQ(root.name(), path_);
        root.close();
        EXPECT_TRUE(isSoonGone(copy));
    }
}

TEST_F(HeldRoots, AreNotCopiedForOtherReadersAndForWriters) {
    for (const auto& [keyed, readOnly] : {std::pair(false, true), std::pair(true, false)}) {
        const ScriptedSystem system({STG_E_SHAREVIOLATION});
        VxCompoundStorage root(path_);
        EXPECT_EQ(open(root, keyed, readOnly), S_OK);
        EXPECT_EQ(ScriptedSystem::paths, std::vector(2, file_));
    }
}

TEST_F(HeldRoots, RaiseNothingWhileTheyOpenACopy) {
    static bool struck;
    struck = true;
    for (int spared = 0; struck && spared < 1000; ++spared) {
        const ScriptedSystem system({STG_E_SHAREVIOLATION});
        VxCompoundStorage root(path_);
        struck = false;
        AtMainAllocation(spared, [] {
            struck = true;
            throw std::bad_alloc();
        });
        const HRESULT status = open(root, true, true);
        AtMainAllocation(0, nullptr);
        EXPECT_TRUE(status == STG_E_INSUFFICIENTMEMORY || status == S_OK) << spared;
        EXPECT_EQ(root.isOpen(), status == S_OK) << spared;
    }
    EXPECT_FALSE(struck);
}

// The system's own structured storage keeps others out, as it does in another process.
TEST_F(HeldRoots, AreReadWhileAnotherWrites) {
    static std::vector<std::wstring> opened;
    opened.clear();
    platform().openStorage = [](const wchar_t* path, auto... rest) -> HRESULT {
        opened.emplace_back(path);
        return StgOpenStorageEx(path, rest...);
    };
    auto holder = Support::openCompoundFile(file_, STGM_TRANSACTED | STGM_SHARE_DENY_WRITE | STGM_READWRITE);
    StorageRef root;
    EXPECT_EQ(root.open(path_, RootStorageOpenMode::ReadWrite, false),
              HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION));
    ASSERT_EQ(root.open(path_, RootStorageOpenMode::ReadOnlyDenyWrite, false), S_OK);
    const std::wstring copy = opened.back();
    EXPECT_NE(copy, file_);
    EXPECT_EQ(root.name(), path_) << "not the copy's";
    StorageRef box;
    StreamRef note;
    ASSERT_EQ(box.open(L"Box", root, true), S_OK);
    ASSERT_EQ(note.open(L"Note", box, true), S_OK);
    char bytes[8] = {};
    EXPECT_EQ(note.ReadBytes(bytes, 8), 4u);
    EXPECT_STREQ(bytes, "note");
    StorageRef shared;
    EXPECT_EQ(shared.open(path_, RootStorageOpenMode::ReadOnly, false), S_OK);
    EXPECT_EQ(opened.back(), file_) << "needs no copy";
    for (StorageRef* storage : {&box, &root, &shared})
        storage->close();
    note.close();
    holder = nullptr;
    StorageContainer::Instance().deleteUnusedObjects();
    EXPECT_TRUE(isSoonGone(copy)) << "the copy goes with its last handle";
    EXPECT_EQ(root.open(path_, RootStorageOpenMode::ReadWrite, false), S_OK) << "the writer is gone";
}

class CompoundNodes : public testing::Test {
protected:
    void SetUp() override {
        Support::writeCompoundFile(file_, {{L"Box/Note", "box"}, {L"Empty/", {}}, {L"Note", "note"}});
        ASSERT_EQ(root_.open(false, false), S_OK);
    }

    Support::TempFolder folder_;
    std::wstring file_ = folder_.file(L"sample.cfb");
    VxCompoundStorage root_{SharedPathName(file_, false, false)};
};

TEST(CompoundChildren, AreThereWhenTheyCannotBeOpenedNow) {
    const std::pair<HRESULT, bool> cases[] = {
        {STG_E_TOOMANYOPENFILES, true},  {STG_E_ACCESSDENIED, true},  {STG_E_SHAREVIOLATION, true},
        {STG_E_LOCKVIOLATION, false},    {STG_E_FILENOTFOUND, false}, {STG_E_INVALIDNAME, false},
        {STG_E_INVALIDPARAMETER, true}, // of the newer options; tried again with the older
        {STG_E_INVALIDPARAMETER, false},
    };
    FakeCalls calls;
    VxCompoundStorage root{SharedPathName()};
    root.attach(Support::fakeStorage(calls).Get(), false);
    for (const auto& [failure, there] : cases) {
        calls.take();
        calls.failures = {{0, failure}};
        EXPECT_EQ(root.hasChild(elementName(L"any"), StorageType::Storage), there) << std::hex << failure;
    }
    EXPECT_EQ(compoundOptionsVersion().exchange(2), 1);
}

TEST_F(CompoundNodes, RefuseWhatOnlyPackagesDo) {
    EXPECT_EQ(root_.clear(), STG_E_INVALIDFUNCTION);
    EXPECT_EQ(root_.borrowPackedData(&root_), STG_E_INVALIDFUNCTION);
    EXPECT_EQ(root_.createTemporary(true), STG_E_INVALIDFUNCTION);
    EXPECT_EQ(root_.createRoot(0x111022, 0), STG_E_INVALIDFUNCTION);
    root_.close();
    EXPECT_EQ(root_.create(false, false, false), STG_E_INVALIDFUNCTION);
    EXPECT_EQ(Support::readCompoundFile(file_).size(), 4u);
}

TEST_F(CompoundNodes, WrapInterfacesAsTheyAreOpen) {
    root_.close();
    const auto reading =
        Support::openCompoundFile(file_, STGM_TRANSACTED | STGM_SHARE_DENY_WRITE | STGM_READ);
    FakeCalls silent;
    VxCompoundStorage wrapped{SharedPathName()};
    EXPECT_EQ(wrapped.open(true, false), STG_E_INVALIDPARAMETER) << "nothing to open";
    wrapped.attach(reading.Get(), VxCompoundStorage::isOnlyForReading(reading.Get()));
    EXPECT_TRUE(wrapped.readOnly());
    EXPECT_EQ(wrapped.destroyChild(elementName(L"Note")), STG_E_ACCESSDENIED);
    EXPECT_EQ(wrapped.open(false, false), STG_E_ACCESSDENIED);
    EXPECT_TRUE(wrapped.isOpen()) << "once closed it could not be opened again";
    EXPECT_FALSE(wrapped.getFileTimes(nullptr, nullptr, nullptr)) << "no file is known";

    silent.failures = {{0, E_NOTIMPL}};
    EXPECT_FALSE(VxCompoundStorage::isOnlyForReading(Support::fakeStorage(silent).Get()))
        << "nothing says so";
}

} // namespace
