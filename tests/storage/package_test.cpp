// Packages through the handles: what only they can do.

#include "support/storage_test.h"

#include <filesystem>

using namespace Support;

namespace {

class Files : public StorageTest<> {
protected:
    /// A package with one stream, which nobody has open.
    void make() const { writeDocument(file_, StorageFormat::Package, {{L"Note", "old"}}); }
    std::string saved() {
        container().deleteUnusedObjects();
        return read(L"Note", openRoot(path_, modeRead));
    }

    static inline const Vexel::Detail::Platform kReal = platform();
};

TEST_F(Files, TemporaryRootsLiveInMemoryOrInAFileThatGoes) {
    for (const bool onDisk : {false, true}) {
        EXPECT_FALSE(container().SetCreateOnDisk(onDisk));
        EXPECT_EQ(container().GetCreateOnDisk(), onDisk);
        StorageRef root;
        ASSERT_EQ(root.createTemporary(false), S_OK);
        EXPECT_EQ(container().setCreateOnDisk(false), onDisk);
        const std::wstring name = root.name().asString();
        newStream(L"Note", root, "bytes");
        EXPECT_EQ(root.commit(), S_OK);
        EXPECT_EQ(std::filesystem::exists(name), onDisk);
        EXPECT_EQ(name.ends_with(L".grb"), onDisk);
        EXPECT_EQ(name.starts_with(L":szip"), !onDisk);
        EXPECT_EQ(read(L"Note", root), "bytes");
        StreamRef lost = newStream(L"Lost", root, "bytes");
        container().clearAll();
        EXPECT_TRUE(TempFileContainer::Instance().clear()) << "nothing is to be deleted yet";
        EXPECT_FALSE(root.getFileTimes(nullptr, nullptr, nullptr));
        EXPECT_EQ(root.hasChild(element(L"Note"), StorageType{}), onDisk) << "opened again";
        EXPECT_FALSE(root.hasChild({}, StorageType{}));
        EXPECT_EQ(read(L"Note", root), onDisk ? "bytes" : "none");
        closeForGood(root, lost);
        EXPECT_TRUE(isSoon([&] { return !std::filesystem::exists(name); }));
    }
    EXPECT_EQ(log_.count(L"Destroying unsaved"), 0);
}

// Nobody here would pack it as the other program has.
TEST_F(Files, CopiesTakeBorrowedDataOver) {
    writeCompoundFile(file_, {{L"Note", "note"}});
    const std::wstring sample = samplePath(L"plain-lzma-packed-header.7z");
    const std::string packed = readFile(sample).substr(52, 240'864); // all but the class
    for (const bool borrow : {true, false}) {
        const std::wstring made = folder_.file(borrow ? L"borrowed" : L"packed anew");
        const StorageRef source = openRoot(path(sample), modeRead);
        StorageRef target = newPackage(path(made));
        EXPECT_EQ(target.borrowPackedData(openRoot(path_, modeRead)), STG_E_INVALIDPARAMETER);
        EXPECT_EQ(borrow ? target.borrowPackedData(source) : 1, 1);
        EXPECT_EQ(source.copyTo(target), S_OK);
        EXPECT_EQ(target.commit(), S_OK);
        EXPECT_EQ(target.borrowPackedData(source), 0) << "it has a file of its own now";
        EXPECT_EQ(readFile(made).find(packed) != std::string::npos, borrow);
        EXPECT_EQ(children(target), children(source));
        EXPECT_EQ(read(L"deep", openStorage(L"e", openStorage(L"d", target))).size(), 5000U);
        container().clearAll();
        EXPECT_EQ(target.borrowPackedData(source), STG_E_INVALIDPARAMETER) << "closed";

        EXPECT_NE(source.storage(), nullptr);
        const CleanUp cleanUp([] { return container().clearAll(), true; });
        platform().createFile = [](auto...) {
            platform() = kReal;
            SetLastError(ERROR_TOO_MANY_OPEN_FILES);
            return INVALID_HANDLE_VALUE;
        };
        EXPECT_EQ(target.borrowPackedData(source), STG_E_INVALIDPARAMETER)
            << "closed while the target was opened";
    }
}

TEST_F(Files, KeepNamesAsTheyAreGiven) {
    const std::wstring names[] = {L"100% %2f%",    L"\x01\x1f",     L"CON",     L"nul.txt",
                                  L"..",           L" a. ",         L"x\\y:z|", L"Case",
                                  L"case",         L"\xd83d\xde00", L"\xd83d",  std::wstring(4000, L'n'),
                                  L"C:",           L"C:x",          L"C:\\x",   L"C:\\y\\..\\x",
                                  L"x:y",          L"\\foo",        L"a\\b",    L"\\\\server\\share\\..\\x",
                                  L"\\\\?\\C:\\a", L"nul:",         L"x.. ..",  L"C:\\x. "};
    std::vector<Element> elements;
    StorageRef root = newPackage(path_);
    for (const std::wstring& name : names) {
        elements.push_back({name + L"/", {}});
        elements.push_back({name + L"/" + name, std::string(name.begin(), name.end())});
        newStream(name.c_str(), newStorage(name.c_str(), root), elements.back().contents);
    }
    for (const wchar_t* const none : {L"", static_cast<const wchar_t*>(nullptr)}) {
        EXPECT_EQ(StorageRef().create(none, root, true), STG_E_INVALIDPARAMETER);
        EXPECT_EQ(StreamRef().create(none, root), STG_E_INVALIDPARAMETER);
        EXPECT_EQ(StreamRef().open(none, root, true), STG_E_INVALIDPARAMETER);
        EXPECT_EQ(root.destroy(none), STG_E_INVALIDNAME);
    }
    EXPECT_EQ(root.commit(), S_OK);
    closeForGood(root);
    EXPECT_THAT(readDocument(file_, StorageFormat::Package), testing::UnorderedElementsAreArray(elements));
    root = openRoot(path_, modeWrite);
    newStream(L"a/b", root, "slashed");
    EXPECT_EQ(root.commit(), S_OK);
    closeForGood(root);
    EXPECT_EQ(read(L"a/b", openRoot(path_, modeRead)), "slashed");
}

TEST_F(Files, MayVanishAndComeBack) {
    const std::wstring directory = folder_.file(L"sub");
    const std::wstring file = directory + L"\\p";
    const StorageRef root = newPackage(path(file)); // a file from its first commit on
    StreamRef stream = newStream(L"Note", root, "new");
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
    std::filesystem::copy_file(file_, file);
    EXPECT_EQ(read(L"Note", root), "old");
}

TEST_F(Files, AreReplacedByNobodyWhileOpen) {
    make();
    const std::wstring other = folder_.file(L"other");
    std::filesystem::copy_file(file_, other);
    const auto replaced = [&] {
        return MoveFileExW(other.c_str(), file_.c_str(), MOVEFILE_REPLACE_EXISTING) != FALSE;
    };
    StorageRef writer = openRoot(path_, modeWrite);
    StreamRef stream = newStream(L"Note", writer, "new");
    EXPECT_FALSE(replaced());
    {
        const StorageRef reader = openRoot(path_, modeRead);
        EXPECT_NE(reader, writer);
        EXPECT_EQ(writer.commit(), STG_E_ACCESSDENIED) << "another root has the file";
        EXPECT_EQ(read(L"Note", reader) + read(L"Note", writer), "oldnew");
        EXPECT_EQ(reader.commit(), S_OK);
    }
    EXPECT_EQ(writer.commit(), STG_E_ACCESSDENIED) << "which stays open without handles";
    container().deleteUnusedObjects();
    EXPECT_EQ(writer.commit(), S_OK);
    EXPECT_EQ(saved(), "new");
    closeForGood(stream, writer);

    StorageRef reader = openRoot(path_, modeRead);
    EXPECT_EQ(writer.open(reader.name(), modeWrite, false), HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION));
    EXPECT_EQ(reader.clear(), STG_E_ACCESSDENIED);
    EXPECT_EQ(reader.destroy(L"Note"), STG_E_ACCESSDENIED);
    EXPECT_EQ(reader.commit(), S_OK);
    reader.close();
    EXPECT_EQ(writer.open(path_, modeWrite, false), S_OK);
    closeForGood(writer);
    EXPECT_TRUE(replaced());
    EXPECT_EQ(saved(), "old");
}

TEST_F(Files, LetGoOfWhatIsClearedAway) {
    make();
    StorageRef root = openRoot(path_, modeWrite), box = newStorage(L"Box", root);
    StreamRef note = openStream(L"Note", root), inner = newStream(L"Inner", box, "inner");
    const Microsoft::WRL::ComPtr<IStream> kept = inner.stream();
    box.close();
    EXPECT_EQ(root.destroy(L"Box"), STG_E_INUSE);
    EXPECT_EQ(box.create(L"Box", root, true), STG_E_INVALIDPARAMETER);
    EXPECT_EQ(inner.size(), 5U) << "not replaced";
    ASSERT_EQ(box.open(L"Box", root, false), S_OK);

    newStream(L"Unheld", root);
    EXPECT_EQ(root.clear(), S_OK);
    EXPECT_FALSE(root.hasChild(element(L"Unheld"), StorageType::Stream));
    EXPECT_EQ(note.size() + inner.WriteBytes("x", 1), 0U);
    EXPECT_EQ(kept->Write("x", 1, nullptr), S_OK) << "a caller's own reference";
    EXPECT_EQ(StreamRef().create(L"New", box), STG_E_FILENOTFOUND);
    EXPECT_EQ(root.commit(), S_OK);
    EXPECT_EQ(children(root), L"");
    EXPECT_EQ(box.create(L"Box", root, false), S_OK);
    inner = newStream(L"Inner", box, "new");
    EXPECT_EQ(root.commit(), S_OK);
    EXPECT_EQ(saved(), "none");
}

// As if on another thread, a clean-up comes in the middle of reading contents and of saving, which both hold
// locks of the archive. What is read once more was given back.
TEST_F(Files, AreNotWaitedForByACleanUp) {
    static int cleanUps;
    cleanUps = 0;
    make();
    const StorageRef root = openRoot(path_, modeWrite);
    newStream(L"Note", root, "note");
    platform().moveFile = [](auto... arguments) -> BOOL {
        return ++cleanUps, container().deleteUnusedObjects(), kReal.moveFile(arguments...);
    };
    EXPECT_EQ(root.commit(), S_OK);
    EXPECT_EQ(cleanUps, 1);
    container().deleteUnusedObjects();
    platform().readFile = [](auto... arguments) -> BOOL {
        return ++cleanUps, container().deleteUnusedObjects(), kReal.readFile(arguments...);
    };
    EXPECT_EQ(read(L"Note", root), "note");
    EXPECT_GT(cleanUps, 1);
}

// Opening for writing empties a stream, so what it has is neither waited for nor needed.
TEST_F(Files, OpenStreamsForWritingWithoutUnpackingThem) {
    const std::pair<const wchar_t*, HRESULT> samples[] = {{L"solid.7z", STG_E_INVALIDFUNCTION},
                                                          {L"unsupported-ppmd.7z", E_NOTIMPL}};
    for (const auto& [sample, unreadable] : samples) {
        writeFile(file_, readFile(samplePath(sample)));
        StorageRef root = openRoot(path_, modeWrite), directory = openStorage(L"d", root, false);
        StreamRef stream;
        EXPECT_EQ(stream.open(element(L"x"), directory, true), unreadable);
        StreamRef writer = openStream(L"x", directory, false);
        EXPECT_EQ(writer.size(), 0U);
        EXPECT_EQ(writer.write("new", 3, nullptr), S_OK);
        openStream(L"e", root, false); // and emptied, even if nothing is written
        EXPECT_EQ(directory.commit(), S_OK);
        EXPECT_EQ(root.commit(), S_OK);
        closeForGood(writer, directory, root);
        root = openRoot(path_, modeRead);
        EXPECT_EQ(read(L"x", openStorage(L"d", root)), "new");
        EXPECT_EQ(read(L"e", root), "");
        EXPECT_EQ(stream.open(element(L"deep"), openStorage(L"e", openStorage(L"d", root)), true),
                  sample == samples[0].first ? S_OK : unreadable)
            << "another one: unpacked to be packed singly, or as it was";
        closeForGood(stream, root);
    }
}

} // namespace
