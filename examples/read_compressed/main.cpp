// Reads a stream as documents of older versions hold it: compressed by gzip, or not. The reader finds out
// which, so that a caller has one way for both.
//
//   read_compressed.exe DOCUMENT STREAM
//
// STREAM stands in the root of the document. Its first line is printed, and how many bytes there are.
#include <vexel/compressed_stream.h>
#include <vexel/framework.h>
#include <vexel/storage.h>

#include <windows.h>

#include <array>
#include <cstdio>
#include <string>

namespace {

// Nobody knows the length of the contents before they have been inflated, so they are read to their end.
std::string readAll(COleStreamCompressFile& file) {
    // Without this a read that finds fewer bytes than it asks for throws.
    file.SetIgnoreEndOfFile(true);
    std::string contents;
    std::array<char, 4096> part{};
    while (const unsigned long long size = file.ReadBytes(part.data(), part.size()))
        contents.append(part.data(), static_cast<std::size_t>(size));
    return contents;
}

unsigned long long storedSize(const StorageRef& document, const SharedPathName& name) {
    StreamRef stream;
    return stream.open(name, document, true) == S_OK ? stream.size() : 0;
}

int read(const StorageRef& document, const SharedPathName& name) {
    COleStreamCompressFile file(true);
    CFileException reason;
    // The flag matters: the default opens a stream for writing, which empties it.
    if (!file.OpenStream(document, name, COleStreamCompressFile::OpenReadOnly, &reason)) {
        std::printf("cannot read the stream: cause %d, 0x%08lx\n", reason.m_cause,
                    static_cast<unsigned long>(reason.m_lOsError));
        return 1;
    }
    const std::string contents = readAll(file);
    file.Close();
    std::printf("%s\n", contents.substr(0, contents.find('\n')).c_str());
    std::printf("%llu bytes are stored for %llu\n", storedSize(document, name),
                static_cast<unsigned long long>(contents.size()));
    return 0;
}

} // namespace

// NOLINTNEXTLINE(misc-use-internal-linkage): the entry point is called from outside.
int wmain(int count, wchar_t** arguments) {
    if (count != 3) {
        std::printf("usage: read_compressed DOCUMENT STREAM\n");
        return 2;
    }
    StorageRef document;
    const long status =
        document.open(SharedPathName(arguments[1], false, false), RootStorageOpenMode::ReadOnly, false);
    if (status != S_OK) {
        std::printf("cannot open the document: 0x%08lx\n", static_cast<unsigned long>(status));
        return 1;
    }
    // Unlike a path, the name of an element is used as it is spelled: case counts.
    const SharedPathName name(arguments[2], true, true);
    try {
        return read(document, name);
    } catch (CFileException* error) {
        // The framework's exceptions are thrown by pointer. Whoever catches one deletes it.
        std::printf("the stream is damaged: cause %d\n", error->m_cause);
        error->Delete();
        return 1;
    }
}
