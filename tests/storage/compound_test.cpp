#include "storage/compound_storage.h"
#include "storage/element_name.h"
#include "storage/platform_storage.h"
#include "support/compound_file.h"
#include "support/fake_storage.h"
#include "support/scarce_memory.h"

#include <vexel/storage.h>
#include <vexel/temp_files.h>

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

using Support::FakeCalls;
using Vexel::Detail::compoundOptionsVersion;
using Vexel::Detail::elementName;
using Vexel::Detail::StoragePlatform;

namespace {

/// Answers the opening of root files in the system's place.
class ScriptedSystem {
public:
    struct Call {
        std::wstring path;
        DWORD stgm;
        USHORT version;
    };
    static inline std::deque<HRESULT> answers; // S_OK when there are no more
    static inline std::vector<Call> calls;
    static inline FakeCalls storages;

    explicit ScriptedSystem(std::deque<HRESULT> script) {
        answers = std::move(script);
        calls.clear();
        StoragePlatform().openStorage = open;
    }
    ScriptedSystem(const ScriptedSystem&) = delete;
    ScriptedSystem& operator=(const ScriptedSystem&) = delete;
    ~ScriptedSystem() {
        StoragePlatform() = saved_;
        compoundOptionsVersion() = 2;
    }

    /// The flags of the calls and the options' versions.
    static std::vector<std::pair<DWORD, int>> flags() {
        std::vector<std::pair<DWORD, int>> result;
        for (const Call& call : calls)
            result.emplace_back(call.stgm, call.version);
        return result;
    }

private:
    static HRESULT WINAPI open(const wchar_t* path, DWORD stgm, DWORD format, DWORD attributes,
                               STGOPTIONS* options, void* security, REFIID, void** result) {
        EXPECT_TRUE(format == STGFMT_DOCFILE && attributes == 0 && !security && !options->pwcsTemplateFile);
        EXPECT_TRUE(options->reserved == 0 && options->ulSectorSize == 4096);
        calls.push_back({path, stgm, options->usVersion});
        HRESULT status = S_OK;
        if (!answers.empty()) {
            status = answers.front();
            answers.pop_front();
        }
        *result = SUCCEEDED(status) ? Support::fakeStorage(storages).Detach() : nullptr;
        return status;
    }

    Vexel::Detail::PlatformStorage saved_ = StoragePlatform();
};

TEST(CompoundRoots, OpenAgainWhereThatHelps) {
    constexpr DWORD reading = 0x210000;
    constexpr DWORD writing = 0x110022;
    using Flags = std::vector<std::pair<DWORD, int>>;
    const struct {
        const char* what;
        bool readOnly;
        bool keyed;
        std::deque<HRESULT> answers;
        HRESULT status;
        Flags calls;
        bool cleanedUp;
    } cases[] = {
        {"at once", true, false, {S_OK}, S_OK, {{reading, 2}}, false},
        {"without a scratch file",
         false,
         true,
         {STG_E_ACCESSDENIED},
         S_OK,
         {{writing, 2}, {0x10022, 2}},
         false},
        {"without NOSNAPSHOT", true, false, {STG_E_LOCKVIOLATION}, S_OK, {{reading, 2}, {0x10000, 2}}, false},
        {"held for good",
         true,
         false,
         {STG_E_SHAREVIOLATION, STG_E_SHAREVIOLATION},
         STG_E_SHAREVIOLATION,
         {{reading, 2}, {0x10000, 2}},
         false},
        {"no file to copy", true, true, {STG_E_SHAREVIOLATION}, STG_E_SHAREVIOLATION, {{0x10020, 2}}, false},
        {"older options", true, false, {STG_E_INVALIDPARAMETER}, S_OK, {{reading, 2}, {reading, 1}}, false},
        {"no options will do",
         true,
         false,
         {STG_E_INVALIDPARAMETER, STG_E_INVALIDPARAMETER},
         STG_E_INVALIDPARAMETER,
         {{reading, 2}, {reading, 1}},
         false},
        {"bad name", true, false, {STG_E_INVALIDNAME}, STG_E_INVALIDNAME, {{reading, 2}}, false},
        {"missing", true, false, {STG_E_FILENOTFOUND}, STG_E_FILENOTFOUND, {{reading, 2}}, false},
        {"memory", false, true, {STG_E_INSUFFICIENTMEMORY}, S_OK, {{writing, 2}, {writing, 2}}, true},
        {"all three",
         false,
         true,
         {STG_E_ACCESSDENIED, STG_E_TOOMANYOPENFILES, STG_E_READFAULT},
         STG_E_READFAULT,
         {{writing, 2}, {0x10022, 2}, {writing, 2}},
         true},
    };
    static bool cleanedUp;
    StorageContainer::Instance().setDeleteUnusedObjectsCallback([] { return cleanedUp = true; });
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        const ScriptedSystem system(test.answers);
        cleanedUp = false;
        VxCompoundStorage root(SharedPathName(L"C:\\no such folder\\file.cfb", false, false));
        root.setKeyed(test.keyed);
        EXPECT_EQ(root.open(test.readOnly, false), test.status);
        EXPECT_EQ(ScriptedSystem::flags(), test.calls);
        EXPECT_EQ(cleanedUp, test.cleanedUp);
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
    EXPECT_EQ(ScriptedSystem::calls.size(), 4u);
    EXPECT_EQ(ScriptedSystem::calls[2].version, 1);
}

TEST(CompoundRoots, ReadACopyOfAHeldFile) {
    const Support::TempFolder folder;
    const std::wstring file = folder.file(L"held.xls");
    Support::writeCompoundFile(file, {{L"Note", "note"}});
    for (const HRESULT ofCopy : {S_OK, STG_E_READFAULT}) {
        const ScriptedSystem system({STG_E_LOCKVIOLATION, ofCopy});
        VxCompoundStorage root(SharedPathName(file, false, false));
        root.setKeyed(true);
        EXPECT_EQ(root.open(true, false), ofCopy);
        ASSERT_EQ(ScriptedSystem::calls.size(), 2u);
        const std::wstring copy = ScriptedSystem::calls[1].path;
        EXPECT_TRUE(copy.find(L"\\vxsv-") != copy.npos && copy.ends_with(L".xls")) << "named after the file";
        EXPECT_EQ(ScriptedSystem::calls[1].stgm, 0x10020u);
        EXPECT_EQ(root.name(), SharedPathName(file, false, false));

        root.close();
        for (int i = 0; i < 3000 && GetFileAttributesW(copy.c_str()) != INVALID_FILE_ATTRIBUTES; ++i) {
            TempFileContainer::Instance().clear();
            Sleep(10);
        }
        EXPECT_EQ(GetFileAttributesW(copy.c_str()), INVALID_FILE_ATTRIBUTES) << "given up for deletion";
    }
}

TEST(CompoundRoots, CopyForReadersWhoKeepWritersOutOnly) {
    const Support::TempFolder folder;
    const std::wstring file = folder.file(L"held.xls");
    Support::writeCompoundFile(file, {{L"Note", "note"}});
    for (const auto& [keyed, readOnly] : {std::pair(false, true), std::pair(true, false)}) {
        const ScriptedSystem system({STG_E_SHAREVIOLATION});
        VxCompoundStorage root(SharedPathName(file, false, false));
        root.setKeyed(keyed);
        EXPECT_EQ(root.open(readOnly, false), S_OK);
        ASSERT_EQ(ScriptedSystem::calls.size(), 2u);
        EXPECT_EQ(ScriptedSystem::calls[1].path, file);
    }
}

TEST(CompoundRoots, RaiseNothingWhileTheyOpenACopy) {
    const Support::TempFolder folder;
    const SharedPathName file(folder.file(L"held.xls"), false, false);
    Support::writeCompoundFile(file.asString(), {{L"Note", "note"}});
    static bool struck;
    struck = true;
    for (int spared = 0; struck && spared < 1000; ++spared) {
        const ScriptedSystem system({STG_E_SHAREVIOLATION});
        VxCompoundStorage root(file);
        root.setKeyed(true);
        struck = false;
        AtMainAllocation(spared, [] {
            struck = true;
            throw std::bad_alloc();
        });
        const HRESULT status = root.open(true, false);
        AtMainAllocation(0, nullptr);
        EXPECT_TRUE(status == STG_E_INSUFFICIENTMEMORY || status == S_OK) << spared;
        EXPECT_EQ(root.isOpen(), status == S_OK) << spared;
        root.close();
    }
    EXPECT_FALSE(struck);
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

TEST_F(CompoundNodes, KnowTheirChildren) {
    constexpr auto storage = StorageType::Storage;
    constexpr auto stream = StorageType::Stream;
    constexpr auto either = StorageType{};
    const struct {
        const wchar_t* name;
        StorageType type;
        bool expected;
    } cases[] = {
        {L"Box", storage, true},   {L"Box", stream, false},          {L"Box", either, true},
        {L"Note", storage, false}, {L"Note", stream, true},          {L"Note", either, true},
        {L"Nix", either, false},   {L"Note", StorageType{3}, false}, {L"", either, false},
        {L"a/b", either, false},
    };
    const auto check = [&](const char* state) {
        for (const auto& [name, type, expected] : cases)
            EXPECT_EQ(root_.hasChild(elementName(name), type), expected)
                << state << ": " << CStringW(name).GetString() << " " << static_cast<int>(type);
    };
    check("nothing open");
    const auto box = root_.openChildStorage(elementName(L"Box"), false, false, nullptr);
    const auto note = root_.openChildStream(elementName(L"Note"), true, false, nullptr);
    ASSERT_TRUE(box && note);
    check("held by their handles");
    EXPECT_TRUE(box->hasChild(elementName(L"Note"), stream));
    const SharedPathName other = elementName(L"NOTE");
    EXPECT_TRUE(root_.hasChild(other, stream)) << "cannot be opened a second time, but is there";
    EXPECT_EQ(root_.openChildStream(other, true, false, nullptr).get(), nullptr);
    root_.close();
    check("root closed");
    EXPECT_FALSE(root_.isOpen());
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
    root.attach(Support::fakeStorage(calls).Get());
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
    wrapped.attach(reading.Get());
    EXPECT_TRUE(wrapped.readOnly());
    EXPECT_EQ(wrapped.destroyChild(elementName(L"Note")), STG_E_ACCESSDENIED);
    EXPECT_EQ(wrapped.open(false, false), STG_E_ACCESSDENIED);
    EXPECT_TRUE(wrapped.isOpen()) << "once closed it could not be opened again";
    EXPECT_FALSE(wrapped.getFileTimes(nullptr, nullptr, nullptr)) << "no file is known";

    silent.failures = {{0, E_NOTIMPL}};
    wrapped.attach(Support::fakeStorage(silent).Get());
    EXPECT_FALSE(wrapped.readOnly()) << "nothing says so";
}

TEST_F(CompoundNodes, ReplaceOnlyWhenAsked) {
    HRESULT status = S_OK;
    const SharedPathName box = elementName(L"Box");
    EXPECT_EQ(root_.createChildStorage(box, &status, false).get(), nullptr);
    EXPECT_EQ(status, STG_E_FILEALREADYEXISTS);
    ASSERT_NE(root_.createChildStorage(box, &status, true).get(), nullptr);
    const auto note = root_.createChildStream(elementName(L"Empty"), &status);
    ASSERT_TRUE(note) << "a stream takes the storage's place";
    EXPECT_EQ(note->setSize(3), S_OK);
    EXPECT_EQ(note->size(), 3u);
    EXPECT_EQ(root_.openChildStorage(box, false, true, nullptr)->commit(), S_OK);
    EXPECT_EQ(root_.commit(), S_OK);
    root_.close();
    std::vector<std::wstring> paths;
    for (const Support::Element& element : Support::readCompoundFile(file_))
        paths.push_back(element.path);
    EXPECT_EQ(paths, (std::vector<std::wstring>{L"Box/", L"Note", L"Empty"}));
}

} // namespace
