// A document's life as a package: made, changed, copied, cleared.
//
//   document_life.exe FOLDER
//
// FOLDER gets document.7z and copy.7z, and as state-1.7z, state-2.7z ... what document.7z was after each
// step.
#include <vexel/framework.h>
#include <vexel/storage.h>

#include <windows.h>

#include <cstdio>
#include <stdexcept>
#include <string>

namespace {

constexpr int kStorages = 60;
constexpr int kStreams = 500;

// The library reports by status; this program has nothing better to do than to stop.
void check(long status, const char* what) {
    if (SUCCEEDED(status))
        return;
    char message[80];
    std::snprintf(message, sizeof message, "cannot %s: 0x%08lx", what, static_cast<unsigned long>(status));
    throw std::runtime_error(message);
}

void expect(bool condition, const char* what) {
    if (!condition)
        throw std::runtime_error(what);
}

// The document's contents. Every third storage stands within the one before it.

CString storageName(int number) {
    CString name;
    name.Format(L"storage %02d", number);
    return name;
}

CString streamName(int number) {
    CString name;
    name.Format(L"stream %03d", number);
    return name;
}

std::string contentsOf(int number, const char* edition) {
    std::string contents;
    for (int line = 0; line <= number; ++line)
        contents += "line " + std::to_string(line * number) + " of the " + edition + " edition\n";
    return contents;
}

// Storages are opened from the root downwards, each by the name that it has in its parent.
StorageRef openStorage(const StorageRef& document, int number, bool readOnly) {
    StorageRef parent = document;
    if (number % 3 == 2)
        check(parent.open(storageName(number - 1), document, readOnly), "open a parent");
    StorageRef storage;
    check(storage.open(storageName(number), parent, readOnly), "open a storage");
    return storage;
}

// To open a stream for writing empties it: streams are written whole.
void write(StreamRef& stream, const std::string& contents) {
    expect(stream.WriteBytes(contents.data(), contents.size()) == contents.size(),
           "a stream was written in part");
}

std::string read(const StorageRef& storage, int number) {
    StreamRef stream;
    check(stream.open(streamName(number), storage, true), "open a stream for reading");
    std::string contents(static_cast<std::size_t>(stream.size()), '\0');
    expect(stream.ReadBytes(contents.data(), contents.size()) == contents.size(),
           "a stream was read in part");
    return contents;
}

// The steps. Nothing is in the file before the root is committed.

StorageRef createDocument(const SharedPathName& path) {
    StorageRef document;
    check(document.create(path), "create the document");
    for (int number = 0; number < kStorages; ++number) {
        StorageRef parent = document;
        if (number % 3 == 2)
            parent = openStorage(document, number - 1, false);
        StorageRef storage;
        check(storage.create(storageName(number), parent, false), "create a storage");
    }
    for (int number = 0; number < kStreams; ++number) {
        StreamRef stream;
        const StorageRef storage = openStorage(document, number % kStorages, false);
        check(stream.create(streamName(number), storage), "create a stream");
        write(stream, contentsOf(number, "first"));
    }
    check(document.commit(), "save the document");
    return document;
}

// A package that no handle is on stays open until a clean-up, so that it is not read again for the next
// handle. After the clean-up the file is really read.
StorageRef reopen(StorageRef document, RootStorageOpenMode mode) {
    const SharedPathName path = document.name();
    document.close();
    StorageContainer::Instance().deleteUnusedObjects();
    check(document.open(path, mode, false), "open the document");
    expect(document.format() == StorageFormat::Package, "the document is no package");
    return document;
}

// Saving copies the packed bytes of what did not change, and compresses these three.
void changeThreeStreams(const StorageRef& document) {
    for (const int number : {7, 250, 499}) {
        StreamRef stream;
        check(stream.open(streamName(number), openStorage(document, number % kStorages, false), false),
              "open a stream for writing");
        write(stream, contentsOf(number, "second"));
    }
    check(document.commit(), "save the document");
}

// A package that borrows the packed data of another takes over what is copied from there as it is, without
// unpacking and compressing it.
void copyPacked(const StorageRef& document, const SharedPathName& path) {
    StorageRef copy;
    check(copy.create(path), "create the copy");
    expect(copy.borrowPackedData(document) == 1, "the packed data cannot be borrowed");
    check(document.copyTo(copy), "copy the document");
    check(copy.commit(), "save the copy");
}

// The storage stays, what was in it goes.
void clearStorage(const StorageRef& document) {
    check(openStorage(document, 3, false).clear(), "clear a storage");
    check(document.commit(), "save the document");
}

// A storage goes with all that is in it, but not while a handle is on any of that.
void removeStorage(StorageRef& document) {
    StorageRef storage = openStorage(document, 4, true);
    expect(document.destroy(storageName(4)) == STG_E_INUSE, "a storage that is in use was removed");
    storage.close();
    check(document.destroy(storageName(4)), "remove a storage");
    check(document.commit(), "save the document");
}

// What is in the document after all that.
void verify(const StorageRef& document) {
    expect(!document.hasChild(SharedPathName(storageName(4), true, false), StorageType::Storage),
           "the removed storage is there");
    StorageEnumerator children;
    check(children.reset(openStorage(document, 3, true)), "list the cleared storage");
    expect(!children.moveNext(), "the cleared storage is not empty");
    for (const int number : {7, 250, 499})
        expect(read(openStorage(document, number % kStorages, true), number) == contentsOf(number, "second"),
               "a changed stream has other contents");
    expect(read(openStorage(document, 8, true), 8) == contentsOf(8, "first"),
           "an unchanged stream has other contents");
}

// What has been committed is whole, and may be read and copied while the document is open.
class States {
public:
    explicit States(CString folder) : folder_(std::move(folder)) {}

    void keep(const StorageRef& document, const char* step) {
        CString state;
        state.Format(L"%ls\\state-%d.7z", folder_.GetString(), ++count_);
        expect(CopyFileW(document.name().asString(), state, FALSE) != FALSE,
               "the document's file cannot be copied");
        std::printf("%d %s\n", count_, step);
    }

private:
    CString folder_;
    int count_ = 0;
};

void live(const CString& folder) {
    const CString path = folder + L"\\document.7z";
    States states(folder);
    StorageRef document = createDocument(SharedPathName(path, false, false));
    states.keep(document, "created");
    document = reopen(std::move(document), RootStorageOpenMode::ReadWrite);
    changeThreeStreams(document);
    states.keep(document, "changed");
    copyPacked(document, SharedPathName(folder + L"\\copy.7z", false, false));
    clearStorage(document);
    states.keep(document, "cleared");
    removeStorage(document);
    states.keep(document, "removed");
    document = reopen(std::move(document), RootStorageOpenMode::ReadOnly);
    verify(document);
}

} // namespace

// NOLINTNEXTLINE(misc-use-internal-linkage): the entry point is called from outside.
int wmain(int count, wchar_t** arguments) {
    if (count != 2) {
        std::printf("usage: document_life FOLDER\n");
        return 2;
    }
    try {
        live(arguments[1]);
    } catch (const std::exception& error) {
        std::printf("%s\n", error.what());
        return 1;
    }
    std::printf("done\n");
    return 0;
}
