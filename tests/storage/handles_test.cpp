// What vexel/storage.h promises of the handles, held against both formats; then what is particular to
// compound files.

#include "support/scarce_memory.h"
#include "support/storage_test.h"
#include "support/streams.h"

#include <algorithm>
#include <array>
#include <climits>
#include <optional>
#include <set>

using namespace Support;
using SeekPosition = vxio::IReadStream::SeekPosition;

namespace {

const std::vector<Element> kSample{{L"Box/", {}},
                                   {L"Box/Deep/", {}},
                                   {L"Box/Deep/NOTE", "deep"},
                                   {L"Box/Note", "box"},
                                   {L"Long", std::string(50, 'x')},
                                   {L"Short", "0123456789"}};

template <class Test>
class Document : public StorageTest<Test> {
protected:
    StorageRef forReading() const { return openRoot(this->path_, modeReadDenyWrite); }
    StorageRef forWriting() const { return openRoot(this->path_, modeWrite); }
};

/// What is wanted to differ between the two formats.
struct Format {
    const char* name;
    StorageFormat format;
    StreamCompression compression;
};

class Handles : public Document<testing::TestWithParam<Format>> {
protected:
    static bool isPackage() { return GetParam().format == StorageFormat::Package; }

    /// A new file with these elements, which nobody has open.
    void make(const std::vector<Element>& elements) {
        container().deleteUnusedObjects();
        writeDocument(file_, GetParam().format, elements);
    }
    void SetUp() override { make(kSample); }

    /// What is in the file. Nothing may be in use.
    std::vector<Element> saved() const {
        container().deleteUnusedObjects();
        EXPECT_TRUE(released());
        return readDocument(file_, GetParam().format);
    }
};

INSTANTIATE_TEST_SUITE_P(
    Both, Handles,
    testing::Values(Format{"Compound", StorageFormat::CompoundFile, StreamCompression::None},
                    Format{"Package", StorageFormat::Package, StreamCompression::Packed}),
    [](const auto& format) { return format.param.name; });

TEST(NullHandles, AnswerEveryCall) {
    StorageRef storage;
    StreamRef stream, other;
    StorageEnumerator children;
    FILETIME times[2] = {{1, 1}, {1, 1}};
    unsigned long done = 7;
    char byte = 0;
    expectEach(STG_E_INVALIDPARAMETER,
               {storage.open(L"x", StorageRef(), true), storage.create(CStringW(L"x"), StorageRef(), false),
                storage.destroy(L"x"), storage.clear(), storage.commit(),
                storage.borrowPackedData(StorageRef()), storage.stat(&times[0], nullptr),
                stream.open(CStringW(L"x"), storage, true), stream.create(L"x", storage),
                stream.read(&byte, 1, &done), stream.write(&byte, 1, nullptr), stream.copyTo(other),
                stream.commit(), stream.stat(nullptr, &times[1]), children.reset(storage)});
    EXPECT_EQ(stream.setSize(1), E_FAIL);
    EXPECT_EQ(children.status(), STG_E_INVALIDPARAMETER);
    EXPECT_EQ(times[0].dwLowDateTime + times[1].dwHighDateTime + done, 0u);

    const bool answers[] = {!storage,
                            !stream,
                            !children,
                            !storage.parent(),
                            storage.readOnly(),
                            stream.readOnly(),
                            storage == StorageRef::fromPtr(nullptr),
                            stream == other,
                            !storage.storage(),
                            !stream.stream(),
                            storage.name().empty(),
                            stream.name().empty(),
                            children.name().empty(),
                            !children.moveNext(),
                            !storage.hasChild(element(L"x"), StorageType{}),
                            storage.format() == StorageFormat::None,
                            stream.compression() == StreamCompression::None,
                            !storage.getFileTimes(nullptr, nullptr, nullptr)};
    EXPECT_THAT(answers, testing::Each(true));
    storage.close();
    storage.deleteUnusedObjects();
    children.release();
}

// Some systems leave a damaged compound file behind when a stream that had contents is empty at a commit. The
// neighbours tell, and so does the guard that looks at each compound file before it is opened for writing.
TEST_P(Handles, EmptiedStreamsLeaveAWholeDocument) {
    void (*const ways[])(StreamRef&, const StorageRef&) = {
        [](StreamRef& stream, const StorageRef&) { EXPECT_EQ(stream.setSize(0), S_OK); },
        [](StreamRef& stream, const StorageRef& parent) {
            EXPECT_EQ(newStream(L"empty", parent).copyTo(stream), S_OK);
            EXPECT_EQ(stream.Seek(SeekPosition::Begin, 3), 3u);
        },
        [](StreamRef& stream, const StorageRef& parent) {
            EXPECT_EQ(StreamRef().open(L"b", parent, false), S_OK);
            EXPECT_EQ(stream.Seek(SeekPosition::Begin, 3), 3u);
        }};
    for (const std::size_t size : {10u, 4095u, 4096u, 20'000u})
        for (int round = 0; round < 6; ++round) {
            const std::string more = round < 3 ? "" : "new";
            SCOPED_TRACE(testing::Message() << round << ", " << size);
            std::vector<Element> elements;
            for (const wchar_t* const place : {L"a", L"b", L"c"})
                elements.push_back({place, std::string(size, 'x')});
            make(elements);
            elements[1].contents = more;
            {
                const StorageRef root = forWriting();
                StreamRef stream = newStream(L"b", root, std::string(size, 'y'));
                EXPECT_EQ(root.commit(), S_OK);
                EXPECT_EQ(stream.Seek(SeekPosition::Begin, 3), 3u);
                const Microsoft::WRL::ComPtr<::IStream> before = stream.stream();
                ways[round % 3](stream, root);
                EXPECT_EQ(before->Seek({}, STREAM_SEEK_CUR, nullptr), isPackage() ? S_OK : STG_E_REVERTED);
                EXPECT_EQ(root.commit(), S_OK);
                EXPECT_EQ(stream.GetPosition(), 3u) << "goes on where it stood";
                stream.SeekToBegin();
                EXPECT_EQ(stream.WriteBytes(more.data(), more.size()), more.size());
                StorageRef(root).destroy(L"empty"); // where there is one
                EXPECT_EQ(root.commit(), S_OK);
            }
            EXPECT_THAT(saved(), testing::UnorderedElementsAreArray(elements));
            EXPECT_THAT(elementsOf(forWriting()), testing::UnorderedElementsAreArray(elements));
        }
}

TEST_P(Handles, ReportExhaustedMemory) {
    StorageRef root, box, made, other;
    StreamRef note, written, filled;
    const SharedPathName fresh = path(folder_.file(L"fresh"));
    StorageEnumerator children;
    const struct {
        const char* what;
        std::function<long()> call;
        std::function<bool()> isNull;
    } calls[] = {
        {"open root", [&] { return root.open(path_, modeWrite, false); }, [&] { return root.null(); }},
        {"open storage", [&] { return box.open(L"Box", root, false); }, [&] { return box.null(); }},
        {"open stream", [&] { return note.open(L"Note", box, true); }, [&] { return note.null(); }},
        {"list", [&] { return children.reset(box); }, [&] { return children.null(); }},
        {"create storage", [&] { return made.create(L"Made", box, true); }, [&] { return made.null(); }},
        {"create stream", [&] { return written.create(L"Written", made); }, [&] { return written.null(); }},
        {"destroy", [&] { return root.destroy(L"Never interned"); }, nullptr},
        {"temporary", [&] { return other.createTemporary(false); }, [&] { return other.null(); }},
        {"create root", [&] { return other.create(fresh); }, [&] { return other.null(); }},
        {"fill", [&] { return filled.create(L"New", other); }, [&] { return filled.null(); }},
        {"commit", [&] { return other.commit(); }, nullptr},
    };
    for (const auto& [what, call, isNull] : calls) {
        EXPECT_GT(sweepFaults([&, &call = call, &isNull = isNull](unsigned spared) {
                      long status = E_FAIL;
                      if (!WithFailingAllocation(spared, [&] { status = call(); }))
                          return false;
                      // Where it works, it can do without that memory, or had it at its second attempt.
                      EXPECT_THAT(status, testing::AnyOf(STG_E_INSUFFICIENTMEMORY, S_OK)) << spared;
                      EXPECT_EQ(isNull ? isNull() : FAILED(status), FAILED(status)) << spared;
                      return true;
                  }),
                  0U)
            << what;
    }
    EXPECT_EQ(note.size(), 3u);
    EXPECT_TRUE(children.moveNext());
    EXPECT_EQ(written.WriteBytes("w", 1), 1u);
    children.release();
    closeForGood(root, box, made, other, note, written, filled);
    EXPECT_EQ(saved(), kSample);
    EXPECT_EQ(Support::children(openRoot(fresh, modeRead)), L"New ");
}

TEST_P(Handles, ReachOneNodeByOneItem) {
    StorageRef root = forReading(), other = openRoot(path_, modeRead);
    EXPECT_NE(root, other) << "one for those who keep writers out, one for those who do not";
    EXPECT_EQ(root, openRoot(path(folder_.file(L"DOCUMENT.XLS")), modeReadDenyWrite));
    closeForGood(other); // which would keep the writer out
    EXPECT_EQ(root.format(), GetParam().format);
    const StorageRef box = openStorage(L"Box", root);
    StreamRef note = openStream(L"Note", box);
    EXPECT_EQ(note, openStream(L"Note", box));
    EXPECT_EQ(box, openStorage(L"Box", root));
    EXPECT_EQ(note.compression(), GetParam().compression);
    EXPECT_EQ(StreamRef().open(L"Note", box, false), S_OK);
    EXPECT_EQ(forReading(), root);
    EXPECT_FALSE(root.readOnly()) << "good enough for reading";
}

// Over either format: what is made is a package.
TEST_P(Handles, MakeRootsThatAreFilesOnceSomethingIsInThem) {
    const std::string before = readFile(file_);
    StorageRef root = openRoot(path_, modeRead);
    EXPECT_EQ(root.create(path_), S_OK) << "the handle lets go of what it had first";
    EXPECT_EQ(StorageRef().create(path_), STG_E_FILEALREADYEXISTS);
    EXPECT_EQ(children(root), L"");
    EXPECT_EQ(root.commit(), S_OK);
    EXPECT_EQ(readFile(file_), before) << "nothing was in it";
    newStream(L"New", root, "new");
    EXPECT_EQ(readFile(file_), before);
    EXPECT_EQ(root.commit(), S_OK);
    closeForGood(root);
    root = forReading();
    EXPECT_EQ(root.format(), StorageFormat::Package);
    EXPECT_EQ(children(root), L"New ");
    const SharedPathName fresh = path(folder_.file(L"fresh"));
    EXPECT_EQ(newPackage(fresh).commit(), S_OK);
    EXPECT_FALSE(fresh.fileExists());
}

// Items outlive their elements as long as handles are on them.
TEST_P(Handles, KnowWhichChildrenThereAre) {
    const auto has = [](const StorageRef& storage, const wchar_t* name) {
        std::string answer;
        for (const auto& [type, text] :
             {std::pair(StorageType{}, "any "), std::pair(StorageType::Storage, "storage "),
              std::pair(StorageType::Stream, "stream "), std::pair(StorageType(3), "odd ")})
            answer += storage.hasChild(element(name), type) ? text : "";
        return answer;
    };
    StorageRef root = forWriting(), box = openStorage(L"Box", root), source;
    StreamRef note = openStream(L"Note", box), none;
    EXPECT_EQ(has(root, L"Box"), "any storage ");
    EXPECT_EQ(has(box, L"Note"), "any stream ");
    EXPECT_EQ(has(root, L"Short"), "any stream ") << "which nobody has open";
    EXPECT_EQ(has(root, L"Nix") + has(root, L""), "");
    ASSERT_EQ(source.createTemporary(false), S_OK);
    if (isPackage()) {
        EXPECT_EQ(root.clear(), S_OK);
        EXPECT_EQ(has(root, L"Box") + has(box, L"Note"), "");
        newStream(L"Note", newStorage(L"Box", source), "copied");
        EXPECT_EQ(source.copyTo(root), S_OK) << "beside a handle on a box of old";
        EXPECT_EQ(read(L"Note", openStorage(L"Box", root)), "copied");
    } else {
        EXPECT_EQ(root.borrowPackedData(source), STG_E_INVALIDFUNCTION);
        closeForGood(note, box, root);
        root = forReading();
        note = openStream(L"Short", root);
        EXPECT_EQ(has(root, L"SHORT"), "any stream ")
            << "which cannot be opened under this spelling now, but is there";
    }
    EXPECT_EQ(note.copyTo(none), STG_E_INVALIDPARAMETER);
    closeForGood(note, box, root);
    root = newPackage(path_);
    openRoot(path_, modeRead);
    EXPECT_EQ(has(root, L"Long") + has(root, L"Box"), "") << "made anew";
}

TEST_P(Handles, MayBeTheirOwnParent) {
    StorageRef handle = forWriting();
    EXPECT_TRUE(handle.parent().null());
    EXPECT_EQ(handle.name(), path_);
    EXPECT_EQ(handle.open(L"Box", handle, true), S_OK);
    EXPECT_EQ(handle.open(element(L"Deep"), handle, true), S_OK);
    EXPECT_EQ(read(L"NOTE", handle), "deep");
    EXPECT_EQ(handle.create(L"Deeper", handle, false), S_OK);
    EXPECT_EQ(handle.open(handle.parent().name(), handle.parent().parent(), true), S_OK);
    EXPECT_EQ(handle.name(), element(L"Deep"));
    EXPECT_EQ(handle.open(L"Deep", StorageRef(), true), STG_E_INVALIDPARAMETER);
    EXPECT_TRUE(handle.notNull()) << "a null parent is refused before anything is let go";
    EXPECT_EQ(handle.open(L"Gone", handle, true), STG_E_FILENOTFOUND);
    EXPECT_TRUE(handle.null());
    EXPECT_EQ(released(), !isPackage()) << "which stays open until a clean-up";
    container().deleteUnusedObjects();
    EXPECT_TRUE(released());
}

TEST_P(Handles, ListWhatWasThere) {
    StorageRef root = forWriting();
    StorageEnumerator first, alias;
    StorageRef moved = root, target = newPackage(path(folder_.file(L"other")));
    const StorageRef was = target;
    target = std::move(moved);
    EXPECT_EQ(moved, was) << "move assignment swaps"; // NOLINT(bugprone-use-after-move): it is promised
    closeForGood(target);
    ASSERT_EQ(first.reset(root), S_OK);
    EXPECT_EQ(first.format(), GetParam().format);
    EXPECT_EQ(first.type(), StorageType{});
    EXPECT_EQ(root.destroy(L"Long"), S_OK);
    int count = 0;
    while (first.moveNext())
        ++count;
    EXPECT_EQ(count, 3) << "when it began";
    ASSERT_EQ(first.reset(root), S_OK);
    StorageEnumerator taken(std::move(first));
    alias = taken;
    EXPECT_EQ(alias, taken);
    EXPECT_TRUE(alias.moveNext());
    EXPECT_EQ(taken.name(), alias.name());
    alias = StorageEnumerator(); // only one of the two may destroy it
    closeForGood(root);
    EXPECT_TRUE(released()) << "a listing keeps nothing open";
    EXPECT_TRUE(taken.moveNext());
}

TEST_P(Handles, TellTheTimesOfTheirFile) {
    const FILETIME changed{1, 0x01C00000}, used{2, 0x01C10000};
    FILETIME times[3], made;
    const HANDLE file =
        CreateFileW(file_.c_str(), FILE_WRITE_ATTRIBUTES, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_TRUE(SetFileTime(file, nullptr, &used, &changed));
    ASSERT_TRUE(GetFileTime(file, &made, nullptr, nullptr));
    CloseHandle(file);
    const StorageRef root = forReading();
    ASSERT_TRUE(root.getFileTimes(&times[0], &times[1], &times[2]));
    EXPECT_EQ(CompareFileTime(&times[0], &made), 0);
    EXPECT_EQ(CompareFileTime(&times[1], &changed), 0);
    EXPECT_EQ(CompareFileTime(&times[2], &changed), 1) << "read just now, or as it was set";
    EXPECT_TRUE(root.getFileTimes(nullptr, nullptr, nullptr)) << "each is optional";
    EXPECT_EQ(root.stat(nullptr, nullptr), S_OK);
    EXPECT_EQ(openStream(L"Short", root).stat(nullptr, nullptr), S_OK);
}

class CompoundHandles : public Document<testing::Test> {
protected:
    void SetUp() override { writeCompoundFile(file_, kSample); }
};

TEST_F(CompoundHandles, RootsThatCannotBeOpened) {
    const auto win32 = [](unsigned long error) { return static_cast<long>(HRESULT_FROM_WIN32(error)); };
    const struct {
        const wchar_t* file;
        long reading, writing;
        std::optional<std::string> contents =
            std::nullopt; // none: what stands there, if anything, is made below
    } cases[] = {
        {L"missing", STG_E_FILENOTFOUND, win32(ERROR_FILE_NOT_FOUND)},
        {L"missing\\missing", STG_E_PATHNOTFOUND, win32(ERROR_PATH_NOT_FOUND)},
        {L"", STG_E_ACCESSDENIED, win32(ERROR_ACCESS_DENIED)},
        {L"five bytes", STG_E_INVALIDHEADER, STG_E_INVALIDHEADER, "\xD0\xCF\x11\xE0\xA1"},
        {L"locked", STG_E_SHAREVIOLATION, win32(ERROR_SHARING_VIOLATION)},
        {L"guarded", S_OK, win32(ERROR_ACCESS_DENIED)},
    };
    const std::wstring locked = folder_.file(L"locked"), guarded = folder_.file(L"guarded");
    for (const std::wstring& file : {locked, guarded})
        writeCompoundFile(file, kSample);
    const HANDLE lock = CreateFileW(locked.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    SetFileAttributesW(guarded.c_str(), FILE_ATTRIBUTE_READONLY);
    for (const auto& [file, reading, writing, contents] : cases) {
        if (contents)
            writeFile(folder_.file(file), *contents);
        StorageRef handle = forReading();
        for (const RootStorageOpenMode mode : {modeRead, modeReadDenyWrite, modeWrite}) {
            SCOPED_TRACE(testing::Message() << file << " mode " << static_cast<int>(mode));
            const long expected = mode == modeWrite ? writing : reading;
            EXPECT_EQ(handle.open(path(folder_.file(file)), mode, false), expected);
            EXPECT_EQ(handle.null(), FAILED(expected));
        }
    }
    CloseHandle(lock);
    EXPECT_EQ(StorageRef().open(SharedPathName(), modeRead, false), STG_E_INVALIDPARAMETER);
}

// What the application keeps as links stays open without handles, but only as long as there are others.
TEST_F(CompoundHandles, LetGoOfTheFileWithTheLastHandle) {
    writeCompoundFile(file_, {{L"FileLinks/Link/", {}}, {L"Long", "long"}});
    StorageRef root = forReading();
    StreamRef note = openStream(L"Long", root);
    openStorage(L"Link", openStorage(L"FileLinks", root));
    root.close();
    EXPECT_FALSE(released());
    note.close();
    EXPECT_TRUE(released());
    root = forReading();
    EXPECT_EQ(
        openCompoundFile(file_, STGM_READWRITE | STGM_TRANSACTED | STGM_SHARE_DENY_WRITE | STGM_NOSCRATCH),
        nullptr)
        << "a root that was closed in between keeps writers out again";
}

TEST_F(CompoundHandles, MeetAnElementUnderTwoSpellings) {
    StorageRef root = forWriting(), box = openStorage(L"Box", root), other;
    StorageEnumerator children;
    EXPECT_EQ(other.open(L"BOX", root, true), STG_E_ACCESSDENIED);
    box.close();
    EXPECT_EQ(other.open(L"BOX", root, true), S_OK) << "closed with its last handle";
    other.close();
    box = openStorage(L"Box", root);
    EXPECT_EQ(children.reset(box), S_OK);
    EXPECT_EQ(root.destroy(L"BOX"), S_OK) << "in nobody's use by this name";
    EXPECT_EQ(children.reset(box), STG_E_REVERTED);
    EXPECT_TRUE(children.null()) << "a failed reset lets go of the listing before";

    StreamRef note = openStream(L"Short", root);
    EXPECT_EQ(StreamRef().open(L"SHORT", root, true), STG_E_ACCESSDENIED);
    EXPECT_EQ(StreamRef().create(L"SHORT", root), S_OK);
    EXPECT_EQ(note.read(nullptr, 0, nullptr), STG_E_REVERTED);
}

// The system itself may accept these positions, and end the process in the read that follows.
TEST_F(CompoundHandles, NeverSeekOutOfReach) {
    StreamRef stream = openStream(L"Short", forReading());
    for (const auto origin : {SeekPosition::Begin, SeekPosition::Current, SeekPosition::End}) {
        for (const long long offset : {-11LL, LLONG_MAX, LLONG_MIN, 1LL << 32}) {
            ASSERT_EQ(stream.Seek(SeekPosition::Begin, 3), 3u);
            EXPECT_EQ(stream.Seek(origin, offset), 3u) << static_cast<int>(origin) << " " << offset;
            std::array<char, 16> bytes{};
            EXPECT_EQ(stream.ReadBytes(bytes.data(), bytes.size()), 7u);
        }
    }
}

} // namespace
