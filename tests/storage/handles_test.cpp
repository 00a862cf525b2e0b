#include "support/compound_file.h"
#include "support/fake_storage.h"
#include "support/scarce_memory.h"

#include <vexel/storage.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>
#include <vector>

using Support::Element;
using SeekPosition = vxio::IReadStream::SeekPosition;

namespace Support {
static bool operator==(const Element& a, const Element& b) {
    return a.path == b.path && a.contents == b.contents;
}
} // namespace Support

namespace {

std::string hex(long status) {
    std::array<char, 11> text{};
    std::snprintf(text.data(), text.size(), "0x%08lx", static_cast<unsigned long>(status));
    return text.data();
}
#define EXPECT_STATUS(call, expected) EXPECT_EQ(hex(call), hex(expected))

SharedPathName name(std::wstring_view text) { return {text, true, false}; }

const std::vector<Element> sample{{L"Box/", {}},
                                  {L"Box/Deep/", {}},
                                  {L"Box/Deep/NOTE", "deep"},
                                  {L"Box/Note", "box"},
                                  {L"Long", std::string(50, 'x')},
                                  {L"Short", "0123456789"}};

std::string contents(StreamRef& stream) {
    std::string bytes(static_cast<size_t>(stream.GetLength()), '\0');
    stream.SeekToBegin();
    bytes.resize(static_cast<size_t>(stream.ReadBytes(bytes.data(), bytes.size())));
    return bytes;
}

void collect(const StorageRef& storage, const std::wstring& prefix, std::vector<Element>& elements) {
    StorageEnumerator child;
    ASSERT_EQ(child.reset(storage), S_OK);
    while (child.moveNext()) {
        const std::wstring path = prefix + std::wstring(child.name().asStringView());
        StreamRef stream;
        StorageRef inner;
        if (child.type() == StorageType::Stream) {
            EXPECT_STATUS(stream.open(child.name(), storage, true), S_OK);
            EXPECT_EQ(child.size().QuadPart, stream.size());
            elements.push_back({path, contents(stream)});
        } else {
            EXPECT_STATUS(inner.open(child.name(), storage, true), S_OK);
            elements.push_back({path + L"/", {}});
            collect(inner, path + L"/", elements);
        }
    }
    EXPECT_EQ(child.type(), StorageType{});
    EXPECT_TRUE(child.name().empty());
}

class Handles : public testing::Test {
protected:
    void SetUp() override { Support::writeCompoundFile(file_, sample); }
    ~Handles() override { StorageContainer::Instance().deleteUnusedObjects(); }

    StorageRef open(RootStorageOpenMode mode) const {
        StorageRef root;
        EXPECT_STATUS(root.open(name(file_), mode, false), S_OK);
        return root;
    }
    StorageRef forReading() const { return open(RootStorageOpenMode::ReadOnlyDenyWrite); }
    StorageRef forWriting() const { return open(RootStorageOpenMode::ReadWrite); }

    StreamRef stream(const wchar_t* text, const StorageRef& parent) const {
        StreamRef handle;
        EXPECT_STATUS(handle.open(text, parent, true), S_OK);
        return handle;
    }

    /// Whether nobody has the file open.
    bool released() const {
        const HANDLE handle =
            CreateFileW(file_.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        return handle != INVALID_HANDLE_VALUE && CloseHandle(handle);
    }

    Support::TempFolder folder_;
    std::wstring file_ = folder_.file(L"sample.cfb");
};

TEST(NullHandles, AnswerEveryCall) {
    StorageRef storage;
    StreamRef stream;
    StreamRef other;
    StorageEnumerator children;
    FILETIME times[2] = {{1, 1}, {1, 1}};
    unsigned long done = 7;
    char byte = 0;
    const std::pair<const char*, long> refused[] = {
        {"open storage", storage.open(L"x", StorageRef(), true)},
        {"create storage", storage.create(CStringW(L"x"), StorageRef(), false)},
        {"destroy", storage.destroy(L"x")},
        {"clear", storage.clear()},
        {"commit", storage.commit()},
        {"borrowPackedData", storage.borrowPackedData(StorageRef())},
        {"stat", storage.stat(&times[0], nullptr)},
        {"open stream", stream.open(CStringW(L"x"), storage, true)},
        {"create stream", stream.create(L"x", storage)},
        {"read", stream.read(&byte, 1, &done)},
        {"write", stream.write(&byte, 1, nullptr)},
        {"copyTo", stream.copyTo(other)},
        {"commit stream", stream.commit()},
        {"stat stream", stream.stat(nullptr, &times[1])},
    };
    for (const auto& [call, status] : refused)
        EXPECT_EQ(hex(status), hex(STG_E_INVALIDPARAMETER)) << call;
    EXPECT_STATUS(stream.setSize(1), E_FAIL);
    for (const FILETIME& time : times)
        EXPECT_EQ(time.dwLowDateTime + time.dwHighDateTime, 0u);
    EXPECT_EQ(done, 0u);

    EXPECT_TRUE(storage.null() && !storage && stream.null() && !stream && children.null() && !children);
    EXPECT_TRUE(storage == StorageRef::fromPtr(nullptr) && stream == other && storage.parent().null());
    EXPECT_TRUE(storage.readOnly() && stream.readOnly());
    EXPECT_TRUE(storage.name().empty() && stream.name().empty() && children.name().empty());
    EXPECT_EQ(storage.format(), StorageFormat::None);
    EXPECT_EQ(stream.compression(), StreamCompression::None);
    EXPECT_EQ(children.type(), StorageType{});
    EXPECT_FALSE(storage.hasChild(name(L"x"), StorageType{}) || children.moveNext());
    EXPECT_FALSE(storage.getFileTimes(nullptr, nullptr, nullptr));
    EXPECT_EQ(storage.storage(), nullptr);
    EXPECT_EQ(stream.stream(), nullptr);
    storage.close();
    storage.deleteUnusedObjects();
    children.release();
}

TEST_F(Handles, ReadWhatTheSystemWrote) {
    for (const unsigned sectorSize : {512u, 4096u}) {
        Support::writeCompoundFile(file_, sample, sectorSize);
        std::vector<Element> elements;
        collect(forReading(), L"", elements);
        std::vector<Element> expected = Support::readCompoundFile(file_);
        EXPECT_TRUE(elements == expected && elements.size() == sample.size()) << sectorSize;
    }
}

TEST_F(Handles, WriteWhatTheSystemReads) {
    StorageRef root = forWriting();
    StorageRef made;
    EXPECT_STATUS(made.create(L"Made", root, false), S_OK);
    StreamRef written;
    EXPECT_STATUS(written.create(L"New", made), S_OK);
    EXPECT_EQ(written.WriteBytes("new", 3), 3u);
    StreamRef emptied;
    EXPECT_STATUS(emptied.open(L"Long", root, false), S_OK);
    EXPECT_EQ(emptied.size(), 0u);
    unsigned long done = 0;
    EXPECT_STATUS(emptied.write("longer", 6, &done), S_OK);
    EXPECT_STATUS(emptied.setSize(4), S_OK);
    EXPECT_STATUS(root.destroy(L"Short"), S_OK);
    EXPECT_STATUS(made.create(L"Box", root, false), STG_E_FILEALREADYEXISTS);
    EXPECT_TRUE(made.null()) << "a failed create lets go of what the handle held";
    EXPECT_STATUS(made.create(L"Box", root, true), S_OK);
    StorageRef again;
    EXPECT_STATUS(again.create(L"Box", root, true), STG_E_FILEALREADYEXISTS) << "while a handle is on it";
    EXPECT_STATUS(made.commit(), S_OK);
    EXPECT_STATUS(again.open(L"Made", root, false), S_OK);
    EXPECT_STATUS(again.commit(), S_OK);
    EXPECT_STATUS(root.commit(), S_OK);
    StreamRef uncommitted;
    EXPECT_STATUS(uncommitted.create(L"Lost", root), S_OK);
    EXPECT_STATUS(uncommitted.create(L"Lost", root), S_OK) << "its own handle went first";
    for (StorageRef* handle : {&again, &made, &root})
        handle->close();
    for (StreamRef* handle : {&written, &emptied, &uncommitted})
        handle->close();
    ASSERT_TRUE(released());
    const std::vector<Element> expected{
        {L"Box/", {}}, {L"Made/", {}}, {L"Made/New", "new"}, {L"Long", "long"}};
    std::vector<Element> found = Support::readCompoundFile(file_);
    for (const Element& element : expected)
        EXPECT_EQ(std::count(found.begin(), found.end(), element), 1);
    EXPECT_EQ(found.size(), expected.size());
}

TEST_F(Handles, RootsThatCannotBeOpened) {
    const std::wstring text = folder_.file(L"text");
    Support::writeFile(text, std::string(2000, 't'));
    const std::wstring empty = folder_.file(L"empty");
    Support::writeFile(empty, "");
    const std::wstring five = folder_.file(L"five");
    Support::writeFile(five, "\xD0\xCF\x11\xE0\xA1");
    const std::wstring locked = folder_.file(L"locked");
    Support::writeCompoundFile(locked, sample);
    const HANDLE lock = CreateFileW(locked.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    const std::wstring guarded = folder_.file(L"guarded");
    Support::writeCompoundFile(guarded, sample);
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
        for (const RootStorageOpenMode mode :
             {RootStorageOpenMode::ReadOnly, RootStorageOpenMode::ReadOnlyDenyWrite,
              RootStorageOpenMode::ReadWrite}) {
            const long expected = mode == RootStorageOpenMode::ReadWrite ? writing : reading;
            EXPECT_EQ(hex(handle.open(name(file), mode, false)), hex(expected))
                << CStringW(file.c_str()).GetString() << " mode " << static_cast<int>(mode);
            EXPECT_EQ(handle.null(), FAILED(expected));
        }
    }
    CloseHandle(lock);
    StorageRef handle;
    EXPECT_STATUS(handle.open(SharedPathName(), RootStorageOpenMode::ReadOnly, false),
                  STG_E_INVALIDPARAMETER);
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
    EXPECT_STATUS(StorageRef().open(L"Short", root, true), STG_E_FILENOTFOUND) << "a stream";
    EXPECT_STATUS(StreamRef().open(L"Box", root, true), STG_E_FILENOTFOUND) << "a storage";
    for (const auto& [text, open, create] : cases) {
        StorageRef storage;
        StreamRef stream;
        const CStringW shown = text.substr(0, 40).c_str();
        EXPECT_EQ(hex(storage.open(text.c_str(), root, true)), hex(open)) << shown.GetString();
        EXPECT_EQ(hex(stream.open(CStringW(text.c_str()), root, true)), hex(open)) << shown.GetString();
        EXPECT_EQ(hex(storage.create(CStringW(text.c_str()), root, false)), hex(create)) << shown.GetString();
        storage.close();
        EXPECT_EQ(hex(stream.create(text.c_str(), root)), hex(create)) << shown.GetString();
        EXPECT_EQ(stream.null(), FAILED(create));
    }
}

TEST_F(Handles, EqualWhenTheyReachTheSameNode) {
    StorageRef root = forReading();
    EXPECT_EQ(root, forReading());
    EXPECT_NE(root, open(RootStorageOpenMode::ReadOnly));
    StorageRef box;
    StorageRef again;
    EXPECT_STATUS(box.open(L"Box", root, true), S_OK);
    EXPECT_STATUS(again.open(CStringW(L"Box"), root, true), S_OK);
    EXPECT_EQ(box, again);
    EXPECT_NE(box, root);
    EXPECT_EQ(box.parent(), root);
    EXPECT_TRUE(root.parent().null());
    EXPECT_EQ(box.name(), name(L"Box"));
    EXPECT_EQ(root.name(), name(file_));
    EXPECT_EQ(box.format(), StorageFormat::CompoundFile);

    StreamRef one = stream(L"Short", root);
    one.Seek(SeekPosition::Begin, 4);
    EXPECT_EQ(one, stream(L"Short", root));
    EXPECT_EQ(one.GetPosition(), 0u) << "opening a stream that is open rewinds it";
}

TEST_F(Handles, MayBeTheirOwnParent) {
    StorageRef handle = forWriting();
    EXPECT_STATUS(handle.open(L"Box", handle, true), S_OK);
    EXPECT_STATUS(handle.open(name(L"Deep"), handle, true), S_OK);
    StreamRef note = stream(L"NOTE", handle);
    EXPECT_EQ(contents(note), "deep");
    note.close();
    EXPECT_STATUS(handle.create(L"Deeper", handle, false), S_OK);
    EXPECT_EQ(handle.parent().name(), name(L"Deep"));
    EXPECT_STATUS(handle.open(handle.parent().name(), handle.parent().parent(), true), S_OK);
    EXPECT_EQ(handle.name(), name(L"Deep"));
    EXPECT_STATUS(handle.open(L"Deep", StorageRef(), true), STG_E_INVALIDPARAMETER);
    EXPECT_TRUE(handle.notNull()) << "a null parent is refused before anything is let go";
    EXPECT_STATUS(handle.open(L"Gone", handle, true), STG_E_FILENOTFOUND);
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
    EXPECT_STATUS(root.destroy(child), STG_E_INUSE);
    fifth.close();
    EXPECT_STATUS(root.destroy(child), S_OK);
}

TEST_F(Handles, HoldOneReferenceEach) {
    StorageRef root = forWriting();
    StorageRef box;
    EXPECT_STATUS(box.open(L"Box", root, true), S_OK);
    countReferences(root, L"Box", std::exchange(box, StorageRef()));
    countReferences(root, L"Short", stream(L"Short", root));
    StorageRef moved = std::move(root);
    StorageRef target = open(RootStorageOpenMode::ReadOnly);
    const StorageRef was = target;
    target = std::move(moved);
    EXPECT_EQ(moved, was) << "move assignment swaps"; // NOLINT(bugprone-use-after-move): it is promised
}

TEST_F(Handles, LetGoOfTheFileWithTheLastHandle) {
    std::array<size_t, 3> order{0, 1, 2};
    do {
        StorageRef root = forReading();
        StorageRef box;
        EXPECT_STATUS(box.open(L"Box", root, true), S_OK);
        stream(L"Long", root); // stays cached
        StreamRef note = stream(L"Note", box);
        const std::array<std::function<void()>, 3> closing{[&] { root.close(); }, [&] { box.close(); },
                                                           [&] { note.close(); }};
        for (const size_t which : order) {
            EXPECT_FALSE(released());
            closing[which]();
        }
        EXPECT_TRUE(released()) << order[0] << order[1] << order[2];
    } while (std::next_permutation(order.begin(), order.end()));

    StorageRef root = forReading();
    Microsoft::WRL::ComPtr<IStorage> other = Support::openCompoundFile(
        file_, STGM_READWRITE | STGM_TRANSACTED | STGM_SHARE_DENY_WRITE | STGM_NOSCRATCH);
    EXPECT_EQ(other, nullptr) << "a root that was closed in between keeps writers out again";
}

TEST_F(Handles, TellTimes) {
    const FILETIME longAgo{0, 0x01C00000};
    FILETIME times[3];
    FILETIME made;
    const HANDLE file =
        CreateFileW(file_.c_str(), FILE_WRITE_ATTRIBUTES, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_TRUE(SetFileTime(file, nullptr, nullptr, &longAgo) && GetFileTime(file, &made, nullptr, nullptr));
    CloseHandle(file);
    StorageRef root = forReading();
    ASSERT_TRUE(root.getFileTimes(&times[0], &times[1], &times[2]));
    EXPECT_EQ(CompareFileTime(&times[0], &made), 0);
    EXPECT_EQ(CompareFileTime(&times[1], &longAgo), 0);
    EXPECT_EQ(CompareFileTime(&times[2], &longAgo), 1) << "read just now";
    EXPECT_STATUS(root.stat(&times[0], &times[1]), S_OK);
    EXPECT_STATUS(stream(L"Short", root).stat(nullptr, nullptr), S_OK);
}

TEST_F(Handles, MeetAnElementUnderTwoSpellings) {
    StorageRef root = forWriting();
    StorageRef box;
    StorageRef other;
    StorageEnumerator children;
    EXPECT_STATUS(box.open(L"Box", root, true), S_OK);
    EXPECT_STATUS(other.open(L"BOX", root, true), STG_E_ACCESSDENIED);
    EXPECT_STATUS(children.reset(box), S_OK);
    EXPECT_STATUS(root.destroy(L"BOX"), S_OK) << "in nobody's use by this name";
    EXPECT_STATUS(children.reset(box), STG_E_REVERTED);
    EXPECT_TRUE(children.null()) << "a failed reset lets go of the listing before";
}

TEST_F(Handles, EnumeratorsShareByAssignment) {
    StorageRef root = forReading();
    StorageEnumerator first;
    ASSERT_EQ(first.reset(root), S_OK);
    EXPECT_EQ(first.format(), StorageFormat::CompoundFile);
    EXPECT_EQ(first.type(), StorageType{});
    StorageEnumerator taken(std::move(first));
    StorageEnumerator alias;
    alias = taken;
    EXPECT_TRUE(alias == taken && alias.moveNext());
    EXPECT_EQ(taken.name(), alias.name());
    EXPECT_TRUE(taken.reset(root) == S_OK && taken.moveNext()) << "begins anew";
    alias = StorageEnumerator();
}

TEST_F(Handles, ReportExhaustedMemory) {
    static bool struck;
    const SharedPathName path = name(file_);
    StorageRef root, box, made;
    StreamRef note, written;
    StorageEnumerator children;
    const std::pair<const char*, std::function<long()>> calls[] = {
        {"open root", [&] { return root.open(path, RootStorageOpenMode::ReadWrite, false); }},
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
            EXPECT_STATUS(status, STG_E_INSUFFICIENTMEMORY) << what << spared;
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
    StreamRef stream = Handles::stream(L"Short", forReading());
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
    StorageRef root = forWriting();
    StreamRef from = stream(L"Short", root);
    StreamRef to;
    EXPECT_STATUS(to.create(L"Target", root), S_OK);
    EXPECT_EQ(to.WriteBytes(std::string(50, 'y').data(), 50), 50u);
    from.Seek(SeekPosition::Begin, 4);
    EXPECT_STATUS(from.copyTo(to), S_OK);
    EXPECT_EQ(from.GetPosition(), 4u);
    EXPECT_EQ(contents(to), "0123456789");
    EXPECT_STATUS(from.copyTo(from), STG_E_INVALIDPARAMETER);
    StreamRef null;
    EXPECT_STATUS(from.copyTo(null), STG_E_INVALIDPARAMETER);
    StreamRef reading = stream(L"Long", root);
    EXPECT_TRUE(FAILED(from.copyTo(reading)));
    EXPECT_EQ(contents(reading).size(), 50u) << "a stream that cannot be written stays as it was";
}

} // namespace
