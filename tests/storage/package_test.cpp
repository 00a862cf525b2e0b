// Packages through the handles: what they share with compound files, by one body of test over both, and what
// only they can do.

#include "archive/platform.h"
#include "support/compound_file.h"
#include "support/log_capture.h"

#include <vexel/storage.h>
#include <vexel/temp_files.h>

#include <windows.h>

#include <objbase.h>

#include <gtest/gtest.h>
#include <psapi.h>

#include <filesystem>
#include <string>

namespace {

constexpr auto modeRead = RootStorageOpenMode::ReadOnly;
constexpr auto modeWrite = RootStorageOpenMode::ReadWrite;

StorageContainer& container() { return StorageContainer::Instance(); }

SharedPathName element(const wchar_t* name) { return {name, true, false}; }

long write(StreamRef& stream, const wchar_t* name, const StorageRef& parent, const std::string& bytes) {
    const long status = stream.create(name, parent);
    if (SUCCEEDED(status)) {
        EXPECT_EQ(stream.WriteBytes(bytes.data(), bytes.size()), bytes.size());
    }
    return status;
}

std::string read(const wchar_t* name, const StorageRef& parent) {
    StreamRef stream;
    if (FAILED(stream.open(name, parent, true)))
        return "none";
    std::string bytes(stream.size(), '\0');
    bytes.resize(stream.ReadBytes(bytes.data(), bytes.size()));
    return bytes;
}

std::wstring children(const StorageRef& storage) {
    std::wstring names;
    StorageEnumerator child;
    EXPECT_EQ(child.reset(storage), S_OK);
    while (child.moveNext())
        names +=
            std::wstring(child.name().asString()) + (child.type() == StorageType::Storage ? L"/ " : L" ");
    return names;
}

/// What is wanted to differ between the two formats.
struct Backend {
    const char* name;
    StorageFormat format;
    StreamCompression compression;
    long clearing;
    const wchar_t* slashed; ///< how a name with a "/" is taken
};

class Backends : public testing::TestWithParam<Backend> {
protected:
    void SetUp() override {
        if (GetParam().format == StorageFormat::CompoundFile) {
            Support::writeCompoundFile(file_, {{L"Old", "old"}});
            return;
        }
        StorageRef root;
        StreamRef stream;
        ASSERT_EQ(root.create(path_), S_OK);
        ASSERT_EQ(write(stream, L"Old", root, "old"), S_OK);
        ASSERT_EQ(root.commit(), S_OK);
    }
    void TearDown() override { container().deleteUnusedObjects(); }
    StorageRef open(RootStorageOpenMode mode) {
        container().deleteUnusedObjects();
        StorageRef root;
        EXPECT_EQ(root.open(path_, mode, false), S_OK);
        EXPECT_EQ(root.format(), GetParam().format);
        return root;
    }

    Support::TempFolder folder_;
    std::wstring file_ = folder_.file(L"document");
    SharedPathName path_{file_, false, false};
    LogCapture quiet_;
};

TEST_P(Backends, ADocumentsLife) {
    {
        StorageRef root = open(modeWrite);
        StorageRef box, inner, gone;
        StreamRef note, again;
        ASSERT_EQ(box.create(L"Box", root, false), S_OK);
        ASSERT_EQ(inner.create(L"Inner", box, false), S_OK);
        ASSERT_EQ(write(note, L"Note", inner, std::string(10'000, 'n')), S_OK);
        EXPECT_EQ(note.compression(), GetParam().compression);
        ASSERT_EQ(again.open(L"Note", inner, true), S_OK);
        EXPECT_TRUE(again == note) << "one node, one item";
        EXPECT_TRUE(box.hasChild(element(L"Inner"), StorageType::Storage));
        EXPECT_FALSE(box.hasChild(element(L"Inner"), StorageType::Stream));
        EXPECT_FALSE(box.hasChild(element(L"Nix"), StorageType{}));
        ASSERT_EQ(gone.create(L"Gone", root, false), S_OK);
        EXPECT_EQ(root.destroy(L"Gone"), STG_E_INUSE);
        gone.close();
        EXPECT_EQ(root.destroy(L"Gone"), S_OK);
        EXPECT_EQ(root.destroy(L"Gone"), STG_E_FILENOTFOUND);
        ASSERT_EQ(again.open(L"Old", root, false), S_OK);
        EXPECT_EQ(again.size(), 0U) << "emptied to be written";
        EXPECT_EQ(again.WriteBytes("new", 3), 3U);
        EXPECT_TRUE(inner.commit() == S_OK && box.commit() == S_OK && again.commit() == S_OK);
        EXPECT_EQ(root.commit(), S_OK);
    }
    StorageRef root = open(modeRead);
    EXPECT_EQ(children(root), L"Box/ Old ");
    StorageRef box, inner;
    ASSERT_EQ(box.open(L"Box", root, true), S_OK);
    ASSERT_EQ(inner.open(L"Inner", box, true), S_OK);
    EXPECT_EQ(read(L"Note", inner), std::string(10'000, 'n'));
    EXPECT_EQ(read(L"Old", root), "new");
    StreamRef stream;
    EXPECT_EQ(stream.open(L"Box", root, true), STG_E_INVALIDPARAMETER) << "open as a storage";
}

TEST_P(Backends, Differ) {
    StorageRef root = open(modeWrite);
    StreamRef stream;
    EXPECT_EQ(root.clear(), GetParam().clearing);
    const bool slashed = SUCCEEDED(write(stream, L"a/b", root, "x"));
    EXPECT_EQ(slashed ? children(root) : L"refused", GetParam().slashed);
}

INSTANTIATE_TEST_SUITE_P(Both, Backends,
                         testing::Values(Backend{"Compound", StorageFormat::CompoundFile,
                                                 StreamCompression::None, STG_E_INVALIDFUNCTION, L"refused"},
                                         Backend{"Package", StorageFormat::Package, StreamCompression::Packed,
                                                 S_OK, L"a "}),
                         [](const auto& backend) { return backend.param.name; });

TEST(Packages, TemporaryRootsLiveInMemoryOrInAFileThatGoes) {
    const LogCapture log;
    for (const bool onDisk : {false, true}) {
        container().setCreateOnDisk(onDisk);
        std::wstring name;
        {
            StorageRef root;
            StreamRef stream;
            ASSERT_EQ(root.createTemporary(false), S_OK);
            container().setCreateOnDisk(false);
            name = root.name().asString();
            ASSERT_EQ(write(stream, L"Note", root, "bytes"), S_OK);
            EXPECT_EQ(root.commit(), S_OK);
            EXPECT_EQ(std::filesystem::exists(name), onDisk);
            EXPECT_EQ(name.ends_with(L".grb"), onDisk);
            EXPECT_EQ(name.starts_with(L":szip"), !onDisk);
            stream.close();
            EXPECT_EQ(read(L"Note", root), "bytes");
            ASSERT_EQ(write(stream, L"Lost", root, "bytes"), S_OK);
            container().clearAll();
            EXPECT_TRUE(TempFileContainer::Instance().clear()) << "nothing is to be deleted yet";
            EXPECT_FALSE(root.getFileTimes(nullptr, nullptr, nullptr));
            EXPECT_EQ(root.hasChild(element(L"Note"), StorageType{}), onDisk) << "opened again";
            EXPECT_FALSE(root.hasChild({}, StorageType{}));
            EXPECT_EQ(read(L"Note", root), onDisk ? "bytes" : "none");
        }
        container().deleteUnusedObjects();
        for (int i = 0; i < 1000 && std::filesystem::exists(name); ++i, Sleep(10))
            TempFileContainer::Instance().clear(); // done by a background thread
        EXPECT_FALSE(std::filesystem::exists(name));
    }
    EXPECT_EQ(log.count(L"Destroying unsaved"), 0);
}

/// A root of its own on a file.
StorageRef openRoot(const std::wstring& file, RootStorageOpenMode mode) {
    StorageRef root;
    EXPECT_EQ(root.open(SharedPathName(file, false, false), mode, false), S_OK);
    return root;
}

class Files : public testing::Test {
protected:
    ~Files() override {
        platform() = real_;
        container().deleteUnusedObjects();
    }
    static Vexel::Storage::Engine::Platform& platform() { return Vexel::Storage::Engine::platform(); }

    /// A package with one stream, which nobody has open.
    void make() {
        StorageRef root;
        StreamRef stream;
        ASSERT_EQ(root.create(SharedPathName(file_, false, false)), S_OK);
        ASSERT_EQ(write(stream, L"Note", root, "old"), S_OK);
        ASSERT_EQ(root.commit(), S_OK);
        stream.close();
        root.close();
        container().deleteUnusedObjects();
    }
    std::string saved() {
        container().deleteUnusedObjects();
        return read(L"Note", openRoot(file_, modeRead));
    }

    const Vexel::Storage::Engine::Platform real_ = platform();
    const Support::TempFolder folder_;
    const std::wstring file_ = folder_.file(L"p");
    const LogCapture quiet_;
};

// Nobody here would pack it as the other program has.
TEST_F(Files, CopiesTakeBorrowedDataOver) {
    Support::writeCompoundFile(file_, {{L"Note", "note"}});
    const std::wstring sample = Support::samplePath(L"plain-lzma-packed-header.7z");
    const std::string packed = Support::readFile(sample).substr(52, 240'864); // all but the class
    for (const bool borrow : {true, false}) {
        const std::wstring made = folder_.file(borrow ? L"borrowed" : L"packed anew");
        const StorageRef source = openRoot(sample, modeRead);
        StorageRef target, deep;
        ASSERT_EQ(target.create(SharedPathName(made, false, false)), S_OK);
        EXPECT_EQ(target.borrowPackedData(openRoot(file_, modeRead)), STG_E_INVALIDPARAMETER);
        EXPECT_EQ(borrow ? target.borrowPackedData(source) : 1, 1);
        EXPECT_EQ(source.copyTo(target), S_OK);
        EXPECT_EQ(target.commit(), S_OK);
        EXPECT_EQ(target.borrowPackedData(source), 0) << "it has a file of its own now";
        EXPECT_EQ(Support::readFile(made).find(packed) != std::string::npos, borrow);
        EXPECT_EQ(children(target), children(source));
        ASSERT_TRUE(deep.open(L"d", target, true) == S_OK && deep.open(L"e", deep, true) == S_OK);
        EXPECT_EQ(read(L"deep", deep).size(), 5000U);
        container().clearAll();
        EXPECT_EQ(target.borrowPackedData(source), STG_E_INVALIDPARAMETER) << "closed";
    }
}

TEST_F(Files, KeepNamesAsTheyAreGiven) {
    const std::wstring names[] = {L"100% %2f%", L"\x01\x1f",     L"CON",     L"nul.txt",
                                  L"..",        L" a. ",         L"x\\y:z|", L"Case",
                                  L"case",      L"\xd83d\xde00", L"\xd83d",  std::wstring(4000, L'n')};
    {
        StorageRef root, storage;
        StreamRef stream;
        ASSERT_EQ(root.create(SharedPathName(file_, false, false)), S_OK);
        for (const std::wstring& name : names) {
            ASSERT_EQ(storage.create(name.c_str(), root, false), S_OK);
            EXPECT_EQ(write(stream, name.c_str(), storage, std::string(name.begin(), name.end())), S_OK);
        }
        EXPECT_EQ(write(stream, L"a/b", root, "slashed"), S_OK);
        for (const wchar_t* const none : {L"", static_cast<const wchar_t*>(nullptr)}) {
            EXPECT_EQ(storage.create(none, root, true), STG_E_INVALIDPARAMETER);
            EXPECT_EQ(stream.create(none, root), STG_E_INVALIDPARAMETER);
            EXPECT_EQ(stream.open(none, root, true), STG_E_INVALIDPARAMETER);
            EXPECT_EQ(root.destroy(none), STG_E_INVALIDNAME);
        }
        EXPECT_EQ(root.commit(), S_OK);
    }
    container().deleteUnusedObjects();
    const StorageRef root = openRoot(file_, modeRead);
    const std::wstring listed = L" " + children(root);
    for (const std::wstring& name : names) {
        StorageRef storage;
        ASSERT_EQ(storage.open(name.c_str(), root, true), S_OK);
        EXPECT_EQ(read(name.c_str(), storage), std::string(name.begin(), name.end()));
        EXPECT_EQ(children(storage), name + L" ");
        EXPECT_NE(listed.find(L" " + name + L"/ "), std::wstring::npos);
    }
    EXPECT_EQ(read(L"a/b", root), "slashed");
}

TEST_F(Files, StayWholeOnAFullDisk) {
    make();
    const std::string before = Support::readFile(file_);
    const StorageRef root = openRoot(file_, modeWrite);
    StreamRef stream;
    ASSERT_EQ(write(stream, L"Note", root, "new"), S_OK);
    platform().writeFile = [](HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*) -> BOOL {
        SetLastError(ERROR_DISK_FULL);
        return FALSE;
    };
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(root.commit(), STG_E_MEDIUMFULL);
    EXPECT_EQ(Support::readFile(file_), before);
    container().deleteUnusedObjects();
    platform() = real_;
    EXPECT_EQ(root.commit(), S_OK);
    EXPECT_EQ(saved(), "new");
}

TEST_F(Files, MayVanishAndComeBack) {
    const std::wstring directory = folder_.file(L"sub");
    const SharedPathName path(directory + L"\\p", false, false);
    StorageRef root;
    StreamRef stream;
    ASSERT_EQ(root.create(path), S_OK) << "a file from its first commit on";
    ASSERT_EQ(write(stream, L"Note", root, "new"), S_OK);
    EXPECT_EQ(root.commit(), STG_E_PATHNOTFOUND);
    ASSERT_TRUE(std::filesystem::create_directory(directory));
    EXPECT_EQ(root.commit(), S_OK);
    stream.close();

    // Without the file in hand, handles find what is there by then.
    container().clearAll();
    ASSERT_TRUE(std::filesystem::remove_all(directory));
    EXPECT_EQ(root.commit(), STG_E_PATHNOTFOUND);
    EXPECT_EQ(read(L"Note", root), "none");
    make();
    ASSERT_TRUE(std::filesystem::create_directory(directory));
    std::filesystem::copy_file(file_, path.asString());
    EXPECT_EQ(read(L"Note", root), "old");
}

TEST_F(Files, AreReplacedByNobodyWhileOpen) {
    make();
    const std::wstring other = folder_.file(L"other");
    std::filesystem::copy_file(file_, other);
    const auto replaced = [&] {
        return MoveFileExW(other.c_str(), file_.c_str(), MOVEFILE_REPLACE_EXISTING) != FALSE;
    };
    StreamRef stream;
    StorageRef writer = openRoot(file_, modeWrite);
    ASSERT_EQ(write(stream, L"Note", writer, "new"), S_OK);
    EXPECT_FALSE(replaced());
    {
        const StorageRef reader = openRoot(file_, modeRead);
        EXPECT_NE(reader, writer);
        EXPECT_EQ(writer.commit(), STG_E_ACCESSDENIED) << "another root has the file";
        EXPECT_EQ(read(L"Note", reader) + read(L"Note", writer), "oldnew");
        EXPECT_EQ(reader.commit(), S_OK);
    }
    EXPECT_EQ(writer.commit(), STG_E_ACCESSDENIED) << "which stays open without handles";
    container().deleteUnusedObjects();
    EXPECT_EQ(writer.commit(), S_OK);
    EXPECT_EQ(saved(), "new");
    stream.close();
    writer.close();
    container().deleteUnusedObjects();

    StorageRef reader = openRoot(file_, modeRead);
    EXPECT_EQ(writer.open(reader.name(), modeWrite, false), HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION));
    EXPECT_EQ(reader.clear(), STG_E_ACCESSDENIED);
    EXPECT_EQ(reader.destroy(L"Note"), STG_E_ACCESSDENIED);
    EXPECT_EQ(reader.commit(), S_OK);
    reader.close();
    EXPECT_EQ(writer.open(SharedPathName(file_, false, false), modeWrite, false), S_OK);
    writer.close();
    container().deleteUnusedObjects();
    EXPECT_TRUE(replaced());
    EXPECT_EQ(saved(), "old");
}

TEST_F(Files, LetGoOfWhatIsClearedAway) {
    make();
    StorageRef root = openRoot(file_, modeWrite), box;
    StreamRef note, inner, unheld;
    ASSERT_EQ(note.open(L"Note", root, true), S_OK);
    ASSERT_EQ(box.create(L"Box", root, false), S_OK);
    ASSERT_EQ(write(inner, L"Inner", box, "inner"), S_OK);
    const Microsoft::WRL::ComPtr<IStream> kept = inner.stream();
    box.close();
    EXPECT_EQ(root.destroy(L"Box"), STG_E_INUSE);
    EXPECT_EQ(box.create(L"Box", root, true), STG_E_INVALIDPARAMETER);
    EXPECT_EQ(inner.size(), 5U) << "not replaced";
    ASSERT_EQ(box.open(L"Box", root, false), S_OK);

    ASSERT_EQ(write(unheld, L"Unheld", root, ""), S_OK);
    unheld.close();
    EXPECT_EQ(root.clear(), S_OK);
    EXPECT_FALSE(root.hasChild(element(L"Unheld"), StorageType::Stream));
    EXPECT_EQ(note.size() + inner.WriteBytes("x", 1), 0U);
    EXPECT_EQ(kept->Write("x", 1, nullptr), S_OK) << "a caller's own reference";
    EXPECT_EQ(StreamRef().create(L"New", box), STG_E_FILENOTFOUND);
    EXPECT_EQ(StreamRef().open(L"Note", root, true), STG_E_FILENOTFOUND);
    EXPECT_EQ(root.commit(), S_OK);
    EXPECT_EQ(children(root), L"");
    EXPECT_EQ(box.create(L"Box", root, false), S_OK);
    EXPECT_EQ(inner.size(), 0U);
    EXPECT_EQ(write(inner, L"Inner", box, "new"), S_OK);
    EXPECT_EQ(root.commit(), S_OK);
    EXPECT_EQ(saved(), "none");
}

std::size_t memoryInUse() {
    PROCESS_MEMORY_COUNTERS counters{};
    counters.cb = sizeof counters;
    GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters);
    return counters.WorkingSetSize;
}

// 300 MB of contents, which pack well, are read and dropped.
TEST(Packages, CleaningUpGivesMemoryBack) {
    const LogCapture quiet;
    const Support::TempFolder folder;
    const SharedPathName path(folder.file(L"large"), false, false);
    {
        StorageRef root;
        ASSERT_EQ(root.create(path), S_OK);
        for (int i = 0; i < 30; ++i) {
            StreamRef stream;
            ASSERT_EQ(write(stream, std::to_wstring(i).c_str(), root, std::string(10'000'000, 'x')), S_OK);
        }
        ASSERT_EQ(root.commit(), S_OK);
    }
    container().deleteUnusedObjects();
    const std::size_t before = memoryInUse();
    {
        StorageRef root;
        ASSERT_EQ(root.open(path, modeRead, false), S_OK);
        for (int i = 0; i < 30; ++i)
            EXPECT_EQ(read(std::to_wstring(i).c_str(), root).size(), 10'000'000U);
        EXPECT_GT(memoryInUse(), before + 290'000'000);
        root.deleteUnusedObjects();
        EXPECT_LT(memoryInUse(), before + 10'000'000);
    }
    container().deleteUnusedObjects();
    EXPECT_LT(memoryInUse(), before + 10'000'000);
}

// As if on another thread, a clean-up comes in the middle of reading contents and of saving, which both hold
// locks of the archive.
TEST_F(Files, AreNotWaitedForByACleanUp) {
    static const auto real = platform();
    static int cleanUps;
    cleanUps = 0;
    make();
    const StorageRef root = openRoot(file_, modeWrite);
    StreamRef stream;
    ASSERT_EQ(write(stream, L"Note", root, "note"), S_OK);
    stream.close();
    platform().moveFile = [](const wchar_t* from, const wchar_t* to, DWORD flags) -> BOOL {
        ++cleanUps;
        container().deleteUnusedObjects();
        return real.moveFile(from, to, flags);
    };
    EXPECT_EQ(root.commit(), S_OK);
    EXPECT_EQ(cleanUps, 1);
    container().deleteUnusedObjects();
    platform().readFile = [](HANDLE file, void* to, DWORD count, DWORD* done,
                             OVERLAPPED* overlapped) -> BOOL {
        ++cleanUps;
        container().deleteUnusedObjects();
        return real.readFile(file, to, count, done, overlapped);
    };
    EXPECT_EQ(read(L"Note", root), "note");
    EXPECT_GT(cleanUps, 1);
}

} // namespace
