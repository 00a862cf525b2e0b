// Copying storages between the formats.

#include "support/compound_file.h"
#include "support/fake_storage.h"
#include "support/log_capture.h"

#include <vexel/storage.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

using Support::Element;

namespace Support {
static bool operator==(const Element& a, const Element& b) {
    return a.path == b.path && a.contents == b.contents;
}
} // namespace Support

namespace {

constexpr CLSID someClass{0x12345678, 0x1234, 0x1234, {1, 2, 3, 4, 5, 6, 7, 8}};

void collect(const StorageRef& storage, const std::wstring& prefix, std::vector<Element>& elements) {
    StorageEnumerator child;
    ASSERT_EQ(child.reset(storage), S_OK);
    while (child.moveNext()) {
        const std::wstring path = prefix + child.name().asString();
        if (child.type() == StorageType::Storage) {
            StorageRef inner;
            ASSERT_EQ(inner.open(child.name(), storage, true), S_OK);
            elements.push_back({path + L"/", {}});
            collect(inner, path + L"/", elements);
            continue;
        }
        StreamRef stream;
        ASSERT_EQ(stream.open(child.name(), storage, true), S_OK);
        std::string bytes(static_cast<std::size_t>(stream.size()), '\0');
        EXPECT_EQ(stream.ReadBytes(bytes.data(), bytes.size()), bytes.size());
        if (path != L".clsid" && !path.ends_with(L"/.clsid"))
            elements.push_back({path, bytes});
    }
}

std::vector<Element> sorted(std::vector<Element> elements) {
    std::sort(elements.begin(), elements.end(),
              [](const Element& a, const Element& b) { return a.path < b.path; });
    return elements;
}

/// All elements, in the order of their paths; what holds a package's class is none.
std::vector<Element> contents(const StorageRef& storage) {
    std::vector<Element> elements;
    collect(storage, L"", elements);
    return sorted(std::move(elements));
}

CLSID classOf(const StorageRef& storage) {
    STATSTG info{};
    EXPECT_EQ(storage.storage()->Stat(&info, STATFLAG_NONAME), S_OK);
    return info.clsid;
}

class Copying : public testing::Test {
protected:
    void TearDown() override { closeUnused(); }
    static void closeUnused() { StorageContainer::Instance().deleteUnusedObjects(); }
    SharedPathName path(std::wstring_view name) const { return {folder_.file(name), false, false}; }
    StorageRef open(std::wstring_view name, RootStorageOpenMode mode = RootStorageOpenMode::ReadOnly) const {
        StorageRef root;
        EXPECT_EQ(root.open(path(name), mode, false), S_OK);
        return root;
    }
    StorageRef compound(const std::vector<Element>& elements) const {
        Support::writeCompoundFile(folder_.file(L"compound"), elements);
        return open(L"compound");
    }
    StorageRef package(std::wstring_view name = L"package") const {
        StorageRef root;
        EXPECT_EQ(root.create(path(name)), S_OK);
        return root;
    }

    static void copy(const StorageRef& source, const StorageRef& target) {
        EXPECT_EQ(source.copyTo(target), S_OK);
    }
    /// Commits what is in the target and closes all.
    static void copyAndClose(const StorageRef& source, StorageRef target) {
        copy(source, target);
        EXPECT_EQ(target.commit(), S_OK);
        target.close();
        closeUnused();
    }
    /// The elements of a compound file with these when the source is copied into it.
    std::vector<Element> intoCompound(const StorageRef& source, const std::vector<Element>& elements) const {
        Support::writeCompoundFile(folder_.file(L"target"), elements);
        copyAndClose(source, open(L"target", RootStorageOpenMode::ReadWrite));
        return sorted(Support::readCompoundFile(folder_.file(L"target")));
    }

    Support::TempFolder folder_;
    LogCapture log_;
};

const std::vector<Element> document{{L"A name of thirty-one characters", "31"},
                                    {L"Big", std::string(100'000, 'b')},
                                    {L"Box/", {}},
                                    {L"Box/Deep/", {}},
                                    {L"Box/Deep/\u0416", "deep"},
                                    {L"Box/Empty", ""},
                                    {L"\1CompObj", "comp"}};

// With "\1Ole" the system copies, without the library does.
TEST_F(Copying, MakesPackagesOfCompoundFiles) {
    for (const bool foreign : {false, true}) {
        SCOPED_TRACE(foreign);
        std::vector<Element> elements = document;
        if (foreign)
            elements.push_back({L"\1Ole", "ole"});
        {
            constexpr DWORD mode = STGM_TRANSACTED | STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
            Support::writeCompoundFile(folder_.file(L"compound"), elements);
            const auto root = Support::openCompoundFile(folder_.file(L"compound"), mode);
            Microsoft::WRL::ComPtr<IStorage> box;
            ASSERT_EQ(root->OpenStorage(L"Box", nullptr, mode, nullptr, 0, &box), S_OK);
            for (IStorage* storage : {box.Get(), root.Get()}) {
                ASSERT_EQ(storage->SetClass(someClass), S_OK);
                ASSERT_EQ(storage->Commit(STGC_DEFAULT), S_OK);
            }
        }
        copyAndClose(open(L"compound"), package());
        const StorageRef result = open(L"package");
        EXPECT_EQ(result.format(), StorageFormat::Package);
        EXPECT_TRUE(contents(result) == sorted(elements));
        StorageRef box, deep;
        ASSERT_EQ(box.open(L"Box", result, true), S_OK);
        ASSERT_EQ(deep.open(L"Deep", box, true), S_OK);
        EXPECT_TRUE(classOf(result) == someClass);
        EXPECT_TRUE(classOf(box) == someClass);
        EXPECT_TRUE(classOf(deep) == CLSID_NULL);
    }
}

TEST_F(Copying, GoesBetweenAnyTwoFormats) {
    const std::vector<Element> elements{
        {L"Box/", {}}, {L"Box/Note", "note"}, {L"Long", std::string(9000, 'x')}};
    const StorageRef first = package(L"first");
    copy(compound(elements), first);
    const StorageRef second = package(L"second");
    copy(first, second);
    EXPECT_TRUE(contents(second) == elements);
    auto expected = elements;
    expected.push_back({L"Kept", "kept"});
    EXPECT_TRUE(intoCompound(second, {{L"Kept", "kept"}}) == sorted(expected));
}

TEST_F(Copying, JoinsStoragesAndReplacesStreams) {
    const std::vector<Element> before{{L"Box/Kept", "kept"}, {L"Note", "old"}};
    const std::vector<Element> expected{
        {L"Box/", {}}, {L"Box/Kept", "kept"}, {L"Box/New", "new"}, {L"Note", "n"}};
    const StorageRef earlier = package();
    copy(compound(before), earlier);
    closeUnused();
    const StorageRef later = package(L"more");
    copy(compound({{L"Box/New", "new"}, {L"Note", "n"}}), later);
    const StorageRef fromPackages = package(L"joined");
    copy(earlier, fromPackages);
    copy(later, fromPackages);
    EXPECT_TRUE(contents(fromPackages) == expected);
    copy(open(L"compound"), earlier);
    EXPECT_TRUE(contents(earlier) == expected);
    EXPECT_TRUE(intoCompound(later, before) == expected);
}

TEST_F(Copying, RefusesHandlesItCannotUse) {
    const StorageRef root = compound(document);
    EXPECT_EQ(root.copyTo(root), STG_E_INVALIDPARAMETER);
    EXPECT_EQ(root.copyTo(StorageRef()), STG_E_INVALIDPARAMETER);
    EXPECT_EQ(StorageRef().copyTo(root), STG_E_INVALIDPARAMETER);
}

TEST_F(Copying, ConvertingInPlaceIsForPackages) {
    copyAndClose(compound(document), package());
    StorageRef root;
    EXPECT_EQ(root.convert(path(L"compound"), RootStorageOpenMode::ReadWrite), STG_E_INVALIDFUNCTION);
    EXPECT_TRUE(root.null());
    EXPECT_TRUE(sorted(Support::readCompoundFile(folder_.file(L"compound"))) == sorted(document));
    ASSERT_EQ(root.convert(path(L"package"), RootStorageOpenMode::ReadWrite), S_OK);
    EXPECT_FALSE(root.readOnly());
    EXPECT_TRUE(contents(root) == sorted(document));
}

TEST_F(Copying, IntoAStorageOpenForReadingFails) {
    {
        const StorageRef target = package();
        StorageRef box;
        EXPECT_EQ(box.create(L"Box", target, false), S_OK);
        EXPECT_EQ(target.commit(), S_OK);
    }
    closeUnused();
    const StorageRef root = compound({{L"Box/Deep/\1Ole", ""}, {L"Box/Deep/Note", "note"}});
    StorageRef box, deep, target;
    ASSERT_EQ(box.open(L"Box", root, true), S_OK);
    ASSERT_EQ(deep.open(L"Deep", box, true), S_OK);
    ASSERT_EQ(target.open(L"Box", open(L"package"), true), S_OK);
    EXPECT_EQ(deep.copyTo(target), STG_E_ACCESSDENIED);
    EXPECT_EQ(log_.count(VxLog_Minor,
                         L"compound|Box/Deep\" to \"" + folder_.file(L"package") + L"|Box\": 0x80030005"),
              1);
}

// A document larger than what may wait in memory is in the file before anybody commits.
TEST_F(Copying, CommitsOnTheWay) {
    const std::vector<Element> elements{{L"A", std::string(64u << 20, 'a')}, {L"B", "b"}};
    const StorageRef target = package();
    copy(compound(elements), target);
    StorageRef first;
    ASSERT_EQ(first.open(path(L"package"), RootStorageOpenMode::ReadOnlyDenyWrite, false), S_OK);
    EXPECT_EQ(contents(first).size(), 1u);
    first.close();
    closeUnused();
    EXPECT_EQ(target.commit(), S_OK);
    closeUnused();
    EXPECT_TRUE(contents(target) == elements);
}

class CopyingOfFakes : public Copying {
protected:
    CopyingOfFakes()
        : source_(StorageRef::fromPtr(Support::fakeStorage(calls_).Get())),
          target_(StorageRef::fromPtr(Support::fakeStorage(targetCalls_).Get())) {
        calls_.take();
        targetCalls_.take();
    }
    ~CopyingOfFakes() override {
        StorageContainer::Instance().setDeleteUnusedObjectsCallback(nullptr);
        source_.close();
        target_.close();
        closeUnused(); // the fakes, before what they write to
    }

    Support::FakeCalls calls_, targetCalls_;
    StorageRef source_, target_;
};

TEST_F(CopyingOfFakes, IsTriedOnceMoreWhereThatHelps) {
    StorageContainer::Instance().setDeleteUnusedObjectsCallback([] { return true; });
    const std::wstring once = L"CopyTo\n", twice = L"CopyTo\nCopyTo\n", commit = L"Commit storage 0x2\n";
    constexpr HRESULT memory = HRESULT_FROM_WIN32(8), files = STG_E_TOOMANYOPENFILES;
    const struct {
        const char* name;
        std::map<size_t, HRESULT> copies, commits;
        std::wstring calls, targetCalls;
        HRESULT result;
    } cases[] = {
        {"success", {}, {}, once, L"", S_OK},
        {"memory once", {{0, E_OUTOFMEMORY}}, {}, once, L"", E_OUTOFMEMORY},
        {"memory of any facility", {{0, memory}}, {}, twice, commit, S_OK},
        {"files twice", {{0, files}, {1, memory}}, {}, twice, commit, STG_E_INSUFFICIENTMEMORY},
        {"files, and no commit", {{0, files}}, {{0, STG_E_MEDIUMFULL}}, once, commit, files},
        {"shared, but a root", {{0, STG_E_SHAREVIOLATION}}, {}, once, L"", STG_E_SHAREVIOLATION},
        {"another", {{0, STG_E_READFAULT}}, {}, once, L"", STG_E_READFAULT},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        calls_.failures = test.copies;
        targetCalls_.failures = test.commits;
        EXPECT_EQ(source_.copyTo(target_), test.result);
        EXPECT_EQ(calls_.take(), test.calls);
        EXPECT_EQ(targetCalls_.take(), test.targetCalls);
    }
}

TEST_F(CopyingOfFakes, EndsWhereStoragesDoNot) {
    calls_.elements = {{L"Next", STGTY_STORAGE}};
    calls_.failures = {{0, STG_E_FILENOTFOUND}};                 // there is no "\1Ole"
    EXPECT_EQ(source_.copyTo(package()), STG_E_INVALIDFUNCTION); // handles go only so deep
}

// A part is not taken for the whole, whatever fails.
TEST_F(CopyingOfFakes, AFailingListingFailsTheCopy) {
    calls_.elements = {{L"First", STGTY_STREAM}, {L"Second", STGTY_STREAM}};
    calls_.failures = {{0, STG_E_FILENOTFOUND}}; // there is no "\1Ole"
    size_t failures = 0;
    for (size_t at = 1;; ++at) {
        const StorageRef target = package(L"package" + std::to_wstring(at));
        calls_.take();
        calls_.failures = {{0, STG_E_FILENOTFOUND}, {at, STG_E_READFAULT}};
        const long status = source_.copyTo(target);
        const size_t calls = calls_.log.size();
        if (calls <= at)
            break;
        const std::wstring& call = calls_.log[at];
        if (!call.starts_with(L"Stat") && !call.starts_with(L"Seek") && !call.starts_with(L"~")) {
            EXPECT_EQ(status, STG_E_READFAULT) << at;
            ++failures;
        }
        source_.deleteUnusedObjects();
    }
    EXPECT_GE(failures, 6u);
}

} // namespace
