#include "support/compound_file.h"
#include "support/handles.h"
#include "support/scarce_memory.h"

#include <algorithm>
#include <array>
#include <climits>
#include <functional>
#include <string>
#include <utility>
#include <vector>

using namespace Support;
using SeekPosition = vxio::IReadStream::SeekPosition;

namespace Support {
static bool operator==(const Element& a, const Element& b) {
    return a.path == b.path && a.contents == b.contents;
}
} // namespace Support

namespace {

const std::vector<Element> sample{{L"Box/", {}},
                                  {L"Box/Deep/", {}},
                                  {L"Box/Deep/NOTE", "deep"},
                                  {L"Box/Note", "box"},
                                  {L"Long", std::string(50, 'x')},
                                  {L"Short", "0123456789"}};

void collect(const StorageRef& storage, const std::wstring& prefix, std::vector<Element>& elements) {
    StorageEnumerator child;
    ASSERT_EQ(child.reset(storage), S_OK);
    while (child.moveNext()) {
        const std::wstring path = prefix + child.name().asString();
        if (child.type() == StorageType::Storage) {
            elements.push_back({path + L"/", {}});
            collect(openStorage(child.name().asString(), storage), path + L"/", elements);
            continue;
        }
        elements.push_back({path, read(child.name().asString(), storage)});
        EXPECT_EQ(child.size().QuadPart, elements.back().contents.size());
    }
    EXPECT_TRUE(child.type() == StorageType{} && child.name().empty());
}

class Handles : public testing::Test {
protected:
    void SetUp() override { writeCompoundFile(file_, sample); }
    ~Handles() override { container().deleteUnusedObjects(); }

    StorageRef forReading() const { return openRoot(path_, modeReadDenyWrite); }
    StorageRef forWriting() const { return openRoot(path_, modeWrite); }

    /// Whether nobody has the file open.
    bool released() const {
        const HANDLE handle =
            CreateFileW(file_.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        return handle != INVALID_HANDLE_VALUE && CloseHandle(handle);
    }

    TempFolder folder_;
    std::wstring file_ = folder_.file(L"sample.cfb");
    SharedPathName path_ = path(file_);
};

TEST(NullHandles, AnswerEveryCall) {
    StorageRef storage;
    StreamRef stream, other;
    StorageEnumerator children;
    FILETIME times[2] = {{1, 1}, {1, 1}};
    unsigned long done = 7;
    char byte = 0;
    const long refused[] = {
        storage.open(L"x", StorageRef(), true),
        storage.create(CStringW(L"x"), StorageRef(), false),
        storage.destroy(L"x"),
        storage.clear(),
        storage.commit(),
        storage.borrowPackedData(StorageRef()),
        storage.stat(&times[0], nullptr),
        stream.open(CStringW(L"x"), storage, true),
        stream.create(L"x", storage),
        stream.read(&byte, 1, &done),
        stream.write(&byte, 1, nullptr),
        stream.copyTo(other),
        stream.commit(),
        stream.stat(nullptr, &times[1]),
    };
    EXPECT_THAT(refused, testing::Each(STG_E_INVALIDPARAMETER));
    EXPECT_EQ(stream.setSize(1), E_FAIL);
    EXPECT_EQ(times[0].dwLowDateTime + times[1].dwHighDateTime + done, 0u);

    EXPECT_TRUE(storage.null() && !storage && stream.null() && !stream && children.null() && !children);
    EXPECT_TRUE(storage == StorageRef::fromPtr(nullptr) && stream == other && storage.parent().null());
    EXPECT_TRUE(storage.readOnly() && stream.readOnly() && !storage.storage() && !stream.stream());
    EXPECT_TRUE(storage.name().empty() && stream.name().empty() && children.name().empty());
    EXPECT_TRUE(storage.format() == StorageFormat::None && stream.compression() == StreamCompression::None);
    EXPECT_FALSE(storage.hasChild(element(L"x"), StorageType{}) || children.moveNext());
    EXPECT_FALSE(storage.getFileTimes(nullptr, nullptr, nullptr));
    storage.close();
    storage.deleteUnusedObjects();
    children.release();
}

TEST_F(Handles, ReadWhatTheSystemWrote) {
    for (const unsigned sectorSize : {512u, 4096u}) {
        writeCompoundFile(file_, sample, sectorSize);
        std::vector<Element> elements;
        collect(forReading(), L"", elements);
        EXPECT_TRUE(elements == readCompoundFile(file_) && elements.size() == sample.size()) << sectorSize;
    }
}

TEST_F(Handles, WriteWhatTheSystemReads) {
    StorageRef root = forWriting(), made = newStorage(L"Made", root), again;
    StreamRef written = newStream(L"New", made, "new");
    StreamRef emptied = openStream(L"Long", root, false);
    EXPECT_EQ(emptied.size(), 0u);
    EXPECT_EQ(emptied.write("longer", 6, nullptr), S_OK);
    EXPECT_EQ(emptied.setSize(4), S_OK);
    EXPECT_EQ(root.destroy(L"Short"), S_OK);
    EXPECT_EQ(made.create(L"Box", root, false), STG_E_FILEALREADYEXISTS);
    EXPECT_TRUE(made.null()) << "a failed create lets go of what the handle held";
    EXPECT_EQ(made.create(L"Box", root, true), S_OK);
    EXPECT_EQ(again.create(L"Box", root, true), STG_E_FILEALREADYEXISTS) << "while a handle is on it";
    EXPECT_EQ(made.commit(), S_OK);
    EXPECT_EQ(again.open(L"Made", root, false), S_OK);
    EXPECT_EQ(again.commit(), S_OK);
    EXPECT_EQ(root.commit(), S_OK);
    StreamRef uncommitted = newStream(L"Lost", root);
    EXPECT_EQ(uncommitted.create(L"Lost", root), S_OK) << "its own handle went first";
    for (StorageRef* handle : {&again, &made, &root})
        handle->close();
    for (StreamRef* handle : {&written, &emptied, &uncommitted})
        handle->close();
    ASSERT_TRUE(released());
    const std::vector<Element> expected{
        {L"Box/", {}}, {L"Made/", {}}, {L"Made/New", "new"}, {L"Long", "long"}};
    EXPECT_THAT(readCompoundFile(file_), testing::UnorderedElementsAreArray(expected));
}

TEST_F(Handles, RootsThatCannotBeOpened) {
    const std::wstring text = folder_.file(L"text"), empty = folder_.file(L"empty"),
                       five = folder_.file(L"five"), locked = folder_.file(L"locked"),
                       guarded = folder_.file(L"guarded");
    writeFile(text, std::string(2000, 't'));
    writeFile(empty, "");
    writeFile(five, "\xD0\xCF\x11\xE0\xA1");
    for (const std::wstring& file : {locked, guarded})
        writeCompoundFile(file, sample);
    const HANDLE lock = CreateFileW(locked.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    SetFileAttributesW(guarded.c_str(), FILE_ATTRIBUTE_READONLY);
    const auto win32 = [](unsigned long error) { return static_cast<long>(HRESULT_FROM_WIN32(error)); };
    const struct {
        std::wstring file;
        long reading;
        long writing;
    } cases[] = {
        {folder_.file(L"missing"), STG_E_FILENOTFOUND, win32(ERROR_FILE_NOT_FOUND)},
        {folder_.file(L"missing\\missing"), STG_E_PATHNOTFOUND, win32(ERROR_PATH_NOT_FOUND)},
        {folder_.file(L""), STG_E_ACCESSDENIED, win32(ERROR_ACCESS_DENIED)},
        {empty, STG_E_INVALIDHEADER, STG_E_INVALIDHEADER},
        {five, STG_E_INVALIDHEADER, STG_E_INVALIDHEADER},
        {text, STG_E_INVALIDHEADER, STG_E_INVALIDHEADER},
        {locked, STG_E_SHAREVIOLATION, win32(ERROR_SHARING_VIOLATION)},
        {guarded, S_OK, win32(ERROR_ACCESS_DENIED)},
    };
    for (const auto& [file, reading, writing] : cases) {
        StorageRef handle = forReading();
        for (const RootStorageOpenMode mode : {modeRead, modeReadDenyWrite, modeWrite}) {
            const long expected = mode == modeWrite ? writing : reading;
            EXPECT_EQ(handle.open(path(file), mode, false), expected)
                << CStringW(file.c_str()).GetString() << " mode " << static_cast<int>(mode);
            EXPECT_EQ(handle.null(), FAILED(expected));
        }
    }
    CloseHandle(lock);
    EXPECT_EQ(StorageRef().open(SharedPathName(), modeRead, false), STG_E_INVALIDPARAMETER);
}

TEST_F(Handles, NamesThatAreNone) {
    StorageRef root = forWriting();
    const struct {
        std::wstring text;
        long open;
        long create;
    } cases[] = {
        {std::wstring(31, L'n'), STG_E_FILENOTFOUND, S_OK},
        {std::wstring(32, L'n'), STG_E_INVALIDNAME, STG_E_INVALIDNAME},
        {std::wstring(4000, L'n'), STG_E_INVALIDNAME, STG_E_INVALIDNAME},
        {L"a/b", STG_E_INVALIDNAME, STG_E_INVALIDNAME},
        {L"a\\b", STG_E_INVALIDNAME, STG_E_INVALIDNAME},
        {L"a:b", STG_E_INVALIDNAME, STG_E_INVALIDNAME},
        {L"a!b", STG_E_INVALIDNAME, STG_E_INVALIDNAME},
        {L"", STG_E_INVALIDPARAMETER, STG_E_INVALIDPARAMETER},
        {L"\x05Summary \x0416", STG_E_FILENOTFOUND, S_OK},
    };
    EXPECT_EQ(StorageRef().open(L"Short", root, true), STG_E_FILENOTFOUND) << "a stream";
    EXPECT_EQ(StreamRef().open(L"Box", root, true), STG_E_FILENOTFOUND) << "a storage";
    for (const auto& [text, open, create] : cases) {
        SCOPED_TRACE(text.substr(0, 40).c_str());
        StorageRef storage;
        StreamRef stream;
        EXPECT_EQ(storage.open(text.c_str(), root, true), open);
        EXPECT_EQ(stream.open(CStringW(text.c_str()), root, true), open);
        EXPECT_EQ(storage.create(CStringW(text.c_str()), root, false), create);
        storage.close();
        EXPECT_EQ(stream.create(text.c_str(), root), create);
        EXPECT_EQ(stream.null(), FAILED(create));
    }
}

TEST_F(Handles, MayBeTheirOwnParent) {
    StorageRef handle = forWriting();
    EXPECT_TRUE(handle.parent().null() && handle.name() == path_);
    EXPECT_EQ(handle.open(L"Box", handle, true), S_OK);
    EXPECT_EQ(handle.open(element(L"Deep"), handle, true), S_OK);
    EXPECT_EQ(read(L"NOTE", handle), "deep");
    EXPECT_EQ(handle.create(L"Deeper", handle, false), S_OK);
    EXPECT_EQ(handle.open(handle.parent().name(), handle.parent().parent(), true), S_OK);
    EXPECT_EQ(handle.name(), element(L"Deep"));
    EXPECT_EQ(handle.open(L"Deep", StorageRef(), true), STG_E_INVALIDPARAMETER);
    EXPECT_TRUE(handle.notNull()) << "a null parent is refused before anything is let go";
    EXPECT_EQ(handle.open(L"Gone", handle, true), STG_E_FILENOTFOUND);
    EXPECT_TRUE(handle.null() && released());
}

template <class Ref>
void countReferences(StorageRef& root, const wchar_t* child, Ref first) {
    Ref second(first);
    first.close();
    Ref third;
    third = second;
    third = *&third;
    second = Ref();
    Ref fourth(std::move(third));
    Ref fifth;
    fifth = std::move(fourth);
    EXPECT_EQ(root.destroy(child), STG_E_INUSE);
    fifth.close();
    EXPECT_EQ(root.destroy(child), S_OK);
}

TEST_F(Handles, HoldOneReferenceEach) {
    StorageRef root = forWriting();
    countReferences(root, L"Box", openStorage(L"Box", root));
    countReferences(root, L"Short", openStream(L"Short", root));
    StorageRef moved = std::move(root), target = openRoot(path_, modeRead);
    const StorageRef was = target;
    target = std::move(moved);
    EXPECT_EQ(moved, was) << "move assignment swaps"; // NOLINT(bugprone-use-after-move): it is promised
}

TEST_F(Handles, LetGoOfTheFileWithTheLastHandle) {
    std::array<size_t, 3> order{0, 1, 2};
    do {
        StorageRef root = forReading(), box = openStorage(L"Box", root);
        openStream(L"Long", root); // stays cached
        StreamRef note = openStream(L"Note", box);
        const std::array<std::function<void()>, 3> closing{[&] { root.close(); }, [&] { box.close(); },
                                                           [&] { note.close(); }};
        for (const size_t which : order) {
            EXPECT_FALSE(released());
            closing[which]();
        }
        EXPECT_TRUE(released()) << order[0] << order[1] << order[2];
    } while (std::next_permutation(order.begin(), order.end()));

    const StorageRef root = forReading();
    EXPECT_EQ(
        openCompoundFile(file_, STGM_READWRITE | STGM_TRANSACTED | STGM_SHARE_DENY_WRITE | STGM_NOSCRATCH),
        nullptr)
        << "a root that was closed in between keeps writers out again";
}

TEST_F(Handles, TellTimes) {
    const FILETIME longAgo{0, 0x01C00000};
    FILETIME times[3], made;
    const HANDLE file =
        CreateFileW(file_.c_str(), FILE_WRITE_ATTRIBUTES, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_TRUE(SetFileTime(file, nullptr, nullptr, &longAgo) && GetFileTime(file, &made, nullptr, nullptr));
    CloseHandle(file);
    const StorageRef root = forReading();
    ASSERT_TRUE(root.getFileTimes(&times[0], &times[1], &times[2]));
    EXPECT_EQ(CompareFileTime(&times[0], &made), 0);
    EXPECT_EQ(CompareFileTime(&times[1], &longAgo), 0);
    EXPECT_EQ(CompareFileTime(&times[2], &longAgo), 1) << "read just now";
    EXPECT_TRUE(root.stat(nullptr, nullptr) == S_OK &&
                openStream(L"Short", root).stat(nullptr, nullptr) == S_OK);
}

TEST_F(Handles, MeetAnElementUnderTwoSpellings) {
    StorageRef root = forWriting(), box = openStorage(L"Box", root), other;
    StorageEnumerator children;
    EXPECT_EQ(other.open(L"BOX", root, true), STG_E_ACCESSDENIED);
    EXPECT_EQ(children.reset(box), S_OK);
    EXPECT_EQ(root.destroy(L"BOX"), S_OK) << "in nobody's use by this name";
    EXPECT_EQ(children.reset(box), STG_E_REVERTED);
    EXPECT_TRUE(children.null()) << "a failed reset lets go of the listing before";
}

TEST_F(Handles, EnumeratorsShareByAssignment) {
    const StorageRef root = forReading();
    StorageEnumerator first, alias;
    ASSERT_EQ(first.reset(root), S_OK);
    EXPECT_TRUE(first.format() == StorageFormat::CompoundFile && first.type() == StorageType{});
    StorageEnumerator taken(std::move(first));
    alias = taken;
    EXPECT_TRUE(alias == taken && alias.moveNext());
    EXPECT_EQ(taken.name(), alias.name());
    EXPECT_TRUE(taken.reset(root) == S_OK && taken.moveNext()) << "begins anew";
    alias = StorageEnumerator(); // only one of the two may destroy it
}

TEST_F(Handles, ReportExhaustedMemory) {
    static bool struck;
    StorageRef root, box, made;
    StreamRef note, written;
    StorageEnumerator children;
    const std::pair<const char*, std::function<long()>> calls[] = {
        {"open root", [&] { return root.open(path_, modeWrite, false); }},
        {"open storage", [&] { return box.open(L"Box", root, false); }},
        {"open stream", [&] { return note.open(L"Note", box, true); }},
        {"list", [&] { return children.reset(box); }},
        {"create storage", [&] { return made.create(L"Made", box, false); }},
        {"create stream", [&] { return written.create(L"Written", made); }},
        {"destroy", [&] { return root.destroy(L"Never interned"); }},
    };
    for (const auto& [what, call] : calls) {
        for (int spared = 0; spared < 100; ++spared) {
            struck = false;
            AtMainAllocation(spared, [] {
                struck = true;
                throw std::bad_alloc();
            });
            const long status = call();
            AtMainAllocation(0, nullptr);
            if (!struck) {
                EXPECT_GT(spared, 0) << what;
                break;
            }
            EXPECT_EQ(status, STG_E_INSUFFICIENTMEMORY) << what << spared;
        }
    }
    EXPECT_TRUE(note.size() == 3 && children.moveNext() && written.WriteBytes("w", 1) == 1);
    children.release();
    for (StorageRef* handle : {&root, &box, &made})
        handle->close();
    note.close();
    written.close();
    EXPECT_TRUE(released());
}

// The system itself may accept these positions, and end the process in the read that follows.
TEST_F(Handles, NeverSeekOutOfReach) {
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

TEST_F(Handles, CopyStreams) {
    const StorageRef root = forWriting();
    StreamRef from = openStream(L"Short", root), reading = openStream(L"Long", root), null;
    StreamRef to = newStream(L"Target", root, std::string(50, 'y'));
    from.Seek(SeekPosition::Begin, 4);
    EXPECT_EQ(from.copyTo(to), S_OK);
    EXPECT_EQ(from.GetPosition(), 4u);
    EXPECT_EQ(contents(to), "0123456789");
    EXPECT_EQ(from.copyTo(from), STG_E_INVALIDPARAMETER);
    EXPECT_EQ(from.copyTo(null), STG_E_INVALIDPARAMETER);
    EXPECT_TRUE(FAILED(from.copyTo(reading)));
    EXPECT_EQ(contents(reading).size(), 50u) << "a stream that cannot be written stays as it was";
}

} // namespace
