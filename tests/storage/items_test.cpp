#include "storage/element_name.h"
#include "storage/storage_item.h"
#include "support/fake_storage.h"

#include <vexel/storage.h>

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

using Support::FakeCalls;
using Support::FakeNode;
using Vexel::Detail::elementName;
using Vexel::Detail::ItemRef;

namespace {

/// What a clean-up that was asked for by a retry does; counts its runs.
struct CleanUp {
    static inline int runs;
    static inline std::function<bool()> body;

    explicit CleanUp(std::function<bool()> run) {
        runs = 0;
        body = std::move(run);
        StorageContainer::Instance().setDeleteUnusedObjectsCallback([] {
            ++runs;
            return body();
        });
    }
    CleanUp(const CleanUp&) = delete;
    CleanUp& operator=(const CleanUp&) = delete;
    ~CleanUp() { StorageContainer::Instance().setDeleteUnusedObjectsCallback(nullptr); }
};

class Items : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(root_.open(false, false), S_OK);
        calls_.take();
    }

    ItemRef<VxStorage> storage(const wchar_t* name, VxStorage& parent, bool readOnly = true) {
        ItemRef<VxStorage> child = parent.openChildStorage(elementName(name), readOnly, false, &status_);
        calls_.take();
        return child;
    }
    ItemRef<VxStorage> storage(const wchar_t* name) { return storage(name, root_); }
    ItemRef<VxStream> stream(const wchar_t* name, VxStorage& parent) {
        ItemRef<VxStream> child = parent.openChildStream(elementName(name), true, false, &status_);
        calls_.take();
        return child;
    }
    ItemRef<VxStream> stream(const wchar_t* name) { return stream(name, root_); }

    FakeCalls calls_;
    FakeNode root_{calls_, StorageFormat::Package};
    HRESULT status_ = S_OK;
};

TEST(RootFlags, FollowModeAndUse) {
    const struct {
        const char* use;
        bool keyed;
        std::function<long(VxStorage&)> call;
        const wchar_t* asked;
    } cases[] = {
        {"read", false, [](VxStorage& root) { return root.open(true, true); }, L"openRoot  0x210000\n"},
        {"read, keyed", true, [](VxStorage& root) { return root.open(true, true); }, L"openRoot  0x10020\n"},
        {"write", true, [](VxStorage& root) { return root.open(false, true); }, L"openRoot  0x110022\n"},
        {"create", false, [](VxStorage& root) { return root.create(false, false, false); },
         L"createRoot  0x111022\n"},
        {"create for reading", false, [](VxStorage& root) { return root.create(false, true, false); },
         L"createRoot  0x210000\n"},
        {"create for reading, keyed", true, [](VxStorage& root) { return root.create(false, true, false); },
         L"createRoot  0x10020\n"},
        {"convert", true, [](VxStorage& root) { return root.create(true, false, false); },
         L"createRoot  0x30012\n"},
        {"convert for reading", false, [](VxStorage& root) { return root.create(true, true, false); },
         L"createRoot  0x30010\n"},
    };
    for (const auto& [use, keyed, call, asked] : cases) {
        SCOPED_TRACE(use);
        FakeCalls calls;
        FakeNode root(calls, StorageFormat::Package);
        root.setKeyed(keyed);
        EXPECT_EQ(call(root), S_OK);
        EXPECT_EQ(calls.take(), asked);
        EXPECT_EQ(root.readOnly(), std::string_view(use).find("read") != std::string_view::npos);
        EXPECT_EQ(root.rootFlag(), asked[0] == L'o') << "what an opening says";
        root.close();
        EXPECT_TRUE(root.readOnly() && !root.keyed() && !root.isOpen());
        EXPECT_EQ(calls.alive, 0);
    }
}

TEST_F(Items, AskThePlatformWithTheirFlags) {
    const SharedPathName a = elementName(L"a");
    root_.openChildStorage(a, true, false, nullptr);
    EXPECT_EQ(calls_.take(), L"OpenStorage a 0x10010\n");
    root_.openChildStorage(a, false, false, nullptr);
    EXPECT_EQ(calls_.take(), L"~Storage\nOpenStorage a 0x10012\n") << "reopened to be written";
    root_.openChildStorage(a, true, false, nullptr);
    EXPECT_EQ(calls_.take(), L"") << "good enough for reading";
    root_.createChildStorage(a, nullptr, false);
    EXPECT_EQ(calls_.take(), L"~Storage\nCreateStorage a 0x10012\n");
    stream(L"unused", *storage(L"a").get());
    root_.createChildStorage(a, nullptr, true);
    EXPECT_EQ(calls_.take(), L"~Stream\n~Storage\nCreateStorage a 0x11012\n");

    const SharedPathName b = elementName(L"b");
    root_.openChildStream(b, true, false, nullptr);
    EXPECT_EQ(calls_.take(), L"OpenStream b 0x10\n");
    root_.openChildStream(b, true, false, nullptr);
    EXPECT_EQ(calls_.take(), L"Seek\n");
    root_.openChildStream(b, false, false, nullptr);
    EXPECT_EQ(calls_.take(), L"~Stream\nOpenStream b 0x12\nSetSize 0\n");
    root_.openChildStream(b, false, false, nullptr);
    EXPECT_EQ(calls_.take(), L"Seek\nSetSize 0\n");
    root_.createChildStream(b, nullptr);
    EXPECT_EQ(calls_.take(), L"~Stream\nCreateStream b 0x1012\n");

    stream(L"b")->commit();
    root_.commit();
    EXPECT_EQ(calls_.take(), L"Commit stream 0x2\nCommit storage 0x2\n");
    FILETIME times[4];
    stream(L"b")->stat(&times[0], &times[1]);
    root_.stat(&times[2], &times[3]);
    EXPECT_EQ(calls_.take(), L"Stat 1\nStat 1\n");
    for (const int i : {0, 1, 2, 3})
        EXPECT_EQ(times[i].dwLowDateTime, i % 2 ? 7u : 5u) << "made, then changed";
    root_.destroyChild(b);
    EXPECT_EQ(calls_.take(), L"~Stream\nDestroyElement b\n");
    stream(L"unused", *storage(L"a").get());
    root_.close();
    calls_.take();
    root_.destroyChild(a);
    EXPECT_EQ(calls_.take(), L"openRoot  0x110022\nDestroyElement a\n");
}

TEST_F(Items, ReopenTheChainToWriteAStream) {
    root_.close();
    ASSERT_EQ(root_.open(true, true), S_OK);
    const auto outer = storage(L"outer");
    const auto inner = stream(L"inner", *outer.get());
    EXPECT_EQ(outer->openChildStream(elementName(L"other"), false, false, &status_).get(), nullptr);
    EXPECT_EQ(status_, STG_E_ACCESSDENIED) << "a stream that was not open does not";
    calls_.take();
    EXPECT_EQ(inner->open(false), S_OK);
    EXPECT_EQ(calls_.take(), L"~Stream\n~Storage\n~Storage\nopenRoot  0x110022\nOpenStorage outer 0x10012\n"
                             L"OpenStream inner 0x12\nSetSize 0\n");
    EXPECT_FALSE(root_.readOnly() || outer->readOnly() || inner->readOnly());
}

TEST_F(Items, OneItemForEachNode) {
    auto first = storage(L"a");
    EXPECT_EQ(storage(L"a").get(), first.get());
    const auto inner = stream(L"b", *first.get());
    EXPECT_TRUE(inner->parent() == first.get() && inner->root() == &root_);
    EXPECT_EQ(root_.addRef(), 3) << "one for each below";
    EXPECT_EQ(root_.release(), 2);
    const VxStorage* const unreferenced = std::exchange(first, {}).get();
    root_.deleteUnusedObjects(false);
    EXPECT_TRUE(inner->isOpen() && inner->parent()->isOpen()) << "what holds a used node is in use";
    EXPECT_EQ(storage(L"a").get(), unreferenced);

    const auto lazy = root_.openChildStorage(elementName(L"c"), true, true, &status_);
    EXPECT_EQ(calls_.take(), L"") << "not looked for";
    EXPECT_TRUE(lazy && !lazy->isOpen());
    EXPECT_TRUE(root_.hasChild(elementName(L"c"), StorageType::Storage));
    EXPECT_FALSE(root_.hasChild(elementName(L"c"), StorageType::Stream));
}

TEST_F(Items, MakeWayForTheOtherType) {
    const auto held = storage(L"a");
    EXPECT_EQ(stream(L"a").get(), nullptr);
    EXPECT_EQ(status_, STG_E_INVALIDPARAMETER);
    EXPECT_EQ(root_.createChildStream(elementName(L"a"), &status_).get(), nullptr);
    EXPECT_EQ(status_, STG_E_INVALIDPARAMETER);
    EXPECT_TRUE(held->isOpen());

    stream(L"b");
    EXPECT_NE(storage(L"b").get(), nullptr) << "nobody uses the stream";
    storage(L"c", *storage(L"b").get());
    const auto replaced = root_.createChildStream(elementName(L"b"), &status_);
    EXPECT_EQ(calls_.take(), L"~Storage\n~Storage\nCreateStream b 0x1012\n");
    EXPECT_TRUE(replaced && replaced->type() == StorageType::Stream && !replaced->readOnly());
}

TEST_F(Items, RefuseToTouchWhatIsInUse) {
    const auto heldStorage = storage(L"a");
    auto heldStream = stream(L"b");
    const struct {
        const char* what;
        HRESULT status;
        HRESULT expected;
    } cases[] = {
        {"create storage", (root_.createChildStorage(elementName(L"a"), &status_, false), status_),
         STG_E_FILEALREADYEXISTS},
        {"replace storage", (root_.createChildStorage(elementName(L"a"), &status_, true), status_),
         STG_E_FILEALREADYEXISTS},
        {"create stream", (root_.createChildStream(elementName(L"b"), &status_), status_),
         STG_E_FILEALREADYEXISTS},
        {"destroy storage", root_.destroyChild(elementName(L"a")), STG_E_INUSE},
        {"destroy stream", root_.destroyChild(elementName(L"b")), STG_E_INUSE},
        {"no name", root_.destroyChild({}), STG_E_INVALIDNAME},
        {"no name", (root_.openChildStorage({}, true, false, &status_), status_), STG_E_INVALIDPARAMETER},
        {"no name", (root_.createChildStream({}, &status_), status_), STG_E_INVALIDPARAMETER},
    };
    for (const auto& [what, status, expected] : cases)
        EXPECT_EQ(status, expected) << what;
    EXPECT_EQ(calls_.take(), L"");

    const auto below = stream(L"below", *heldStorage.get());
    root_.close();
    EXPECT_EQ(calls_.take(), L"~Stream\n~Storage\n~Stream\n~Storage\n") << "children first";
    EXPECT_EQ((root_.createChildStorage(elementName(L"a"), &status_, true), status_), STG_E_INVALIDPARAMETER)
        << "a closed one, but what is below it is in use";
    heldStream = {};
    root_.close();
    ASSERT_EQ(root_.open(true, false), S_OK);
    EXPECT_EQ(root_.destroyChild(elementName(L"b")), STG_E_ACCESSDENIED) << "in a root open for reading";
}

TEST_F(Items, CleanUpLeavesTheObjectsWhenAsked) {
    const auto used = storage(L"used");
    storage(L"unused");
    stream(L"note", *storage(L"FileLinks").get());
    const auto links = storage(L"FileLinks");
    stream(L"inner", *storage(L"link", *links.get()).get());
    const auto item = [&](const wchar_t* name, VxStorage& parent) {
        return parent.openChildStorage(elementName(name), true, true, nullptr);
    };
    const VxStorage* const unused = item(L"unused", root_).get();

    EXPECT_TRUE(root_.deleteUnusedObjects(true));
    EXPECT_EQ(item(L"unused", root_).get(), unused) << "kept";
    EXPECT_FALSE(unused->isOpen());
    EXPECT_TRUE(used->isOpen() && root_.isOpen());
    EXPECT_TRUE(item(L"link", *links.get())->isOpen()) << "held open";
    EXPECT_EQ(calls_.take(), L"~Stream\n~Storage\n") << "and the stream in it, unlike the one beside it";
    EXPECT_TRUE(item(L"link", *links.get())->holdOpen() && !links->holdOpen() && !root_.holdOpen());

    EXPECT_TRUE(root_.deleteUnusedObjects(false));
    EXPECT_FALSE(root_.hasChild(elementName(L"unused"), StorageType::Storage) ||
                 links->hasChild(elementName(L"link"), StorageType::Storage));
    EXPECT_TRUE(root_.isOpen());
    root_.openChildStream(elementName(L"lazy"), true, true, nullptr);
    EXPECT_TRUE(root_.deleteUnusedObjects(false)) << "an object that was not open";
    EXPECT_FALSE(root_.deleteUnusedObjects(false)) << "nothing left to free";
}

TEST_F(Items, RetryOnceAfterACleanUp) {
    const struct {
        HRESULT failure;
        bool childOnly;
        bool never;
    } cases[] = {
        {STG_E_INSUFFICIENTMEMORY, false, false},
        {HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY), false, false},
        {STG_E_TOOMANYOPENFILES, false, false},
        {STG_E_SHAREVIOLATION, true, false},
        {STG_E_LOCKVIOLATION, true, false},
        {STG_E_ACCESSDENIED, true, false},
        {STG_E_FILENOTFOUND, false, true},
        {STG_E_PATHNOTFOUND, false, true},
        {E_OUTOFMEMORY, false, true},
    };
    const auto outer = storage(L"outer", root_, false);
    for (const auto& [failure, childOnly, never] : cases) {
        for (const bool freed : {true, false}) {
            SCOPED_TRACE(testing::Message() << std::hex << failure << (freed ? " freed" : " nothing freed"));
            const CleanUp cleanUp([&, freed = freed] {
                EXPECT_TRUE(outer->referenced());
                root_.deleteUnusedObjects(false); // the child being opened is safe from it
                return freed;
            });
            for (VxStorage* const parent : {static_cast<VxStorage*>(&root_), outer.get()}) {
                const bool asked = !never && (!childOnly || parent == outer.get());
                CleanUp::runs = 0;
                calls_.take();
                calls_.failures = {{0, failure}};
                const auto child = parent->openChildStream(elementName(L"note"), true, false, &status_);
                EXPECT_EQ(calls_.log.size(), asked && freed ? 2u : 1u);
                EXPECT_EQ(CleanUp::runs, asked ? 1 : 0);
                EXPECT_EQ(status_, asked && freed ? S_OK : failure);
                EXPECT_EQ(static_cast<bool>(child), SUCCEEDED(status_));
                calls_.failures.clear();
                parent->openChildStream(elementName(L"note"), true, true, nullptr)->close();
            }
        }
    }
}

TEST_F(Items, RetryEveryCallOnceOnly) {
    VxStream* bare = nullptr; // no handle keeps it
    const SharedPathName name = elementName(L"new");
    const std::pair<const char*, std::function<HRESULT()>> cases[] = {
        {"open storage", [&] { return (root_.openChildStorage(name, true, false, &status_), status_); }},
        {"create storage", [&] { return (root_.createChildStorage(name, &status_, false), status_); }},
        {"open stream", [&] { return (root_.openChildStream(name, true, false, &status_), status_); }},
        {"create stream", [&] { return (root_.createChildStream(name, &status_), status_); }},
        {"rewind", [&] { return bare->open(true); }},
        {"resize", [&] { return bare->setSize(1); }},
    };
    const struct {
        const char* how;
        bool closing; // by the clean-up
        std::map<size_t, HRESULT> failures;
        HRESULT expected;
    } ways[] = {
        {"once", false, {{0, STG_E_TOOMANYOPENFILES}}, S_OK},
        {"twice", // the clean-up closes a stream meanwhile, or not
         false,
         {{0, STG_E_TOOMANYOPENFILES}, {1, STG_E_READFAULT}, {2, STG_E_READFAULT}},
         STG_E_READFAULT},
        {"once, then closed", true, {{0, STG_E_TOOMANYOPENFILES}}, STG_E_INVALIDFUNCTION},
    };
    for (const auto& [what, operation] : cases) {
        for (const auto& [how, closing, failures, expected] : ways) {
            root_.deleteUnusedObjects(false);
            ASSERT_EQ(root_.open(false, false), S_OK);
            bare = stream(L"bare").get();
            const CleanUp cleanUp([&, close = closing] {
                root_.deleteUnusedObjects(false);
                if (close)
                    root_.close();
                return true;
            });
            calls_.take();
            calls_.failures = failures;
            EXPECT_EQ(operation(), expected) << what << " failing " << how;
            EXPECT_EQ(CleanUp::runs, 1) << what << " failing " << how;
            calls_.failures.clear();
        }
    }
}

TEST_F(Items, FailedOpeningsLeaveNothingBehind) {
    const SharedPathName name = elementName(L"new");
    const struct {
        const char* what;
        bool rootOpen; // a stream to be written does not open it
        std::function<bool()> operation;
    } cases[] = {
        {"open storage", false, [&] { return bool(root_.openChildStorage(name, false, false, &status_)); }},
        {"create storage", false, [&] { return bool(root_.createChildStorage(name, &status_, false)); }},
        {"open stream", true, [&] { return bool(root_.openChildStream(name, false, false, &status_)); }},
        {"create stream", false, [&] { return bool(root_.createChildStream(name, &status_)); }},
    };
    for (const auto& [what, rootOpen, operation] : cases) {
        for (size_t failing = 0;; ++failing) {
            SCOPED_TRACE(testing::Message() << what << ", call " << failing << " failing");
            root_.deleteUnusedObjects(false);
            root_.close();
            if (rootOpen)
                root_.open(false, false);
            calls_.take();
            calls_.failures = {{failing, STG_E_READFAULT}};
            const bool made = operation();
            calls_.failures.clear();
            if (made) {
                EXPECT_EQ(failing, 2u) << "calls that can fail";
                break;
            }
            EXPECT_EQ(status_, STG_E_READFAULT);
            EXPECT_EQ(calls_.alive, root_.isOpen() ? 1 : 0);
            EXPECT_FALSE(root_.hasChild(name, StorageType::Storage) ||
                         root_.hasChild(name, StorageType::Stream));
            EXPECT_FALSE(root_.referenced());
            ASSERT_LT(failing, 10u);
        }
    }
    EXPECT_EQ((root_.close(), root_.openChildStream(name, false, false, &status_).get()), nullptr);
    EXPECT_EQ(status_, STG_E_ACCESSDENIED) << "the root was opened for reading";

    const auto known = storage(L"known");
    known->close();
    calls_.take();
    calls_.failures = {{1, STG_E_READFAULT}}; // the root is closed and opened for writing
    EXPECT_EQ(root_.openChildStorage(elementName(L"known"), false, false, &status_).get(), nullptr);
    EXPECT_EQ(calls_.take(), L"~Storage\nopenRoot  0x110022\n");
    EXPECT_TRUE(known->readOnly() && root_.readOnly() && !known->isOpen())
        << "closed, but still the node's item";
    calls_.failures.clear();
    EXPECT_EQ(storage(L"known").get(), known.get());
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
    const std::pair<const wchar_t*, StorageType> expected[] = {{L"a", StorageType::Stream},
                                                               {L"b", StorageType::Storage}};
    for (const auto& [name, type] : expected) {
        EXPECT_EQ(list->type() == StorageType{}, type == StorageType::Stream) << "before the first";
        ASSERT_TRUE(list->moveNext());
        EXPECT_EQ(list->name(), elementName(name));
        EXPECT_EQ(list->type(), type);
        EXPECT_TRUE(list->createTime().dwLowDateTime == 5 && list->writeTime().dwLowDateTime == 7);
    }
    EXPECT_EQ(list->size().QuadPart, 4u);
    EXPECT_FALSE(list->moveNext());
    EXPECT_TRUE(list->name().empty() && list->type() == StorageType{} && list->size().QuadPart == 0 &&
                list->writeTime().dwLowDateTime == 0);

    calls_.take();
    calls_.failures = {{1, STG_E_READFAULT}, {2, STG_E_READFAULT}};
    ASSERT_EQ(list->reset(&root_), S_OK);
    EXPECT_FALSE(list->moveNext()) << "a failure ends it";
    EXPECT_EQ(list->reset(&root_), STG_E_READFAULT);
    EXPECT_FALSE(list->moveNext());
}

TEST_F(Items, BoundTheirDepth) {
    std::vector<ItemRef<VxStorage>> chain;
    VxStorage* last = &root_;
    while (auto next = storage(L"deeper", *last)) {
        last = next.get();
        chain.push_back(std::move(next));
        ASSERT_LT(chain.size(), 10'000u);
    }
    EXPECT_EQ(status_, STG_E_INVALIDFUNCTION);
    EXPECT_GT(chain.size(), 500u);
    chain.clear();
    EXPECT_TRUE(root_.deleteUnusedObjects(false));
    EXPECT_EQ(calls_.alive, 0);
}

TEST(HandlesOfFormats, CompoundFilesAreLetGoOfAtOnce) {
    for (const StorageFormat format : {StorageFormat::CompoundFile, StorageFormat::Package}) {
        const bool compound = format == StorageFormat::CompoundFile;
        FakeCalls calls;
        FakeNode root(calls, format);
        root.open(true, false);
        VxStorage* const links =
            root.openChildStorage(elementName(L"FileLinks"), true, false, nullptr).detach();
        VxStorage* const link = links->openChildStorage(elementName(L"link"), true, false, nullptr).detach();
        VxStorage* const box = root.openChildStorage(elementName(L"box"), true, false, nullptr).detach();
        VxStream* const note = root.openChildStream(elementName(L"note"), true, false, nullptr).detach();
        calls.take();

        box->releaseHandle();
        EXPECT_EQ(calls.take(), compound ? L"~Storage\n" : L"") << "nothing below it";
        link->releaseHandle();
        links->releaseHandle();
        EXPECT_EQ(calls.take(), L"") << "held open, and so is what is above it";
        note->releaseHandle();
        EXPECT_EQ(root.isOpen(), !compound) << "the last one, held-open nodes or not";
        EXPECT_EQ(calls.alive, compound ? 0 : 5);
        EXPECT_TRUE(root.hasChild(elementName(L"note"), StorageType::Stream));
        root.close();
    }
}

} // namespace
