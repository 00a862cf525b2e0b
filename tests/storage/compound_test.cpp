#include "storage/compound/compound_storage.h"
#include "storage/handles/root_tables.h"
#include "support/fake_storage.h"
#include "support/faulty_storage.h"
#include "support/scarce_memory.h"
#include "support/storage_test.h"

#include <cwchar>
#include <deque>
#include <map>
#include <random>

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

// The system takes an element away before it makes the new one, and may fail then. All fakes are 5 bytes
// long.
TEST_F(CompoundRoots, DoNotCommitWhatWasLost) {
    FakeCalls calls;
    const auto open = [](StorageRef& box, StreamRef&) {
        return StreamRef().open(element(L"Note"), box, false);
    };
    const auto create = [](StorageRef& box, StreamRef&) { return StreamRef().create(element(L"Note"), box); };
    const auto replace = [](StorageRef& box, StreamRef&) {
        return StorageRef().create(element(L"Note"), box, true);
    };
    const auto make = [](StorageRef& box, StreamRef&) {
        return StorageRef().create(element(L"Note"), box, false);
    };
    const auto destroy = [](StorageRef& box, StreamRef&) { return box.destroy(element(L"Note")); };
    const auto empty = [](StorageRef&, StreamRef& held) { return held.setSize(0); };
    const auto emptyByInterface = [&](StorageRef& box, StreamRef&) {
        calls.size = 0;
        return box.commit();
    };
    const auto emptyAndRewind = [&](StorageRef& box, StreamRef&) {
        calls.size = 0;
        return StreamRef().open(element(L"Held"), box, true);
    };
    constexpr HRESULT kFault = STG_E_WRITEFAULT, kMemory = STG_E_INSUFFICIENTMEMORY,
                      kMissing = STG_E_FILENOTFOUND, kDenied = STG_E_ACCESSDENIED;
    const struct {
        const char* what;
        std::function<long(StorageRef& box, StreamRef& held)> change;
        std::map<size_t, HRESULT> failures;
        const wchar_t* lost; // its name
        HRESULT status = STG_E_WRITEFAULT;
        const wchar_t* calls = L""; // how the calls end
        bool isRepeated = false;    // after a clean-up
    } cases[] = {
        {"opened, and not there", open, {{4, kFault}, {5, kMissing}}, L"Note"},
        {"opened, and no memory to look", open, {{4, kFault}, {5, kMemory}}, L"Note"},
        {"opened, and it cannot be looked at", open, {{4, kFault}, {5, E_FAIL}}, L"Note"},
        {"opened, and its size is unknown", open, {{4, kFault}, {6, E_FAIL}}, L"Note"},
        {"opened, and there", open, {{4, kFault}}, nullptr},
        {"opened, and in use", open, {{4, kFault}, {5, kDenied}}, nullptr},
        {"opened in the second attempt", open, {{4, kMemory}, {5, kMissing}}, nullptr, S_OK, L"", true},
        {"created", create, {{3, kFault}, {4, E_FAIL}}, L"Note"},
        {"created beside it", create, {{0, kMissing}, {1, kMissing}, {2, kFault}}, nullptr},
        {"not created, for want of memory to look", create, {{0, kMemory}}, nullptr, kMemory},
        {"created over a storage, of which a part may be there",
         create,
         {{0, kMissing}, {3, kFault}, {4, kMissing}},
         L"Note"},
        {"a storage is replaced", replace, {{0, kMissing}, {3, kFault}}, L"Note"},
        {"a storage is made", make, {{0, kFault}}, nullptr},
        {"destroyed", destroy, {{3, kFault}, {4, E_FAIL}}, L"Note"},
        {"emptied", empty, {{3, kFault}, {4, kMissing}}, L"Held"},
        {"emptied, and there", empty, {{3, kFault}}, nullptr, kFault, L"OpenStream Held 0x12\nSeek\n"},
        {"not emptied, its size is unknown", empty, {{0, kMemory}}, nullptr, kMemory, L"Stat 0\n"},
        {"emptied, and cannot go on", empty, {{4, kFault}}, L"Held"},
        {"emptied by its interface",
         emptyByInterface,
         {},
         nullptr,
         S_OK,
         L"CreateStream Held 0x1012\nSeek\nCommit storage 0x2\n"},
        {"so emptied, and nobody can open it", emptyByInterface, {{3, kFault}, {7, kFault}}, L"Held"},
        {"so emptied, and closed by a failure", emptyAndRewind, {{0, kFault}, {4, kFault}}, L"Held"},
        {"emptied in the second attempt", empty, {{3, kMemory}, {4, kMissing}}, nullptr, S_OK, L"", true},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        const CleanUp cleanUp([&] { return test.isRepeated; });
        calls.mode = STGM_READWRITE;
        calls.givesNothing = false;
        calls.size = 5;
        StorageRef root = StorageRef::fromPtr(fakeStorage(calls).Get()),
                   box = openStorage(L"Box", root, false);
        StreamRef held = openStream(L"Held", box, false);
        held.Seek(vxio::IStream::SeekPosition::Begin, 3);
        EXPECT_EQ(box.commit(), S_OK);
        calls.take();
        log_.clear();
        calls.failures = test.failures;
        EXPECT_EQ(test.change(box, held), test.status);
        EXPECT_THAT(calls.take(), testing::EndsWith(test.calls));
        calls.size = 5;
        calls.failures.clear();
        EXPECT_EQ(held.readOnly(), test.lost && test.lost == held.name().asStringView());
        EXPECT_EQ(box.commit(), test.lost ? STG_E_REVERTED : S_OK);
        EXPECT_EQ(log_.count(VxLog_Error, L"\"|Box\""), test.lost ? 1 : 0);
        StorageRef package = newPackage(path_);
        EXPECT_EQ(root.copyTo(package), test.lost ? STG_E_REVERTED : S_OK);
        if (test.lost) {
            EXPECT_EQ(StreamRef().open(test.lost, box, true), STG_E_REVERTED) << "not empty, nor missing";
            EXPECT_EQ(StorageRef().open(test.lost, box, true), // which is not for streams that are in use
                      test.lost == held.name().asStringView() ? STG_E_INVALIDPARAMETER : STG_E_REVERTED);
            calls.take();
            calls.failures = {{1, E_FAIL}};
            EXPECT_EQ(StreamRef().open(test.lost, box, false), E_FAIL);
            calls.failures.clear();
            EXPECT_EQ(box.commit(), STG_E_REVERTED) << "made again, but not opened";
            EXPECT_EQ(StreamRef().open(test.lost, box, false), S_OK);
        }
        EXPECT_EQ(box.commit(), S_OK);
        calls.givesNothing = true;
        EXPECT_EQ(StreamRef().open(element(L"New"), box, false), STG_E_READFAULT);
        EXPECT_EQ(held.setSize(0), STG_E_READFAULT);
        closeForGood(package, held, box, root);
    }
    Vexel::Detail::LostElements lost;
    EXPECT_TRUE(WithFailingAllocation(0, [&] { lost.add(L"no memory for this"); }));
    EXPECT_FALSE(lost.empty());
}

TEST_F(CompoundRoots, KeepTheSpellingOfWhatIsWritten) {
    StorageRef root = openRoot(path_, modeWrite), box = openStorage(L"Box", root, false);
    openStream(L"NOTE", box, false);
    EXPECT_EQ(box.commit(), S_OK);
    EXPECT_EQ(children(box), L"Note ");
}

TEST_F(CompoundRoots, HaveStreamsEmptiedByInterfacesOfLongAgo) {
    StorageRef root = openRoot(path_, modeWrite), box = openStorage(L"Box", root, false);
    StreamRef made = newStream(L"New", box);
    ::IStream* const asked = made.stream();
    EXPECT_EQ(box.commit(), S_OK);
    EXPECT_EQ(asked->Write("text", 4, nullptr), S_OK);
    EXPECT_EQ(asked->SetSize({}), S_OK);
    EXPECT_EQ(box.commit(), S_OK);
    EXPECT_EQ(root.commit(), S_OK);
    closeForGood(made, box, root);
    EXPECT_THAT(readCompoundFile(file_),
                testing::UnorderedElementsAre(Element{L"Box/", ""}, Element{L"Box/New", ""},
                                              Element{L"Box/Note", "note"}));
}

// Whatever fails, and whichever way streams are emptied: after a commit that succeeds the file has all that
// was written, and after those that fail what it had before, or all that was written until one of them. The
// system's own storage keeps the file.
TEST_F(CompoundRoots, LoseNothingWhateverFails) {
    std::mt19937 random(1);
    const auto below = [&](unsigned limit) { return static_cast<unsigned>(random() % limit); };
    const CleanUp cleanUp([&] { return below(2) == 0; });
    const std::wstring names[] = {L"a", L"b", L"c", L"Box/d", L"Box/e", L"Box/f"};
    using Model = std::map<std::wstring, std::string>;
    Model committed;
    for (const std::wstring& name : names)
        committed[name] = "old contents";
    writeCompoundFile(file_, [&] {
        std::vector<Element> elements;
        for (const auto& [name, bytes] : committed)
            elements.push_back({name, bytes});
        return elements;
    }());
    int saves = 0, refusals = 0;
    for (int session = 0; session < 200; ++session) {
        SCOPED_TRACE(session);
        const unsigned every = session % 2 ? 6 : 0;
        FaultyStorage::draw = [] { return std::pair(Fault::None, S_OK); };
        Microsoft::WRL::ComPtr<IStorage> system;
        *system.GetAddressOf() = new FaultyStorage(
            openCompoundFile(file_, STGM_TRANSACTED | STGM_READWRITE | STGM_SHARE_DENY_WRITE));
        StorageRef root = StorageRef::fromPtr(system.Get()), box = openStorage(L"Box", root, false);
        FaultyStorage::draw = [&] {
            constexpr HRESULT kFailures[] = {STG_E_INSUFFICIENTMEMORY, STG_E_WRITEFAULT, S_FALSE};
            return std::pair(every && below(every) == 0 ? Fault(1 + below(3)) : Fault::None,
                             kFailures[below(3)]);
        };
        Model now = committed;
        std::vector<Model> possible{committed};
        const auto commitAfter = [&](HRESULT boxStatus) {
            const bool isSaved = boxStatus == S_OK && root.commit() == S_OK;
            if (isSaved)
                possible.clear();
            possible.push_back(now);
            (isSaved ? saves : refusals)++;
        };
        std::map<std::wstring, StreamRef> held;
        for (int step = 0; step < 20; ++step) {
            const std::wstring& name = names[below(std::size(names))];
            const StorageRef& parent = name.starts_with(L"Box") ? box : root;
            const SharedPathName child = element(name.substr(name.rfind(L'/') + 1));
            StreamRef& stream = held[name];
            const std::string text(std::size_t{below(3)} * below(40) * below(150),
                                   static_cast<char>('A' + below(26)));
            const auto writeNew = [&] {
                now.erase(name + L'/'); // lost, if it stood there
                now[name] = text.substr(0, stream.WriteBytes(text.data(), text.size()));
            };
            switch (below(10)) {
            case 0:
            case 1:
                if (stream.open(child, parent, false) == S_OK)
                    writeNew();
                break;
            case 2:
                stream.close();
                container().deleteUnusedObjects();
                if (stream.create(child, parent) == S_OK)
                    writeNew();
                break;
            case 3:
                if (stream.setSize(0) == S_OK)
                    now[name].clear();
                break;
            case 4:
                if (stream.stream() && stream.stream()->SetSize({}) == S_OK)
                    now[name].clear();
                break;
            case 5:
                stream.SeekToEnd();
                if (stream && !stream.readOnly())
                    now[name] += text.substr(0, stream.WriteBytes(text.data(), text.size()));
                break;
            case 6:
                stream.close();
                container().deleteUnusedObjects();
                if (StorageRef(parent).destroy(child) == S_OK)
                    now.erase(name), now.erase(name + L'/');
                break;
            case 7:
                stream.close();
                container().deleteUnusedObjects();
                break;
            case 8:
                stream.close();
                container().deleteUnusedObjects();
                if (StorageRef().create(child, parent, below(2) == 0) == S_OK)
                    now.erase(name), now[name + L'/'];
                container().deleteUnusedObjects();
                break;
            default:
                commitAfter(box.commit());
            }
        }
        const HRESULT last = box.commit();
        held.clear();
        box.close();
        root.close(); // is closed, and the caller's interface goes on with all that is in it
        root = StorageRef::fromPtr(system.Get());
        commitAfter(last);
        system.Reset();
        closeForGood(box, root);
        const auto readAs = [&](const Model& model) {
            Model read;
            for (const auto& [name, bytes] : readCompoundFile(file_))
                if (!bytes.empty() || model.contains(name))
                    read[name] = bytes; // else left by a failed attempt to make it
            return read;
        };
        const auto found =
            std::ranges::find_if(possible, [&](const Model& model) { return readAs(model) == model; });
        ASSERT_NE(found, possible.end());
        committed = Model(*found);
    }
    EXPECT_GT(saves, 50);
    EXPECT_GT(refusals, 20);
    log_.clear();
}

} // namespace
