// Works on packages as a client of the DLL does, for the checks against other programs:
//
//   archive_tool open DIR               what opening each file there gives, after reading their contents
//   archive_tool walk DIR SEED SAVES    random calls, which have to do what a model of them does; what each
//   save
//                                       leaves is NUMBER.7z, and NUMBER.txt has a size and a path for each
//                                       item
//   archive_tool loop FILE              saves two states in turn until it is stopped, telling each time
//   archive_tool properties FILE        gives a document of either format three property sets

#include <vexel/archive.h>
#include <vexel/properties.h>

#include <windows.h>

#include <wrl/client.h>

#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using Microsoft::WRL::ComPtr;
using Vexel::Storage::SZipArchive;

namespace {

void check(bool condition, const std::string& what) {
    if (!condition)
        throw std::runtime_error(what);
}

void expect(HRESULT status, const std::string& what) { check(status == S_OK, what + std::to_string(status)); }

std::string bytesOf(IStream* stream) {
    STATSTG entry{};
    expect(stream->Stat(&entry, STATFLAG_NONAME), "Stat gives ");
    std::string bytes(entry.cbSize.QuadPart, '\0');
    ULONG count = 0;
    expect(stream->Seek({}, STREAM_SEEK_SET, nullptr), "Seek gives ");
    expect(stream->Read(bytes.data(), static_cast<ULONG>(bytes.size()), &count), "Read gives ");
    check(count == bytes.size(), "Read is short");
    return bytes;
}

void append(SZipArchive& archive, const std::wstring& path, bool replaces, const std::string& before,
            const std::string& added) {
    ComPtr<IStream> stream;
    expect(archive.createFile(&stream, path.c_str(), false, replaces), "createFile gives ");
    check(bytesOf(stream.Get()) == before, "createFile gives other contents");
    expect(stream->Write(added.data(), static_cast<ULONG>(added.size()), nullptr), "Write gives ");
}

SZipArchive opened(const fs::path& file) {
    SZipArchive archive(file.native(), false, true);
    expect(archive.reload(), "reload gives ");
    return archive;
}

/// Contents that cannot be had do no harm either.
void open(const fs::path& folder) {
    for (const fs::directory_entry& file : fs::directory_iterator(folder)) {
        SZipArchive archive(file.path().native(), true, true);
        std::cout << file.path().filename().string() << ' ' << archive.reload() << '\n';
        for (const auto& [path, item] : archive.items()) {
            ComPtr<IStream> stream;
            if (!item.isDirectory())
                archive.extractFile(&stream, path);
            stream.Reset();
            archive.flush(path);
        }
    }
}

/// Random calls on a package, and a model of what they are to leave.
class Walk {
public:
    Walk(const fs::path& folder, unsigned seed)
        : folder_(folder), file_(folder / L"walked.7z"), archive_(opened(file_)), random_(seed) {}

    void run(int saves) {
        static constexpr void (Walk::*kCalls[])() = {&Walk::write,  &Walk::makeDirectory, &Walk::rewrite,
                                                     &Walk::remove, &Walk::move,          &Walk::clear,
                                                     &Walk::flush,  &Walk::reload,        &Walk::save};
        std::discrete_distribution<std::size_t> next{30, 15, 20, 8, 10, 1, 4, 2, 4};
        while (saved_ < saves)
            (this->*kCalls[next(random_)])();
    }

private:
    /// Contents by path, none for a directory.
    using Items = std::map<std::wstring, std::optional<std::string>>;

    std::size_t below(std::size_t limit) { return random_() % limit; }
    bool chance(unsigned outOf) { return below(outOf) == 0; }
    std::string bytes() {
        static constexpr std::size_t kSizes[] = {1, 2, 101, 3001, 70'001};
        std::string bytes(below(chance(60) ? 1'200'001 : kSizes[below(std::size(kSizes))]), '\0');
        const std::size_t alphabet = chance(2) ? 256 : 4;
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(below(alphabet)); });
        return bytes;
    }
    /// The path of a directory or of a file. Empty for the root, and when there is no file.
    std::wstring any(bool directory) {
        std::vector<std::wstring> found(directory ? 1 : 0);
        for (const auto& [path, contents] : items_)
            if (!contents == directory)
                found.push_back(path);
        return found.empty() ? std::wstring() : found[below(found.size())];
    }
    std::wstring anyNew() {
        static constexpr const wchar_t* kNames[] = {L"a",      L"A",  L"a-b", L"%05x", L"\u0416\U0001F600",
                                                    L".clsid", L"x y"};
        const std::wstring parent = any(true);
        const std::wstring name = kNames[below(std::size(kNames))];
        return (parent.empty() ? parent : parent + L'/') +
               (chance(3) ? name + std::to_wstring(below(30)) : name);
    }
    static bool isBelow(const std::wstring& directory, const std::wstring& path) {
        return directory.empty() || path.starts_with(directory + L'/');
    }
    void eraseBelow(const std::wstring& directory) {
        std::erase_if(items_, [&](const auto& item) { return isBelow(directory, item.first); });
    }

    void write() {
        const std::wstring path = anyNew();
        std::optional<std::string>& contents = items_.try_emplace(path, "").first->second;
        if (!contents)
            return;
        const bool replaces = chance(2);
        const std::string before = replaces ? std::string() : *contents, added = bytes();
        append(archive_, path, replaces, before, added);
        contents = before + added;
    }
    void makeDirectory() {
        const std::wstring path = anyNew();
        if (items_.try_emplace(path).first->second)
            return;
        const bool clears = chance(4);
        expect(archive_.createDirectory(path.c_str(), false, clears), "createDirectory gives ");
        if (clears)
            eraseBelow(path);
    }
    void rewrite() {
        const auto found = items_.find(any(false));
        if (found == items_.end())
            return;
        ComPtr<IStream> stream;
        expect(archive_.extractFile(&stream, found->first), "extractFile gives ");
        std::string contents = bytesOf(stream.Get());
        check(contents == found->second, "extractFile gives other contents");
        if (chance(2)) {
            contents.resize(below(contents.size() + 1));
            expect(stream->SetSize({.QuadPart = contents.size()}), "SetSize gives ");
            found->second = contents;
        }
    }
    void remove() {
        const std::wstring path = any(chance(3));
        if (path.empty())
            return;
        expect(archive_.remove(path), "remove gives ");
        eraseBelow(path);
        items_.erase(path);
    }
    void move() {
        const std::wstring from = any(chance(3)), to = anyNew();
        if (from.empty() || items_.contains(to) || isBelow(from, to))
            return;
        expect(archive_.move(from, to), "move gives ");
        Items moved;
        for (auto& [path, contents] : items_)
            moved[path == from || isBelow(from, path) ? to + path.substr(from.size()) : path] = contents;
        items_ = std::move(moved);
    }
    void clear() {
        const std::wstring directory = any(true);
        expect(archive_.clear(directory), "clear gives ");
        eraseBelow(directory);
    }
    void flush() { expect(archive_.flush(any(true)), "flush gives "); }
    void reload() {
        if (!archive_.isChanged())
            expect(archive_.reload(), "reload gives ");
    }
    void save() {
        expect(archive_.save(chance(2)), "save gives ");
        compare(archive_);
        const std::wstring name = std::to_wstring(saved_++);
        if (!fs::exists(file_))
            return; // there never was an item
        fs::copy_file(file_, folder_ / (name + L".7z"));
        SZipArchive again = opened(file_);
        compare(again);
        if (chance(3))
            archive_ = std::move(again);
        std::ofstream list(folder_ / (name + L".txt"));
        for (const auto& [path, contents] : items_)
            list << (contents ? std::to_string(contents->size()) : "-") << ' ' << fs::path(path).string()
                 << '\n';
    }
    void compare(SZipArchive& archive) {
        check(archive.items().size() == items_.size(), "another number of items");
        for (const auto& [path, contents] : items_) {
            ComPtr<IStream> stream;
            const auto* const item = archive.item(path);
            check(item && item->isDirectory() == !contents, "a missing item, or one of another kind");
            if (contents) {
                expect(archive.extractFile(&stream, path), "extractFile gives ");
                check(bytesOf(stream.Get()) == *contents, "other contents after a save");
            }
        }
    }

    fs::path folder_, file_;
    SZipArchive archive_;
    std::mt19937 random_;
    Items items_;
    int saved_ = 0;
};

[[noreturn]] void loop(const fs::path& file) {
    SZipArchive archive = opened(file);
    for (unsigned n = 0;; ++n) {
        for (unsigned i = 0; i < 20; ++i)
            append(archive, L"item" + std::to_wstring(i), true, "",
                   std::string(std::size_t{2000} * (i + 1), n % 2 ? 'b' : 'a'));
        expect(archive.save(n % 3 == 0), "save gives ");
        std::cout << n << '\n' << std::flush;
    }
}

void writeProperties(const std::wstring& file) {
    using Vexel::PropertyVariant;
    BYTE image[]{1, 2, 3, 4, 5};
    CLIPDATA clip{4 + sizeof image, CF_DIB, image};
    PROPVARIANT thumbnail{};
    thumbnail.vt = VT_CF;
    thumbnail.pclipdata = &clip;
    Vexel::Properties summary;
    summary[PIDSI_TITLE] = PropertyVariant(L"\u0427\u0435\u0440\u0442\u0451\u0436 \U0001F4D0");
    summary[PIDSI_AUTHOR] = PropertyVariant(L"");
    summary[PIDSI_LASTSAVE_DTM] = PropertyVariant(FILETIME{0x9E2E8000, 0x01DA3C4D});
    summary[PIDSI_PAGECOUNT] = PropertyVariant(-7);
    summary[PIDSI_THUMBNAIL] = PropertyVariant(thumbnail);
    Vexel::Properties documentSummary;
    documentSummary[PIDDSI_SCALE] = PropertyVariant(true);
    Vexel::Properties user;
    user[PID_FIRST_USABLE] = PropertyVariant(2.5);
    StorageRef document;
    expect(document.open({file, false, false}, RootStorageOpenMode::ReadWrite, false), "open gives ");
    expect(WriteProperties(document, FMTID_SummaryInformation, summary), "summary gives ");
    expect(WriteProperties(document, FMTID_UserDefinedProperties, user), "user gives ");
    expect(WriteProperties(document, FMTID_DocSummaryInformation, documentSummary), "document gives ");
    expect(document.commit(), "commit gives ");
}

int run(const std::vector<std::wstring>& arguments) {
    if (arguments.size() == 3 && arguments[1] == L"open")
        open(arguments[2]);
    else if (arguments.size() == 5 && arguments[1] == L"walk")
        Walk(arguments[2], static_cast<unsigned>(std::stoul(arguments[3]))).run(std::stoi(arguments[4]));
    else if (arguments.size() == 3 && arguments[1] == L"loop")
        loop(arguments[2]);
    else if (arguments.size() == 3 && arguments[1] == L"properties")
        writeProperties(arguments[2]);
    else
        return 2;
    return 0;
}

} // namespace

// NOLINTNEXTLINE(misc-use-internal-linkage): the runtime calls it
int wmain(int count, wchar_t** arguments) {
    _setmode(_fileno(stdout), _O_BINARY);
    try {
        return run({arguments, arguments + count});
    } catch (const std::exception& failure) {
        std::cerr << "archive_tool: " << failure.what() << '\n';
        return 1;
    }
}
