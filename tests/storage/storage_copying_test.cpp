// Copying storages between the formats.

#include "support/fake_storage.h"
#include "support/fault_sweep.h"
#include "support/platform_guard.h"
#include "support/storage_test.h"

#include <vexel/copying.h>

#include <algorithm>
#include <cstdlib>
#include <initializer_list>
#include <map>
#include <set>
#include <thread>

using namespace Support;

namespace {

constexpr auto kCompoundFile = StorageFormat::CompoundFile, kPackage = StorageFormat::Package;
constexpr CLSID kSomeClass{0x12345678, 0x1234, 0x1234, {1, 2, 3, 4, 5, 6, 7, 8}};

std::vector<Element> allOf(const StorageRef& storage) { return sorted(elementsOf(storage)); }

CLSID classOf(const StorageRef& storage) {
    STATSTG info{};
    EXPECT_EQ(storage.storage()->Stat(&info, STATFLAG_NONAME), S_OK);
    return info.clsid;
}

class Copying : public StorageTest<> {
protected:
    SharedPathName at(std::wstring_view name) const { return path(folder_.file(name)); }
    StorageRef open(std::wstring_view name, RootStorageOpenMode mode = modeRead) const {
        return openRoot(at(name), mode);
    }
    /// The files "compound" and "package" with these elements.
    void writeBoth(const std::vector<Element>& elements) const {
        writeCompoundFile(folder_.file(L"compound"), elements);
        writeDocument(folder_.file(L"package"), kPackage, elements);
    }
    StorageRef package(std::wstring_view name = L"package") const { return newPackage(at(name)); }

    /// Of the root and of "b-box".
    static void setClasses(const std::wstring& file) {
        {
            const StorageRef root = openRoot(path(file), modeWrite), box = openStorage(L"b-box", root, false);
            for (const StorageRef& storage : {box, root}) {
                EXPECT_EQ(storage.storage()->SetClass(kSomeClass), S_OK);
                EXPECT_EQ(storage.commit(), S_OK);
            }
        }
        container().deleteUnusedObjects();
    }
};

TEST_F(Copying, ConvertingInPlaceIsForPackages) {
    const std::vector<Element> elements{{L"Box/", {}}, {L"Box/Note", "note"}};
    writeBoth(elements);
    StorageRef root;
    EXPECT_EQ(root.convert(at(L"compound"), modeWrite), STG_E_INVALIDFUNCTION);
    EXPECT_TRUE(root.null());
    EXPECT_EQ(readCompoundFile(folder_.file(L"compound")), elements);
    ASSERT_EQ(root.convert(at(L"package"), modeWrite), S_OK);
    EXPECT_FALSE(root.readOnly());
    EXPECT_EQ(allOf(root), elements);
    EXPECT_EQ(StorageRef().convert(at(L"package"), modeWrite), STG_E_FILEALREADYEXISTS);
    EXPECT_EQ(root.convert(at(L"missing"), modeRead), STG_E_FILENOTFOUND);
    EXPECT_EQ(root.convert(at(L"missing"), modeWrite), S_OK);
}

/// Takes down what it is told, in the notation of elements, and ends the work when it is told to.
class Observer : public Vexel::TreeObserver {
public:
    bool onNode(const Vexel::TreeNode& node) override {
        EXPECT_EQ(nodes.insert(text(node.path, node.type)).second, true);
        EXPECT_TRUE(node.parent.hasChild(node.path.back(), node.type));
        isLast = node.isLast;
        return !leftOut.contains(text(node.path, node.type));
    }
    void onStorage(Vexel::TreePath path, const StorageRef& storage) override {
        // Somebody who is waited for may need the root.
        if (path.empty())
            std::thread([&storage] { EXPECT_EQ(StorageEnumerator().reset(storage), S_OK); }).join();
        EXPECT_EQ(storages.insert(text(path, StorageType::Storage)).second, true);
    }
    bool onProgress(unsigned long long count) override {
        bytes += count;
        return steps-- > 0;
    }
    bool onFault(const Vexel::TreeFault& fault) override {
        EXPECT_EQ(fault.isInTarget, isInTarget);
        EXPECT_TRUE(FAILED(fault.status));
        faults.insert(text(fault.path, fault.type));
        return goesOn;
    }

    std::set<std::wstring> nodes, storages, faults, leftOut;
    unsigned long long bytes = 0;
    int steps = 1'000'000;
    bool goesOn = true, isInTarget = false, isLast = false;

private:
    static std::wstring text(Vexel::TreePath path, StorageType type) {
        std::wstring all;
        for (const SharedPathName& name : path)
            all += (all.empty() ? L"" : L"/") + std::wstring(name.asStringView());
        return type == StorageType::Storage ? all + L"/" : all;
    }
};

std::set<std::wstring> pathsOf(const std::vector<Element>& elements) {
    std::set<std::wstring> paths;
    for (const Element& element : elements)
        paths.insert(element.path);
    return paths;
}

unsigned long long totalOf(const std::vector<Element>& elements) {
    unsigned long long total = 0;
    for (const Element& element : elements)
        total += element.contents.size();
    return total;
}

/// A document with streams at many places, whose contents go into a package as they are.
std::vector<Element> placesOfStreams() {
    std::vector<Element> elements;
    for (const std::wstring path :
         {L"a-first", L"b-box/", L"b-box/c-first", L"b-box/d-deep/", L"b-box/d-deep/e-first",
          L"b-box/d-deep/f-last", L"b-box/g-last", L"h-middle", L"i-only/", L"i-only/j-only", L"k-last"})
        elements.push_back({path, path.ends_with(L'/') ? "" : noise(5000 + elements.size())});
    return elements;
}

/// Makes a stream of a compound file say that it is longer than it is, or changes a bit of a package's.
void damage(std::string& file, const Element& stream, bool isPackage) {
    const std::wstring name = stream.path.substr(stream.path.rfind(L'/') + 1);
    const std::string bytes(reinterpret_cast<const char*>(name.c_str()), 2 * name.size() + 2);
    const std::size_t at = file.find(isPackage ? stream.contents : bytes);
    ASSERT_NE(at, std::string::npos);
    if (isPackage)
        file[at + 2500] ^= 0x10;
    else
        file[at + 120 + 1] = 0x40; // the entry's size: 0x4088 and more instead of 5000
}

// From and to either format, and as the system copies the documents of others. All else goes over: odd names,
// classes and what is below; it joins what is there and replaces streams.
TEST_F(Copying, ABadStreamCostsThatStreamOnly) {
    struct Way {
        const char* name;
        StorageFormat from, to;
        bool foreign = false;
    };
    const Way ways[] = {{"compound to compound", kCompoundFile, kCompoundFile},
                        {"compound to package", kCompoundFile, kPackage},
                        {"foreign compound to package", kCompoundFile, kPackage, true},
                        {"package to compound", kPackage, kCompoundFile},
                        {"package to package", kPackage, kPackage}};
    const std::vector<std::set<std::wstring>> badOnes{
        {},
        {L"a-first"},
        {L"b-box/d-deep/f-last"},
        {L"i-only/j-only"},
        {L"a-first", L"b-box/d-deep/e-first", L"b-box/g-last", L"k-last"}};
    const std::vector<Element> before{{L"b-box/z-kept", "kept"}, {L"\1CompObj", "old"}, {L"z-kept", "kept"}};
    int number = 0;
    const auto copyWith = [&](const Way& way, const std::set<std::wstring>& bad, bool observed) {
        SCOPED_TRACE(testing::Message() << way.name << ", bad " << testing::PrintToString(bad)
                                        << (observed ? ", observed" : ""));
        const std::wstring from = folder_.file(std::to_wstring(++number) + L" from"),
                           to = folder_.file(std::to_wstring(number) + L" to");
        std::vector<Element> elements = placesOfStreams(), expected{before[0], before[2]};
        elements.insert(elements.end(), {{L"A name of thirty-one characters", std::string(100'000, 'b')},
                                         {L"b-box/d-deep/\u0416", ""},
                                         {L"\1CompObj", "new"}});
        if (way.foreign)
            elements.push_back({L"\1Ole", "ole"});
        writeDocument(to, way.to, before);
        writeDocument(from, way.from, elements);
        setClasses(from);
        std::string file = readFile(from);
        for (const Element& element : elements) {
            if (bad.contains(element.path))
                damage(file, element, way.from == kPackage);
            else
                expected.push_back(element);
        }
        writeFile(from, file);

        const StorageRef source = openRoot(path(from), modeRead);
        StorageRef target = openRoot(path(to), modeWrite);
        // What the application has open stays where it is.
        StreamRef mine = openStream(bad.contains(L"a-first") ? L"h-middle" : L"a-first", source),
                  kept = openStream(L"z-kept", target);
        ASSERT_EQ(mine.Seek(vxio::IReadStream::Begin, 3), 3u);
        ASSERT_EQ(kept.Seek(vxio::IReadStream::Begin, 2), 2u);
        // Nor does it matter that the reopening of its storage has closed it meanwhile.
        const StorageRef writing = bad.empty() ? openStorage(L"b-box", source, false) : StorageRef();
        Observer observer;
        EXPECT_EQ(Vexel::copyTree(source, target, observed ? &observer : nullptr),
                  bad.empty() ? S_OK : STG_E_READFAULT);
        if (observed) {
            std::erase_if(observer.nodes, [](const auto& node) { return node.ends_with(L".clsid"); });
            EXPECT_EQ(observer.nodes, pathsOf(elements));
            EXPECT_EQ(observer.faults, bad);
            EXPECT_GE(observer.bytes, totalOf(expected) - 8);
        }
        EXPECT_EQ(mine.GetPosition(), 3u);
        EXPECT_EQ(kept.GetPosition(), 2u);
        EXPECT_EQ(target.commit(), S_OK);
        closeForGood(mine, kept, target);
        const StorageRef result = openRoot(path(to), modeRead), box = openStorage(L"b-box", result);
        EXPECT_EQ(allOf(result), sorted(expected));
        EXPECT_TRUE(classOf(result) == kSomeClass);
        EXPECT_TRUE(classOf(box) == kSomeClass);
        EXPECT_TRUE(classOf(openStorage(L"d-deep", box)) == CLSID_NULL);
        if (way.from == kPackage &&
            (!observed || way.to != kCompoundFile)) { // told once, by the archive and by who copies
            EXPECT_EQ(log_.count(VxLog_Error, L"for copying: 0x8003001e") +
                          log_.count(VxLog_Error, L"has not met the expectations"),
                      2 * static_cast<int>(bad.size()));
        }
        log_.clear();
    };
    for (const Way& way : ways)
        for (const auto& bad : badOnes)
            for (const bool observed : {false, true})
                copyWith(way, bad, observed);
}

// Whatever the source is, and before anything is done.
TEST_F(Copying, RefusesTargetsItCannotWrite) {
    writeBoth({{L"Box/Note", "note"}});
    writeCompoundFile(folder_.file(L"foreign"), {{L"\1Ole", ""}, {L"Note", "note"}});
    for (const wchar_t* const from : {L"compound", L"foreign", L"package"}) {
        const StorageRef source = open(from);
        EXPECT_EQ(source.copyTo(source), STG_E_INVALIDPARAMETER);
        EXPECT_EQ(source.copyTo(StorageRef()), STG_E_INVALIDPARAMETER);
        EXPECT_EQ(StorageRef().copyTo(source), STG_E_INVALIDPARAMETER);
        for (const StorageFormat format : {kCompoundFile, kPackage}) {
            const std::wstring file = folder_.file(L"target");
            writeDocument(file, format, {{L"Box/", {}}});
            const std::string before = readFile(file);
            const StorageRef reader = open(L"target"), box = openStorage(L"Box", reader);
            for (const StorageRef& target : {reader, box}) {
                EXPECT_EQ(source.copyTo(target), STG_E_ACCESSDENIED);
                EXPECT_TRUE(target.readOnly());
            }
            EXPECT_EQ(readFile(file), before);
        }
        container().deleteUnusedObjects();
    }
}

// Wherever it is, between nodes or within a stream.
TEST_F(Copying, EndsWhereTheObserverWantsIt) {
    const std::vector<Element> elements{
        {L"a", "first"}, {L"box/", {}}, {L"box/large", std::string(150'000, 'j')}, {L"box/last", "l"}};
    writeBoth(elements);
    int number = 0;
    for (const wchar_t* const from : {L"compound", L"package"})
        for (const StorageFormat format : {kCompoundFile, kPackage}) {
            std::size_t most = 0;
            sweepFaults([&](unsigned steps) {
                SCOPED_TRACE(testing::Message() << from << static_cast<int>(format) << steps);
                const std::wstring to = std::to_wstring(++number);
                writeDocument(folder_.file(to), format, {{L"z-kept", {}}});
                const StorageRef target = open(to, modeWrite);
                Observer observer;
                observer.steps = static_cast<int>(steps);
                const long status = Vexel::copyTree(open(from), target, &observer);
                std::vector<Element> copied = allOf(target);
                copied.pop_back();
                EXPECT_GE(copied.size(), most);
                most = copied.size();
                EXPECT_THAT(elements, testing::IsSupersetOf(copied));
                if (status == E_ABORT)
                    return true;
                EXPECT_EQ(status, S_OK);
                EXPECT_EQ(observer.bytes, totalOf(elements));
                EXPECT_EQ(observer.storages, (std::set<std::wstring>{L"/", L"box/"}));
                EXPECT_TRUE(observer.isLast);
                return false;
            });
            EXPECT_EQ(most, elements.size());
        }
}

TEST_F(Copying, FaultsEndItWhereTheObserverWantsThat) {
    const std::vector<Element> elements = placesOfStreams();
    writeBoth(elements);
    std::string file = readFile(folder_.file(L"package"));
    damage(file, elements[2], true);
    writeFile(folder_.file(L"package"), file);
    Observer observer;
    observer.goesOn = false;
    observer.leftOut = {L"a-first"};
    StorageRef target = package(L"target");
    EXPECT_EQ(Vexel::copyTree(open(L"package"), target, &observer), STG_E_READFAULT);
    EXPECT_EQ(observer.faults, std::set<std::wstring>{elements[2].path});
    EXPECT_EQ(pathsOf(allOf(target)), std::set<std::wstring>{L"b-box/"});

    // What stands in the target's place is a fault there; the target itself cannot stand in the source.
    Observer other;
    other.isInTarget = true;
    EXPECT_EQ(Vexel::copyTree(target, newStorage(L"inside", target), &other), STG_E_ACCESSDENIED);
    ASSERT_EQ(target.destroy(L"b-box"), S_OK);
    newStream(L"b-box", target);
    EXPECT_TRUE(FAILED(Vexel::copyTree(open(L"compound"), target, &other)));
    EXPECT_EQ(other.faults, std::set<std::wstring>{L"b-box/"});
}

TEST_F(Copying, WalksMeetEachNodeOnce) {
    const std::vector<Element> elements = placesOfStreams();
    writeBoth(elements);
    for (const wchar_t* const name : {L"compound", L"package"}) {
        Observer all, stopped;
        EXPECT_EQ(Vexel::walkTree(open(name), all), S_OK);
        EXPECT_EQ(all.nodes, pathsOf(elements));
        EXPECT_EQ(all.bytes, 0u);
        stopped.steps = 3;
        EXPECT_EQ(Vexel::walkTree(open(name), stopped), E_ABORT);
        EXPECT_EQ(stopped.nodes.size(), 3u);
        EXPECT_EQ(Vexel::walkTree(StorageRef(), stopped), STG_E_INVALIDPARAMETER);
    }
}

// Not even the system's copy of another program's document leaves one in a package.
TEST_F(Copying, LeavesNoPartsWithoutMemory) {
    const std::vector<Element> elements{
        {L"Box/", {}}, {L"Box/Large", noise(300'000)}, {L"Last", "last"}, {L"\1Ole", "ole"}};
    writeCompoundFile(folder_.file(L"foreign"), elements);
    const StorageRef source = open(L"foreign");
    const unsigned failures = sweepFaults([&](unsigned spared) {
        SCOPED_TRACE(spared);
        const StorageRef target = package(std::to_wstring(spared));
        static unsigned left;
        left = spared;
        const PlatformGuard guard;
        Vexel::Detail::platform().reallocate = [](void* block, auto bytes) noexcept -> void* {
            if (left == 0)
                return nullptr;
            --left;
            return std::realloc(block, bytes);
        };
        const long status = source.copyTo(target);
        const std::vector<Element> copied = allOf(target);
        EXPECT_TRUE(status != S_OK || copied == sorted(elements));
        EXPECT_THAT(elements, testing::IsSupersetOf(copied));
        EXPECT_NE(status, STG_E_WRITEFAULT);
        return status != S_OK;
    });
    EXPECT_GT(failures, 2U);
}

class CopyingOfFakes : public Copying {
protected:
    CopyingOfFakes()
        : source_(StorageRef::fromPtr(fakeStorage(calls_).Get())),
          target_(StorageRef::fromPtr(fakeStorage(writable(targetCalls_)).Get())) {
        calls_.take();
        targetCalls_.take();
    }
    ~CopyingOfFakes() override {
        closeForGood(source_, target_); // the fakes, before what they write to
    }

    static FakeCalls& writable(FakeCalls& calls) {
        calls.mode = STGM_READWRITE;
        return calls;
    }
    /// The source is a document of ours: there is no "\1Ole". Its call with the number `failing` fails.
    void begin(size_t failing = 0, HRESULT failure = STG_E_FILENOTFOUND) {
        calls_.take();
        calls_.failures = {{failing, failure}, {0, STG_E_FILENOTFOUND}};
    }
    /// The source has these streams, of 5 bytes each.
    void list(std::initializer_list<const wchar_t*> names) {
        for (const wchar_t* const name : names)
            calls_.elements.emplace_back(name, STGTY_STREAM);
        calls_.size = 5;
        calls_.available = ~0ULL;
        calls_.moved = S_OK;
    }

    FakeCalls calls_, targetCalls_;
    StorageRef source_, target_;
};

TEST_F(CopyingOfFakes, IsTriedOnceMoreWhereThatHelps) {
    const CleanUp cleanUp([] { return true; });
    // The system's copies are looked at once more, and made up for where they end early.
    const std::wstring once = L"CopyTo\n", twice = L"CopyTo\nCopyTo\n", looked = L"EnumElements\nNext\n",
                       redone = L"Stat 1\nEnumElements\nNext\n", commit = L"Commit storage 0x2\n";
    constexpr HRESULT kMemory = HRESULT_FROM_WIN32(8), kFiles = STG_E_TOOMANYOPENFILES;
    const struct {
        const char* name;
        std::map<size_t, HRESULT> copies, commits;
        std::wstring calls, targetCalls;
        HRESULT result;
    } cases[] = {
        {"success", {}, {}, once + looked, L"", S_OK},
        {"memory once", {{0, E_OUTOFMEMORY}}, {}, once, L"", E_OUTOFMEMORY},
        {"memory of any facility", {{0, kMemory}}, {}, twice + looked, commit, S_OK},
        {"files twice", {{0, kFiles}, {1, kMemory}}, {}, twice, commit, STG_E_INSUFFICIENTMEMORY},
        {"files, and no commit", {{0, kFiles}}, {{0, STG_E_MEDIUMFULL}}, once, commit, kFiles},
        {"shared, but a root", {{0, STG_E_SHAREVIOLATION}}, {}, once + redone, L"", STG_E_SHAREVIOLATION},
        {"another", {{0, STG_E_WRITEFAULT}}, {}, once + redone, L"", STG_E_WRITEFAULT},
        {"no success", {{0, 0x20000002}}, {}, once + redone, L"", STG_E_READFAULT},
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

// A document larger than what may wait in memory is in the file before anybody commits: when as much waits,
// or before a stream that would make it more.
TEST_F(CopyingOfFakes, CommitsOnTheWay) {
    constexpr ULONGLONG kLargest = 64ULL << 20;
    list({L"First"});
    for (const ULONGLONG size : {kLargest, kLargest / 2 + 1}) {
        const std::wstring name = std::to_wstring(size);
        const StorageRef target = package(name);
        begin();
        calls_.size = size;
        EXPECT_EQ(source_.copyTo(target), S_OK);
        const StorageRef written = open(name, modeReadDenyWrite);
        EXPECT_EQ(openStream(L"First", written).size(), size);
        EXPECT_FALSE(written.hasChild(element(L"Second"), StorageType::Stream));
        EXPECT_EQ(target.hasChild(element(L"Second"), StorageType::Stream), size < kLargest);
        calls_.elements.emplace_back(L"Second", STGTY_STREAM);
    }
}

TEST_F(CopyingOfFakes, EndsWhereStoragesDoNot) {
    calls_.elements = {{L"Next", STGTY_STORAGE}};
    begin();
    EXPECT_EQ(source_.copyTo(package()), STG_E_INVALIDFUNCTION); // handles go only so deep
    EXPECT_EQ(std::ranges::count_if(
                  calls_.log, [](const std::wstring& call) { return call.starts_with(L"OpenStorage"); }),
              512);
    Observer observer;
    EXPECT_EQ(Vexel::walkTree(source_, observer), STG_E_INVALIDFUNCTION);
    EXPECT_EQ(observer.faults.size(), 1u);
}

// A part is not taken for the whole, whatever fails and with whatever status, and the rest is copied.
TEST_F(CopyingOfFakes, AFailureAnywhereFailsTheCopy) {
    list({L"First", L"Second", L"Third"});
    int number = 0;
    for (const HRESULT failure : {STG_E_READFAULT, STG_E_ACCESSDENIED, E_FAIL, HRESULT{0x20000002}}) {
        int failures = 0;
        for (size_t at = 1;; ++at) {
            const StorageRef target = package(L"package" + std::to_wstring(++number));
            begin(at, failure);
            const long status = source_.copyTo(target);
            const std::vector<std::wstring> calls = calls_.log;
            source_.deleteUnusedObjects();
            if (calls.size() <= at)
                break;
            const std::wstring& call = calls[at];
            const bool isOpening = call.starts_with(L"OpenStream");
            // Asking for a position, or putting it back, fails nothing.
            if (call.starts_with(L"~") || call == L"Seek" || (isOpening && !FAILED(failure)))
                continue;
            SCOPED_TRACE(call);
            EXPECT_EQ(status, FAILED(failure) ? failure : STG_E_READFAULT);
            if (isOpening || call == L"Read 5") {
                EXPECT_EQ(allOf(target).size(), 2u);
            }
            ++failures;
        }
        EXPECT_GE(failures, 11);
    }
}

// Nor may a package take what is neither S_OK nor a failure for success, where others are to take its
// elements.
TEST_F(CopyingOfFakes, OddStatusesOfATargetFailTheCopy) {
    const StorageRef source = package();
    newStream(L"A", source);
    newStream(L"C", newStorage(L"B", source));
    for (size_t at = 0, asked = 1; asked > 0; ++at) {
        targetCalls_.failures = {{at, 0x20000002}};
        const long status = source.copyTo(target_);
        const std::vector<std::wstring> calls = std::exchange(targetCalls_.log, {});
        asked = at < calls.size() ? calls.size() : 0;
        const bool isCreating = asked && calls[at].starts_with(L"Create");
        EXPECT_EQ(status, isCreating ? STG_E_READFAULT : S_OK) << at;
        EXPECT_GE(calls.size(), at < 3 ? 4U : 0U);
    }
    targetCalls_.failures.clear();
    newStream(L"Part", source, "which cannot be written");
    EXPECT_EQ(source.copyTo(target_), E_FAIL);
    EXPECT_NE(targetCalls_.take().find(L"DestroyElement Part"), std::wstring::npos);
    // One that cannot be taken away is told before all that failed earlier, and ends the work.
    newStream(L"R", newStorage(L"Q", source));
    for (const bool isObserved : {false, true}) {
        const auto copy = [&] {
            Observer observer;
            observer.isInTarget = true;
            return Vexel::copyTree(source, target_, isObserved ? &observer : nullptr);
        };
        EXPECT_EQ(copy(), E_FAIL); // what it leaves open the next ones close first
        targetCalls_.log.clear();
        EXPECT_EQ(copy(), E_FAIL);
        const auto calls = std::exchange(targetCalls_.log, {});
        const auto removal = std::ranges::find(calls, L"DestroyElement Part");
        targetCalls_.failures = {{static_cast<size_t>(removal - calls.begin()), STG_E_ACCESSDENIED}};
        EXPECT_EQ(copy(), STG_E_WRITEFAULT);
        if (isObserved) {
            EXPECT_TRUE(std::none_of(std::ranges::find(targetCalls_.log, *removal), targetCalls_.log.end(),
                                     [](const std::wstring& call) { return call.starts_with(L"C"); }));
        }
        targetCalls_.log.clear();
        targetCalls_.failures.clear();
    }
    targetCalls_.givesNothing = true;
    EXPECT_EQ(source.copyTo(target_), STG_E_READFAULT);
}

// What the system's copy has left of a stream may be there as long as nobody can reach it. So each call to
// the source fails in turn in the copy behind it, and what stays of the stream in the target is always told.
TEST_F(CopyingOfFakes, PartsThatCannotBeReachedAreTold) {
    constexpr HRESULT kFailures[]{STG_E_ACCESSDENIED, STG_E_TOOMANYOPENFILES, STG_E_INSUFFICIENTMEMORY,
                                  E_OUTOFMEMORY, 0x20000002};
    int number = 0, left = 0;
    const auto copy = [&](const std::map<size_t, HRESULT>& failures, bool hasPart) {
        SCOPED_TRACE(number);
        const StorageRef target = package(L"package" + std::to_wstring(++number));
        if (hasPart)
            newStream(L"First", target, "part"), newStream(L"Second", newStorage(L"Box", target), "part");
        source_.deleteUnusedObjects();
        calls_.take();
        calls_.available = ~0ULL;
        calls_.failures = failures;
        calls_.failures[1] = STG_E_MEDIUMFULL; // the system's copy of what has an "\1Ole"
        const long status = source_.copyTo(target);
        StreamRef first;
        const bool isLeft = first.open(L"First", target, true) == S_OK && first.size() == 4;
        EXPECT_TRUE(status == STG_E_WRITEFAULT || (status == STG_E_MEDIUMFULL && !isLeft));
        left += isLeft;
        return status;
    };
    list({L"First"});
    EXPECT_EQ(copy({}, true), STG_E_MEDIUMFULL);
    const std::vector<std::wstring> calls = calls_.log;
    ASSERT_EQ(std::ranges::find(calls, L"CopyTo") - calls.begin(), 1);
    for (const HRESULT failure : kFailures)
        for (size_t at = 2; at < calls.size(); ++at) {
            std::map<size_t, HRESULT> failures;
            for (size_t i = at; i < at + 8; ++i) // also behind the clean-up
                failures[i] = failure;
            copy(failures, true);
            if (calls[at].starts_with(L"OpenStream") && failure == STG_E_ACCESSDENIED) {
                EXPECT_EQ(copy(failures, false), STG_E_MEDIUMFULL);
            }
        }
    EXPECT_GT(left, 10);
    // What is too deep is not reached, nor is what comes behind it.
    calls_.elements.insert(calls_.elements.begin(), {L"Box", STGTY_STORAGE});
    EXPECT_EQ(copy({}, true), STG_E_WRITEFAULT);
}

TEST_F(CopyingOfFakes, PartsOfWhatCannotBeOpenedAreTold) {
    using Refused = decltype(FakeCalls::refused);
    const Refused noStorage{{L"OpenStorage", STG_E_ACCESSDENIED}};
    const Refused noStream{{L"OpenStream", STG_E_ACCESSDENIED}};
    const struct {
        const char* name;
        DWORD type;
        Refused inSource, inTarget;
        HRESULT result;
    } cases[] = {
        {"a storage", STGTY_STORAGE, noStorage, {}, STG_E_WRITEFAULT},
        {"one in the target", STGTY_STORAGE, {}, noStorage, STG_E_WRITEFAULT},
        {"none there", STGTY_STORAGE, noStorage, {{L"Open", STG_E_FILENOTFOUND}}, STG_E_READFAULT},
        {"a stream", STGTY_STREAM, noStream, {}, STG_E_WRITEFAULT},
        {"no new one", STGTY_STREAM, {}, {{L"CreateStream", STG_E_ACCESSDENIED}}, STG_E_WRITEFAULT},
        {"none there", STGTY_STREAM, noStream, {{L"Open", STG_E_FILENOTFOUND}}, STG_E_READFAULT},
        {"nobody knows", STGTY_STREAM, noStream, {{L"Open", E_FAIL}}, STG_E_WRITEFAULT},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        source_.deleteUnusedObjects();
        target_.deleteUnusedObjects();
        calls_.take();
        calls_.elements = {{L"Element", test.type}};
        calls_.failures = {{0, STG_E_READFAULT}}; // the system's copy
        calls_.refused = test.inSource;
        targetCalls_.refused = test.inTarget;
        EXPECT_EQ(source_.copyTo(target_), test.result);
    }
}

// The system's copy may have had what is only held by somebody else, but nobody knows what it made of the
// rest.
TEST_F(CopyingOfFakes, WhatCannotBeLookedAtIsNotKnownToBeWhole) {
    for (const DWORD type : {STGTY_STORAGE, STGTY_STREAM})
        for (const auto& [failure, isWhole] :
             std::initializer_list<std::pair<HRESULT, bool>>{{STG_E_ACCESSDENIED, true},
                                                             {STG_E_LOCKVIOLATION, true},
                                                             {STG_E_FILENOTFOUND, true},
                                                             {STG_E_INSUFFICIENTMEMORY, false},
                                                             {E_OUTOFMEMORY, false},
                                                             {STG_E_READFAULT, false},
                                                             {STG_E_DOCFILECORRUPT, false}}) {
            SCOPED_TRACE(failure);
            source_.deleteUnusedObjects();
            calls_.elements = {{L"Element", type}};
            calls_.refused = {{L"Open", failure}};
            EXPECT_EQ(source_.copyTo(target_) == S_OK, isWhole);
        }
}

// Nor has a part been taken away from a storage that cannot be committed.
TEST_F(CopyingOfFakes, PartsInWhatIsNotCommittedAreTold) {
    writeCompoundFile(folder_.file(L"foreign"), {{L"Box/", {}}, {L"Box/Note", "note"}, {L"\1Ole", "ole"}});
    const StorageRef source = open(L"foreign");
    EXPECT_NE(source.copyTo(target_), STG_E_WRITEFAULT);
    const auto last =
        std::ranges::find(targetCalls_.log.rbegin(), targetCalls_.log.rend(), L"Commit storage 0x2");
    ASSERT_NE(last, targetCalls_.log.rend());
    const auto number = static_cast<size_t>(targetCalls_.log.rend() - last) - 1;
    targetCalls_.take();
    targetCalls_.failures = {{number, STG_E_ACCESSDENIED}};
    EXPECT_EQ(source.copyTo(target_), STG_E_WRITEFAULT);
    targetCalls_.failures.clear();
}

// What may have parts further on is not committed on the way.
TEST_F(CopyingOfFakes, PartsAreNotCommitted) {
    list({L"First", L"Second"});
    calls_.size = 64ULL << 20;
    calls_.available = calls_.size;
    calls_.take();
    calls_.failures = {{1, STG_E_MEDIUMFULL}}; // the system's copy of what has an "\1Ole"
    const StorageRef target = package();
    newStream(L"Second", target, "part");
    EXPECT_EQ(source_.copyTo(target), STG_E_MEDIUMFULL);
    EXPECT_EQ(openStream(L"First", target).size(), calls_.size);
    EXPECT_FALSE(target.hasChild(element(L"Second"), StorageType::Stream));
    EXPECT_EQ(StorageRef().open(at(L"package"), modeReadDenyWrite, false), STG_E_FILENOTFOUND);
}

TEST_F(CopyingOfFakes, StreamsThatEndEarlyAreLeftOut) {
    list({L"First"});
    calls_.available = 0;
    for (const HRESULT end : {S_OK, STG_E_DOCFILECORRUPT}) {
        calls_.moved = end;
        begin();
        const StorageRef target = package();
        EXPECT_EQ(source_.copyTo(target), STG_E_READFAULT);
        EXPECT_TRUE(allOf(target).empty());
        calls_.failures.clear();
        EXPECT_EQ(source_.copyTo(target_), STG_E_READFAULT);
    }
}

TEST_F(CopyingOfFakes, OfOneStreamTellsWhatFailed) {
    StreamRef from, to;
    ASSERT_EQ(from.open(L"From", source_, true), S_OK);
    ASSERT_EQ(to.open(L"To", target_, true), S_OK);
    const std::wstring whole = L"Seek\nSetSize 0\n";
    const struct {
        const char* what;
        std::map<size_t, HRESULT> source, target;
        ULONGLONG size;
        HRESULT result;
        std::wstring targetCalls;
    } cases[] = {
        {"nothing", {}, {}, 0, S_OK, whole},
        {"position", {{0, E_NOTIMPL}}, {}, 0, S_OK, whole},
        {"size", {{1, E_NOTIMPL}}, {}, 5, S_OK, whole},
        {"source's start", {{2, STG_E_READFAULT}}, {}, 0, STG_E_READFAULT, L""},
        {"target's start", {}, {{0, STG_E_WRITEFAULT}}, 0, STG_E_WRITEFAULT, L"Seek\n"},
        {"copy", {{3, STG_E_REVERTED}}, {{1, STG_E_WRITEFAULT}}, 0, STG_E_REVERTED, whole},
        {"odd copy", {{3, S_FALSE}}, {}, 0, STG_E_READFAULT, whole},
        {"way back", {{4, STG_E_READFAULT}}, {}, 0, S_OK, whole},
        {"cutting off", {}, {{1, STG_E_MEDIUMFULL}}, 0, STG_E_MEDIUMFULL, whole},
        {"end of a damaged stream", {}, {}, 5, STG_E_READFAULT, whole},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        calls_.take();
        targetCalls_.take();
        calls_.failures = test.source;
        targetCalls_.failures = test.target;
        calls_.size = test.size;
        EXPECT_EQ(from.copyTo(to), test.result);
        EXPECT_EQ(targetCalls_.take(), test.targetCalls);
    }
    calls_.failures.clear();
    targetCalls_.failures.clear();
}

// While the target is opened once more, others may close the source.
TEST_F(CopyingOfFakes, HoldsTheStreamsItCopies) {
    StreamRef from, to;
    ASSERT_EQ(from.open(L"From", source_, true), S_OK);
    ASSERT_EQ(to.open(L"To", target_, true), S_OK);
    targetCalls_.take();
    targetCalls_.failures = {{0, STG_E_READFAULT}};
    EXPECT_EQ(StreamRef().open(L"To", target_, true), STG_E_READFAULT) << "which closes it for all";
    targetCalls_.take();
    targetCalls_.failures = {{0, STG_E_TOOMANYOPENFILES}};
    // And so does this.
    const CleanUp cleanUp([&] { return FAILED(StreamRef().open(L"From", source_, false)); });
    calls_.take();
    EXPECT_EQ(from.copyTo(to), S_OK);
    EXPECT_EQ(calls_.take(), L"Seek\nStat 1\nSeek\nCopyTo\nSeek\n~Stream\n");
}

} // namespace
