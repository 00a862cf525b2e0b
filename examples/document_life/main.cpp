// A document's life: made, changed, copied, cleared. As a package, and where a compound file is named, as
// such one too: none is made anew, so that file is copied and grows.
//
//   document_life.exe FOLDER [COMPOUND-FILE]
//
// FOLDER gets document.7z and copy.7z, and as state-1.7z, state-2.7z ... what document.7z was after each
// step; with a compound file also compound-document.cfb, compound-copy.7z, compound-state-1.cfb and so on.
#include <vexel/framework.h>
#include <vexel/storage.h>

#include <windows.h>

#include <cstdio>
#include <map>
#include <ranges>
#include <stdexcept>
#include <string>

namespace {

constexpr int kStorages = 60;
constexpr int kStreams = 500;

// The library reports by status; this program has nothing better to do than to stop.
void check(long status, const char* what) {
    if (status == S_OK)
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

// A change of the document. All storages that it concerns stay open until they are committed, from the inside
// to the outside: a storage of a compound file passes its changes on to the one above, and forgets them when
// it is closed before. Of a package every commit saves whatever there is to save, so that the later ones have
// nothing to do.
class Change {
public:
    explicit Change(StorageRef document) : document_(std::move(document)) {}

    const StorageRef& storage(int number) { return opened(number, parentOf(number)); }
    void create(int number) {
        check(storages_[number].create(storageName(number), parentOf(number), false), "create a storage");
    }
    void commit() {
        for (const auto& [number, storage] : std::views::reverse(storages_)) // inner ones come later
            check(storage.commit(), "commit a storage");
        check(document_.commit(), "save the document");
    }

private:
    const StorageRef& opened(int number, const StorageRef& parent) {
        StorageRef& storage = storages_[number];
        if (storage.null())
            check(storage.open(storageName(number), parent, false), "open a storage");
        return storage;
    }
    // Each third storage stands in the one before it.
    const StorageRef& parentOf(int number) {
        return number % 3 == 2 ? opened(number - 1, document_) : document_;
    }

    StorageRef document_;
    std::map<int, StorageRef> storages_;
};

// The steps.

void fill(const StorageRef& document) {
    Change change(document);
    for (int number = 0; number < kStorages; ++number)
        change.create(number);
    for (int number = 0; number < kStreams; ++number) {
        StreamRef stream;
        check(stream.create(streamName(number), change.storage(number % kStorages)), "create a stream");
        write(stream, contentsOf(number, "first"));
    }
    change.commit();
}

// A package that no handle is on stays open until a clean-up, so that it is not read again for the next
// handle. After the clean-up the file is really read.
StorageRef reopen(StorageRef document, RootStorageOpenMode mode) {
    const SharedPathName path = document.name();
    const StorageFormat format = document.format();
    document.close();
    StorageContainer::Instance().deleteUnusedObjects();
    check(document.open(path, mode, false), "open the document");
    expect(document.format() == format, "the document has another format");
    return document;
}

// Saving copies the packed bytes of what did not change, and compresses these three.
void changeThreeStreams(const StorageRef& document) {
    Change change(document);
    for (const int number : {7, 250, 499}) {
        StreamRef stream;
        check(stream.open(streamName(number), change.storage(number % kStorages), false),
              "open a stream for writing");
        write(stream, contentsOf(number, "second"));
    }
    change.commit();
}

// A package that borrows the packed data of another takes over what is copied from there as it is, without
// unpacking and compressing it. The contents of a compound file are packed.
void copyPacked(const StorageRef& document, const SharedPathName& path) {
    StorageRef copy;
    check(copy.create(path), "create the copy");
    expect(document.format() != StorageFormat::Package || copy.borrowPackedData(document) == 1,
           "the packed data cannot be borrowed");
    check(document.copyTo(copy), "copy the document");
    check(copy.commit(), "save the copy");
}

// The storage stays, what was in it goes. In a compound file its children go one by one.
void clearStorage(const StorageRef& document) {
    Change change(document);
    StorageRef storage = change.storage(3);
    if (document.format() == StorageFormat::Package) {
        check(storage.clear(), "clear a storage");
    } else {
        StorageEnumerator child;
        check(child.reset(storage), "list a storage");
        while (child.moveNext())
            check(storage.destroy(child.name()), "remove a stream");
    }
    change.commit();
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
    States(CString begin, CString extension) : begin_(std::move(begin)), extension_(std::move(extension)) {}

    void keep(const StorageRef& document, const char* step) {
        CString state;
        state.Format(L"%lsstate-%d.%ls", begin_.GetString(), ++count_, extension_.GetString());
        expect(CopyFileW(document.name().asString(), state, FALSE) != FALSE,
               "the document's file cannot be copied");
        std::printf("%d %s\n", count_, step);
    }

private:
    CString begin_;
    CString extension_;
    int count_ = 0;
};

void live(StorageRef document, const CString& begin, const CString& extension) {
    States states(begin, extension);
    fill(document);
    states.keep(document, "created");
    document = reopen(std::move(document), RootStorageOpenMode::ReadWrite);
    changeThreeStreams(document);
    states.keep(document, "changed");
    copyPacked(document, SharedPathName(begin + L"copy.7z", false, false));
    clearStorage(document);
    states.keep(document, "cleared");
    removeStorage(document);
    states.keep(document, "removed");
    document = reopen(std::move(document), RootStorageOpenMode::ReadOnly);
    verify(document);
}

void livePackage(const CString& folder) {
    const CString begin = folder + L"\\";
    StorageRef document;
    check(document.create(SharedPathName(begin + L"document.7z", false, false)), "create the document");
    live(std::move(document), begin, L"7z");
}

void liveCompoundFile(const CString& folder, const CString& original) {
    const CString begin = folder + L"\\compound-";
    const CString path = begin + L"document.cfb";
    expect(CopyFileW(original, path, FALSE) != FALSE, "the compound file cannot be copied");
    StorageRef document;
    check(document.open(SharedPathName(path, false, false), RootStorageOpenMode::ReadWrite, false),
          "open the document");
    expect(document.format() == StorageFormat::CompoundFile, "that is no compound file");
    live(std::move(document), begin, L"cfb");
}

} // namespace

// NOLINTNEXTLINE(misc-use-internal-linkage): the entry point is called from outside.
int wmain(int count, wchar_t** arguments) {
    if (count != 2 && count != 3) {
        std::printf("usage: document_life FOLDER [COMPOUND-FILE]\n");
        return 2;
    }
    try {
        livePackage(arguments[1]);
        if (count == 3)
            liveCompoundFile(arguments[1], arguments[2]);
    } catch (const std::exception& error) {
        std::printf("%s\n", error.what());
        return 1;
    }
    std::printf("done\n");
    return 0;
}
