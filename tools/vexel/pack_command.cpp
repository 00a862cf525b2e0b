#include "command.h"
#include "console.h"
#include "conversion.h"
#include "failure.h"
#include "file_names.h"
#include "file_paths.h"
#include "progress.h"
#include "source.h"
#include "stopping.h"
#include "text.h"

#include <vexel/archive.h>

#include <wrl/client.h>

#include <memory>
#include <vector>

namespace Vexel::Tool {
namespace {

using Vexel::Storage::SZipArchive;

struct Arguments {
    std::string directory; // or a document
    std::string file;
    bool force = false;
    bool fromDocument = false;
};

struct Entry {
    std::wstring file;  // absolute, without a length limit
    std::wstring label; // as it is shown to the user
    CString item;
    bool isDirectory = false;
    unsigned long long size = 0;
    FILETIME created{};
    FILETIME modified{};
};

Entry entryOf(const Entry& directory, const WIN32_FIND_DATAW& found) {
    Entry entry;
    const std::wstring name = found.cFileName;
    entry.file = directory.file + L"\\" + name;
    entry.label = directory.label + L"\\" + name;
    const std::wstring node = nodeNameOf(name);
    // The library lists such a node under the part of its name before the slash, and nobody finds it.
    if (node.find(L'/') != std::wstring::npos)
        throw Failure(L"the node's name would have a slash:", entry.label, STG_E_INVALIDNAME);
    const CString element = SZipArchive::encodePathElement(node);
    entry.item = directory.item.IsEmpty() ? element : directory.item + L"/" + element;
    entry.isDirectory = (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    entry.size = (static_cast<unsigned long long>(found.nFileSizeHigh) << 32) | found.nFileSizeLow;
    entry.created = found.ftCreationTime;
    entry.modified = found.ftLastWriteTime;
    // It may lead back to where it stands.
    if (entry.isDirectory && (found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
        throw Failure(L"this is a link to a directory:", entry.label, STG_E_INVALIDFUNCTION);
    return entry;
}

void appendChildren(std::vector<Entry>& entries, const Entry& directory) {
    WIN32_FIND_DATAW found;
    const DWORD attributes = GetFileAttributesW(directory.file.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
        throw Failure(L"cannot list", directory.label, HRESULT_FROM_WIN32(ERROR_DIRECTORY),
                      L"it is a file, and a directory is needed");
    const std::wstring pattern = directory.file + L"\\*";
    const HANDLE first = FindFirstFileW(pattern.c_str(), &found);
    if (first == INVALID_HANDLE_VALUE)
        throw Failure(L"cannot list", directory.label, lastErrorStatus());
    const Detail::SearchHandle search(first);
    do {
        checkStop();
        const std::wstring_view name = found.cFileName;
        if (name != L"." && name != L"..")
            entries.push_back(entryOf(directory, found));
    } while (FindNextFileW(search.get(), &found));
    if (GetLastError() != ERROR_NO_MORE_FILES)
        throw Failure(L"cannot list all of", directory.label, lastErrorStatus());
}

// All that is in a directory, each before its contents.
std::vector<Entry> entriesOf(const std::wstring& directory) {
    std::vector<Entry> entries;
    Entry root;
    root.file = withoutLengthLimit(directory);
    if (root.file.ends_with(L'\\'))
        root.file.pop_back();
    root.label = directory;
    appendChildren(entries, root);
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (entries[i].isDirectory)
            appendChildren(entries, Entry(entries[i]));
    }
    return entries;
}

unsigned long long totalSize(const std::vector<Entry>& entries) {
    unsigned long long size = 0;
    for (const Entry& entry : entries)
        size += entry.size;
    return size;
}

class Packing {
public:
    Packing(const std::wstring& path, std::wstring label, unsigned long long total)
        : archive_(path, false, true), label_(std::move(label)) {
        progress().begin(L"packing", total);
        // Without any change nothing would be saved, not even an archive without items.
        check(archive_.createDirectory(L"-", true, false), L"cannot create", label_);
        check(archive_.clear(std::wstring_view()), L"cannot create", label_);
    }

    void add(const Entry& entry) {
        checkStop();
        if (entry.isDirectory)
            check(archive_.createDirectory(entry.item, true, false), L"cannot add", entry.label);
        else
            addFile(entry);
        Vexel::Storage::SZipArchiveItem* const item = archive_.item(entry.item);
        item->setCreationTime(entry.created);
        item->setModificationTime(entry.modified);
        if (unsaved_ >= kLargestInMemory)
            save();
    }

    void save() {
        checkStop();
        const Progress::Interlude compressing(progress(), L"compressing");
        check(archive_.save(true), L"cannot write", label_);
        unsaved_ = 0;
    }

private:
    void addFile(const Entry& entry) {
        Source source(entry.file);
        Microsoft::WRL::ComPtr<IStream> stream;
        if (unsaved_ > 0 && unsaved_ + entry.size > kLargestInMemory)
            save(); // so that a large file is alone in memory
        check(archive_.createFile(&stream, entry.item, true, false), L"cannot add", entry.label);
        unsaved_ += fill(*stream.Get(), source, entry.label);
    }

    SZipArchive archive_;
    std::wstring label_;
    unsigned long long unsaved_ = 0;
};

void run(const Arguments& arguments) {
    const std::wstring file = toUtf16(arguments.file);
    if (arguments.fromDocument) {
        convertDocument(toUtf16(arguments.directory), file, arguments.force);
        return;
    }
    const std::wstring path = withoutLengthLimit(file);
    checkFree(path, file, arguments.force);
    const std::vector<Entry> entries = entriesOf(toUtf16(arguments.directory));
    PartialFile partial(path.substr(0, path.rfind(L'\\') + 1), file);
    partial.close();
    {
        Packing packing(partial.path(), file, totalSize(entries));
        for (const Entry& entry : entries)
            packing.add(entry);
        packing.save();
    }
    partial.finish(path, arguments.force);
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.required("DIR", arguments->directory, "The directory with what is to be in it", Takes::Directory);
    command.required("FILE", arguments->file, "The package to make");
    command.flag("--force", arguments->force, "Replace a file that is there");
    command.flag("--from", arguments->fromDocument, "DIR is a document; as convert");
    command.examples("vexel pack out hall.7z", "vexel pack --from hall.cfb hall.7z");
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration
    kRegistration("pack", "Make a package from a directory; names are decoded as extract encodes them", add);

} // namespace
} // namespace Vexel::Tool
