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
        for (auto* node : {&inner, &box})
            EXPECT_EQ(node->commit(), S_OK);
        EXPECT_EQ(root.commit(), S_OK);
    }
    StorageRef root = open(modeRead);
    EXPECT_EQ(children(root), L"Box/ Old ");
    StorageRef box, inner;
    ASSERT_EQ(box.open(L"Box", root, true), S_OK);
    ASSERT_EQ(inner.open(L"Inner", box, true), S_OK);
    EXPECT_EQ(read(L"Note", inner), std::string(10'000, 'n'));
    EXPECT_EQ(read(L"Old", root), "old");
    StreamRef stream;
    EXPECT_EQ(stream.open(L"Box", root, true), STG_E_INVALIDPARAMETER) << "open as a storage";
}

TEST_P(Backends, OpeningForWritingEmptiesAStream) {
    {
        StorageRef root = open(modeWrite);
        StreamRef stream;
        ASSERT_EQ(stream.open(L"Old", root, false), S_OK);
        EXPECT_EQ(stream.size(), 0U);
        EXPECT_EQ(stream.WriteBytes("new", 3), 3U);
        EXPECT_EQ(stream.commit(), S_OK);
        EXPECT_EQ(root.commit(), S_OK);
    }
    EXPECT_EQ(read(L"Old", open(modeRead)), "new");
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
    const LogCapture quiet;
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
        }
        container().deleteUnusedObjects();
        TempFileContainer::Instance().clearAll();
        EXPECT_FALSE(std::filesystem::exists(name));
    }
}

TEST(Packages, PackedDataAreBorrowedFromPackagesOnly) {
    const LogCapture quiet;
    const Support::TempFolder folder;
    const std::wstring file = folder.file(L"compound");
    Support::writeCompoundFile(file, {{L"Note", "note"}});
    StorageRef target, source, compound;
    ASSERT_EQ(target.createTemporary(false), S_OK);
    ASSERT_EQ(source.createTemporary(false), S_OK);
    ASSERT_EQ(compound.open(SharedPathName(file, false, false), modeRead, false), S_OK);
    EXPECT_EQ(target.borrowPackedData(source), 1);
    EXPECT_EQ(target.borrowPackedData(compound), STG_E_INVALIDPARAMETER);
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
TEST(Packages, CleaningUpDoesNotWaitForABusyArchive) {
    namespace Engine = Vexel::Storage::Engine;
    static const Engine::Platform real = Engine::platform();
    static int cleanUps;
    cleanUps = 0;
    const LogCapture quiet;
    const Support::TempFolder folder;
    StorageRef root;
    ASSERT_EQ(root.create(SharedPathName(folder.file(L"p"), false, false)), S_OK);
    StreamRef stream;
    ASSERT_EQ(write(stream, L"Note", root, "note"), S_OK);
    stream.close();
    Engine::platform().moveFile = [](const wchar_t* from, const wchar_t* to, DWORD flags) -> BOOL {
        ++cleanUps;
        container().deleteUnusedObjects();
        return real.moveFile(from, to, flags);
    };
    EXPECT_EQ(root.commit(), S_OK);
    EXPECT_EQ(cleanUps, 1);
    root.deleteUnusedObjects();
    Engine::platform().readFile = [](HANDLE file, void* to, DWORD count, DWORD* done,
                                     OVERLAPPED* overlapped) -> BOOL {
        ++cleanUps;
        container().deleteUnusedObjects();
        return real.readFile(file, to, count, done, overlapped);
    };
    EXPECT_EQ(read(L"Note", root), "note");
    EXPECT_GT(cleanUps, 1);
    Engine::platform() = real;
}

} // namespace
