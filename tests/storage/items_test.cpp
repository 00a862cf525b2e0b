#include "storage/handles/root_tables.h"
#include "storage/tree/storage_item.h"
#include "support/fake_storage.h"
#include "support/fault_sweep.h"
#include "support/storage_test.h"

#include <map>
#include <memory>
#include <thread>

using namespace Support;
using Vexel::Detail::ItemRef;

namespace {

struct FakePart final : VxStream {
    FakePart(const SharedPathName& name, VxStorage* parent, VxStorageItem* root)
        : VxStream(name, parent, root) {}
    StorageFormat format() const noexcept override { return StorageFormat::Package; }
};

struct FakeListing final : VxStorageEnumerator {
    StorageFormat format() const noexcept override { return StorageFormat::Package; }
};

/// A node of a tree over fakes.
class FakeNode final : public VxStorage {
public:
    FakeNode(FakeCalls& calls, const SharedPathName& name, VxStorage* parent = nullptr,
             VxStorageItem* root = nullptr)
        : VxStorage(name, parent, root), calls_(calls) {
        setKeeper(Vexel::Detail::rootTables());
    }

    StorageFormat format() const noexcept override { return StorageFormat::Package; }
    long createTemporary(bool) override { return STG_E_INVALIDFUNCTION; }
    long borrowPackedData(VxStorage*) override { return STG_E_INVALIDFUNCTION; }
    long clear() override { return STG_E_INVALIDFUNCTION; }
    long createRoot(DWORD, DWORD) override { return STG_E_INVALIDFUNCTION; }
    long openRoot(DWORD stgm) override {
        const HRESULT status = calls_.add(L"openRoot", L"", stgm);
        if (status == S_OK)
            storage_ = fakeStorage(calls_);
        return status;
    }
    bool getFileTimes(FILETIME*, FILETIME*, FILETIME*) override { return false; }
    std::unique_ptr<VxStorage> newChildStorage(const SharedPathName& name) override {
        return std::make_unique<FakeNode>(calls_, name, this, root_);
    }
    std::unique_ptr<VxStream> newChildStream(const SharedPathName& name) override {
        return std::make_unique<FakePart>(name, this, root_);
    }
    std::unique_ptr<VxStorageEnumerator> createEnumerator() override {
        return std::make_unique<FakeListing>();
    }

private:
    FakeCalls& calls_;
};

class Items : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(root_.open(false, false), S_OK);
        calls_.take();
    }

    ItemRef<VxStorage> storage(const wchar_t* name, VxStorage& parent, bool readOnly = true) {
        ItemRef<VxStorage> child = parent.openChildStorage(element(name), readOnly, false, &status_);
        calls_.take();
        return child;
    }
    ItemRef<VxStorage> storage(const wchar_t* name) { return storage(name, root_); }
    ItemRef<VxStream> stream(const wchar_t* name, VxStorage& parent) {
        ItemRef<VxStream> child = parent.openChildStream(element(name), true, false, &status_);
        calls_.take();
        return child;
    }
    ItemRef<VxStream> stream(const wchar_t* name) { return stream(name, root_); }

    /// A way to the root's child "new": its item, or null; the status is in `status_`.
    struct Way {
        const char* what;
        StorageType type;
        bool readOnly, creates;
        std::function<const VxStorageItem*()> go;
    };
    const SharedPathName name_ = element(L"new");
    const Way ways_[6] = {
        {"read storage", StorageType::Storage, true, false,
         [this] { return root_.openChildStorage(name_, true, false, &status_).get(); }},
        {"write storage", StorageType::Storage, false, false,
         [this] { return root_.openChildStorage(name_, false, false, &status_).get(); }},
        {"create storage", StorageType::Storage, false, true,
         [this] { return root_.createChildStorage(name_, &status_, true).get(); }},
        {"read stream", StorageType::Stream, true, false,
         [this] { return root_.openChildStream(name_, true, false, &status_).get(); }},
        {"write stream", StorageType::Stream, false, false,
         [this] { return root_.openChildStream(name_, false, false, &status_).get(); }},
        {"create stream", StorageType::Stream, false, true,
         [this] { return root_.createChildStream(name_, &status_).get(); }},
    };

    FakeCalls calls_;
    FakeNode root_{calls_, SharedPathName(L"root", true, false)};
    HRESULT status_ = S_OK;
};

TEST_F(Items, AskForTheirCommitsAndTimes) {
    const SharedPathName a = element(L"a");
    stream(L"b")->commit();
    root_.commit();
    EXPECT_EQ(calls_.take(), L"Commit stream 0x2\nCommit storage 0x2\n") << "only if current";
    stream(L"unused", *storage(L"a").get());
    root_.destroyChild(a);
    EXPECT_EQ(calls_.take(), L"~Stream\n~Storage\nDestroyElement a\n");
    root_.close();
    calls_.take();
    root_.destroyChild(a);
    EXPECT_EQ(calls_.take(), L"openRoot  0x110022\nDestroyElement a\n");

    FILETIME times[4];
    stream(L"b")->stat(&times[0], &times[1]);
    root_.stat(&times[2], &times[3]);
    for (const int i : {0, 1, 2, 3})
        EXPECT_EQ(times[i].dwLowDateTime, i % 2 ? 7u : 5u) << "made, then changed";
}

TEST_F(Items, GoOnWhereTheyWereOrNotAtAll) {
    root_.close();
    ASSERT_EQ(root_.open(true, true), S_OK);
    const auto note = stream(L"note");
    calls_.position = 7;
    ASSERT_EQ(root_.open(false, true), S_OK);
    calls_.position = 0;
    calls_.take();
    calls_.failures = {{1, S_FALSE}};
    EXPECT_EQ(note->stream(), nullptr);
    EXPECT_EQ(calls_.take(), L"OpenStream note 0x10\nSeek\n~Stream\n");
    calls_.failures.clear();
    EXPECT_NE(note->stream(), nullptr);
    EXPECT_EQ(calls_.position, 7u);
    note->close();
    calls_.take();
    EXPECT_NE(note->stream(), nullptr);
    EXPECT_EQ(calls_.take(), L"OpenStream note 0x10\n") << "once";
    root_.close();
    ASSERT_EQ(root_.open(true, true), S_OK);
    ASSERT_NE(note->stream(), nullptr);
    ASSERT_EQ(root_.open(false, true), S_OK);
    ASSERT_EQ(note->open(true), S_OK);
    note->close();
    calls_.take();
    EXPECT_NE(note->stream(), nullptr);
    EXPECT_EQ(calls_.take(), L"OpenStream note 0x10\n") << "opening it rewinds";
}

TEST_F(Items, CleanUpLeavesTheObjectsWhenAsked) {
    const auto used = storage(L"used");
    storage(L"unused");
    stream(L"note", *storage(L"FileLinks").get());
    const auto links = storage(L"FileLinks");
    stream(L"inner", *storage(L"link", *links.get()).get());
    const auto item = [&](const wchar_t* name, VxStorage& parent) {
        return parent.openChildStorage(element(name), true, true, nullptr);
    };
    const VxStorage* const unused = item(L"unused", root_).get();

    EXPECT_TRUE(root_.deleteUnusedObjects(true));
    EXPECT_EQ(item(L"unused", root_).get(), unused) << "kept";
    EXPECT_EQ(calls_.take(), L"~Stream\n~Storage\n") << "and of the links only the stream in one";
    EXPECT_FALSE(unused->isOpen());
    EXPECT_TRUE(used->isOpen());
    const auto link = item(L"link", *links.get()).get();
    EXPECT_TRUE(link->isOpen());
    EXPECT_TRUE(link->holdOpen());
    EXPECT_FALSE(links->holdOpen());

    EXPECT_TRUE(root_.deleteUnusedObjects(false));
    EXPECT_FALSE(root_.hasChild(element(L"unused"), StorageType::Storage));
    EXPECT_FALSE(links->hasChild(element(L"link"), StorageType::Storage));
    EXPECT_TRUE(root_.isOpen());
    root_.openChildStream(element(L"lazy"), true, true, nullptr);
    EXPECT_TRUE(root_.deleteUnusedObjects(false)) << "an object that was not open";
    EXPECT_FALSE(root_.deleteUnusedObjects(false)) << "nothing left to free";
}

TEST_F(Items, RetryOnceAfterACleanUp) {
    enum Asked { Always, BelowTheRoot, Never };
    const std::pair<HRESULT, Asked> cases[] = {
        {STG_E_INSUFFICIENTMEMORY, Always},
        {HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY), Always},
        {STG_E_TOOMANYOPENFILES, Always},
        {STG_E_SHAREVIOLATION, BelowTheRoot},
        {STG_E_LOCKVIOLATION, BelowTheRoot},
        {STG_E_ACCESSDENIED, BelowTheRoot},
        {STG_E_FILENOTFOUND, Never},
        {STG_E_PATHNOTFOUND, Never},
        {E_OUTOFMEMORY, Never},
    };
    const auto outer = storage(L"outer", root_, false);
    for (const auto& [failure, when] : cases)
        for (VxStorage* const parent : {static_cast<VxStorage*>(&root_), outer.get()})
            for (const bool frees : {false, true}) {
                SCOPED_TRACE(testing::Message()
                             << std::hex << failure << (frees ? " freed" : " nothing freed"));
                const CleanUp cleanUp([&] {
                    EXPECT_TRUE(outer->referenced());
                    root_.deleteUnusedObjects(false); // the child being opened is safe from it
                    return frees;
                });
                const bool asked = when == Always || (when == BelowTheRoot && parent == outer.get());
                calls_.failures = {{0, failure}};
                EXPECT_EQ(bool(parent->openChildStream(name_, true, false, &status_)), asked && frees);
                EXPECT_EQ(status_, asked && frees ? S_OK : failure);
                EXPECT_EQ(CleanUp::runs, asked ? 1 : 0);
                calls_.failures.clear();
                parent->openChildStream(name_, true, true, nullptr)->close();
                calls_.take();
            }
}

TEST_F(Items, RetryEveryCallOnceOnly) {
    VxStream* bare = nullptr; // no handle keeps it
    const auto list = root_.createEnumerator();
    std::vector<std::pair<std::string, std::function<HRESULT()>>> cases{
        {"rewind", [&] { return bare->open(true); }},
        {"resize", [&] { return bare->setSize(1); }},
        {"commit storage", [&] { return root_.commit(); }},
        {"commit stream", [&] { return bare->commit(); }},
        {"ask storage", [&] { return root_.stat(nullptr, nullptr); }},
        {"ask stream", [&] { return bare->stat(nullptr, nullptr); }},
        {"list", [&] { return list->reset(&root_); }},
        {"destroy", [&] { return root_.destroyChild(name_); }},
    };
    for (const Way& way : ways_)
        cases.emplace_back(way.what, [&] { return way.go(), status_; });
    const struct {
        bool closing;                       // by the clean-up
        std::map<size_t, HRESULT> failures; // the third where a clean-up's closing is a call in between
        HRESULT expected;
    } courses[] = {
        {false, {{0, STG_E_TOOMANYOPENFILES}}, S_OK},
        {false, {{0, STG_E_TOOMANYOPENFILES}, {1, STG_E_READFAULT}, {2, STG_E_READFAULT}}, STG_E_READFAULT},
        {true, {{0, STG_E_TOOMANYOPENFILES}}, STG_E_INVALIDFUNCTION},
        {false, {{0, STG_E_TOOMANYOPENFILES}, {1, S_FALSE}, {2, S_FALSE}}, STG_E_READFAULT}, // no success
    };
    for (const auto& [what, operation] : cases) {
        for (const auto& [closing, failures, expected] : courses) {
            SCOPED_TRACE(testing::Message() << what << failures.size() << (closing ? ", closed" : ""));
            root_.deleteUnusedObjects(false);
            ASSERT_EQ(root_.open(false, false), S_OK);
            bare = stream(L"bare").get();
            const CleanUp cleanUp([&, close = closing] {
                const auto run = [&] { close ? root_.close() : void(root_.deleteUnusedObjects(false)); };
                std::thread(run).join(); // no lock is held
                return true;
            });
            calls_.take();
            calls_.failures = failures;
            EXPECT_EQ(operation(), expected);
            EXPECT_EQ(CleanUp::runs, 1);
            if (FAILED(expected)) {
                EXPECT_FALSE(root_.hasChild(name_, StorageType::Storage));
            }
            calls_.failures.clear();
        }
    }
}

// While the clean-up runs nobody has the tree for himself.
TEST_F(Items, MayBeOpenedByAnotherThreadMeanwhile) {
    const Way* const readers[] = {nullptr, &ways_[0], &ways_[3]}; // by type
    const auto check = [&](const Way& way, bool rewinds) {
        SCOPED_TRACE(way.what);
        ItemRef<VxStorageItem> others;
        const CleanUp cleanUp([&] {
            std::thread([&] {
                others = ItemRef(const_cast<VxStorageItem*>(readers[int(way.type)]->go()));
            }).join();
            return true;
        });
        calls_.take();
        calls_.failures = {{0, STG_E_TOOMANYOPENFILES}};
        const VxStorageItem* const item = way.go();
        calls_.failures.clear();
        EXPECT_EQ(status_, way.creates ? STG_E_FILEALREADYEXISTS : S_OK);
        ASSERT_TRUE(others);
        EXPECT_EQ(item, way.creates ? nullptr : others.get());
        EXPECT_EQ(others->readOnly(), way.readOnly || way.creates);
        EXPECT_TRUE(root_.VxStorage::hasChild(name_, others->type())) << "still open";
        EXPECT_EQ(calls_.take().find(L"Seek") != std::wstring::npos, rewinds) << "only opening does";
        others = {};
        root_.deleteUnusedObjects(false);
        ASSERT_EQ(root_.open(false, false), S_OK);
    };
    for (const Way& way : ways_)
        check(way, &way == &ways_[3]);
    check({"ask stream", StorageType::Stream, true, false,
           [&] {
               const auto known = root_.openChildStream(name_, true, true, nullptr);
               status_ = known->stat(nullptr, nullptr);
               return known.get();
           }},
          false);
}

// Some systems take changes below a storage that is open for reading, and lose them.
TEST_F(Items, ChangeNothingBelowAParentThatIsOpenForReadingByThen) {
    const CleanUp cleanUp([&] { return root_.close(), root_.open(true, false) == S_OK; });
    for (const Way& way : ways_) {
        if (way.readOnly)
            continue;
        root_.close();
        ASSERT_EQ(root_.open(false, false), S_OK);
        calls_.take();
        calls_.failures = {{0, STG_E_TOOMANYOPENFILES}};
        way.go();
        EXPECT_EQ(status_, STG_E_ACCESSDENIED) << way.what;
        EXPECT_EQ(calls_.log.size(), 3u) << way.what;
    }
}

TEST_F(Items, FailedOpeningsLeaveNothingBehind) {
    for (const Way& way : ways_) {
        if (way.readOnly)
            continue;
        const bool mayOpenRoot = &way != &ways_[4]; // a stream to be written does not
        const unsigned faults = sweepFaults([&](unsigned failing) {
            SCOPED_TRACE(testing::Message() << way.what << ", call " << failing << " failing");
            root_.deleteUnusedObjects(false);
            root_.close();
            if (!mayOpenRoot)
                root_.open(false, false);
            calls_.take();
            calls_.failures = {{failing, STG_E_READFAULT}};
            const bool made = way.go() != nullptr;
            calls_.failures.clear();
            if (made)
                return false;
            EXPECT_EQ(status_, STG_E_READFAULT);
            EXPECT_EQ(calls_.alive, root_.isOpen() ? 1 : 0);
            EXPECT_FALSE(root_.hasChild(name_, way.type));
            EXPECT_FALSE(root_.referenced());
            return true;
        });
        EXPECT_EQ(faults, 2u) << "calls that can fail";
    }
    EXPECT_EQ((root_.close(), root_.openChildStream(name_, false, false, &status_).get()), nullptr);
    EXPECT_EQ(status_, STG_E_ACCESSDENIED) << "the root was opened for reading";

    const auto known = storage(L"known");
    known->close();
    calls_.take();
    calls_.failures = {{1, STG_E_READFAULT}}; // the root is closed and opened for writing
    EXPECT_EQ(root_.openChildStorage(known->name(), false, false, &status_).get(), nullptr);
    EXPECT_EQ(calls_.take(), L"~Storage\nopenRoot  0x110022\n");
    EXPECT_TRUE(known->readOnly());
    EXPECT_TRUE(root_.readOnly());
    EXPECT_FALSE(known->isOpen());
    calls_.failures.clear();
    EXPECT_EQ(storage(L"known").get(), known.get()) << "still the node's item";
}

TEST_F(Items, ListStoragesAndStreamsOnly) {
    calls_.elements = {{L"lock", STGTY_LOCKBYTES},
                       {L"a", STGTY_STREAM},
                       {L"property", STGTY_PROPERTY},
                       {L"b", STGTY_STORAGE},
                       {L"lock", STGTY_LOCKBYTES}};
    const auto list = root_.createEnumerator();
    EXPECT_FALSE(list->moveNext());
    root_.close();
    ASSERT_EQ(list->reset(&root_), S_OK);
    std::wstring listed;
    while (list->moveNext()) {
        listed += std::to_wstring(static_cast<int>(list->type())) + list->name().asString() +
                  std::to_wstring(list->size().QuadPart) + L" ";
        EXPECT_EQ(list->createTime().dwLowDateTime, 5u);
        EXPECT_EQ(list->writeTime().dwLowDateTime, 7u);
    }
    EXPECT_EQ(listed, L"2a2 1b4 ");
    EXPECT_EQ(list->size().QuadPart + list->writeTime().dwLowDateTime, 0u) << "behind the last";

    calls_.take();
    calls_.failures = {{1, STG_E_READFAULT}, {2, STG_E_READFAULT}};
    ASSERT_EQ(list->reset(&root_), S_OK);
    EXPECT_FALSE(list->moveNext()) << "a failure ends it";
    EXPECT_EQ(list->status(), STG_E_READFAULT);
    EXPECT_EQ(list->reset(&root_), STG_E_READFAULT);
    EXPECT_FALSE(list->moveNext());
}

} // namespace
