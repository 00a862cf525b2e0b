// Works on packages as a client of the DLL does, for the checks against other programs:
//
//   archive_tool dump FILE              every item, a line of JSON each
//   archive_tool open FILE...           what opening each gives, and how many contents cannot be had
//   archive_tool walk DIR SEED SAVES    a random walk, held against a plain map; after each save a package
//                                       and its list of items are put in DIR
//   archive_tool loop FILE              saves two states in turn until it is stopped, telling each time
//   archive_tool properties FILE        gives a document of either format three property sets

#include <vexel/archive.h>
#include <vexel/diagnostics.h>
#include <vexel/properties.h>

#include <windows.h>

#include <wrl/client.h>

#include <fcntl.h>
#include <io.h>
#include <nlohmann/json.hpp>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

using Microsoft::WRL::ComPtr;
using Vexel::Storage::StringLess;
using Vexel::Storage::SZipArchive;

namespace {

std::string utf8(std::wstring_view text) {
    const int size = static_cast<int>(text.size());
    std::string bytes(text.size() * 3, '\0');
    bytes.resize(static_cast<std::size_t>(WideCharToMultiByte(
        CP_UTF8, 0, text.data(), size, bytes.data(), static_cast<int>(bytes.size()), nullptr, nullptr)));
    return bytes;
}

void check(bool condition, const std::string& what) {
    if (!condition)
        throw std::runtime_error(what);
}

void expect(HRESULT status, HRESULT expected, const std::string& what) {
    if (status != expected) {
        char text[40];
        std::snprintf(text, sizeof text, ": 0x%08lx, not 0x%08lx", static_cast<unsigned long>(status),
                      static_cast<unsigned long>(expected));
        throw std::runtime_error(what + text);
    }
}

std::string bytesOf(IStream* stream) {
    STATSTG entry{};
    expect(stream->Stat(&entry, STATFLAG_NONAME), S_OK, "Stat");
    std::string bytes(entry.cbSize.QuadPart, '\0');
    ULONG count = 0;
    expect(stream->Seek({}, STREAM_SEEK_SET, nullptr), S_OK, "Seek");
    expect(stream->Read(bytes.data(), static_cast<ULONG>(bytes.size()), &count), S_OK, "Read");
    check(count == bytes.size(), "Read is short");
    return bytes;
}

unsigned long crcOf(std::string_view bytes) {
    return crc32_z(0, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size());
}

unsigned long long number(const FILETIME& time) {
    return static_cast<unsigned long long>(time.dwHighDateTime) << 32 | time.dwLowDateTime;
}

void dump(const std::wstring& file) {
    SZipArchive archive(file, true, true);
    nlohmann::json opened{{"opened", static_cast<unsigned>(archive.reload())}};
    std::cout << opened.dump() << '\n';
    for (const auto& [path, item] : archive.items()) {
        nlohmann::json line{{"path", utf8(StringLess::view(path))},
                            {"directory", item.isDirectory()},
                            {"anti", item.isAnti()},
                            {"size", item.size()},
                            {"crc", item.crc()},
                            {"created", number(item.creationFileTime())},
                            {"modified", number(item.modificationFileTime())}};
        if (!item.isDirectory()) {
            ComPtr<IStream> stream;
            line["read"] = static_cast<unsigned>(archive.extractFile(&stream, path));
            line["real"] = stream ? crcOf(bytesOf(stream.Get())) : 0;
            stream.Reset();
            archive.flush(path);
        }
        std::cout << line.dump() << '\n';
    }
}

void open(const std::wstring& file) {
    SZipArchive archive(file, true, true);
    const HRESULT status = archive.reload();
    unsigned refused = 0;
    for (const auto& [path, item] : archive.items()) {
        ComPtr<IStream> stream;
        if (!item.isDirectory())
            archive.extractFile(&stream, path);
        refused += !item.isDirectory() && !stream;
        stream.Reset();
        archive.flush(path);
    }
    std::cout << static_cast<unsigned>(status) << ' ' << refused << '\n';
}

/// A package beside a plain map that gets the same changes.
class Walk {
public:
    Walk(std::filesystem::path folder, unsigned seed)
        : folder_(std::move(folder)), file_(folder_ / L"walk.7z"), random_(seed), archive_(open()) {}

    void run(unsigned saves) {
        while (saves_ < saves)
            step();
    }

private:
    using Step = void (Walk::*)();

    SZipArchive open() const {
        SZipArchive archive(file_.native(), false, true);
        expect(archive.reload(), S_OK, "reload");
        return archive;
    }
    unsigned below(unsigned n) { return static_cast<unsigned>(random_() % n); }

    std::string bytes() {
        static constexpr unsigned sizes[] = {0, 1, 100, 3000, 70'000, 1'200'000};
        const unsigned kind = below(60);
        std::string bytes(below(sizes[kind == 0 ? 5 : kind % 5] + 1), '\0');
        const unsigned alphabet = below(2) ? 256 : 4;
        for (char& byte : bytes)
            byte = static_cast<char>(below(alphabet));
        return bytes;
    }

    /// A name at random, below a directory that there is.
    std::wstring newPath() {
        static constexpr const wchar_t* names[] = {L"a",      L"A",  L"a-b", L"%05x", L"\x416\xd83d\xde00",
                                                   L".clsid", L"x y"};
        const std::wstring element = names[below(7)] + (below(3) ? L"" : std::to_wstring(below(30)));
        const std::wstring parent = anyPath(true);
        return parent.empty() ? element : parent + L'/' + element;
    }
    /// Empty when there is none.
    std::wstring anyPath(bool directory) {
        std::vector<std::wstring> found(directory ? 1 : 0);
        for (const auto& [path, item] : model_)
            if (item.isDirectory == directory)
                found.push_back(path);
        return found.empty() ? L"" : found[below(static_cast<unsigned>(found.size()))];
    }
    static bool isBelow(const std::wstring& directory, const std::wstring& path) {
        return directory.empty() || path.starts_with(directory + L'/');
    }
    bool exists(const std::wstring& path) const { return model_.contains(path); }

    void write() {
        const std::wstring path = newPath();
        const bool fail = below(4) == 0;
        const bool replace = below(2) == 0;
        ComPtr<IStream> stream;
        const HRESULT status = archive_.createFile(&stream, path.c_str(), fail, replace);
        if (exists(path) && (fail || model_[path].isDirectory)) {
            expect(status, STG_E_FILEALREADYEXISTS, "createFile " + utf8(path));
            return;
        }
        expect(status, S_OK, "createFile " + utf8(path));
        Item& item = model_[path];
        if (replace)
            item.bytes.clear();
        check(bytesOf(stream.Get()) == item.bytes, "other contents: " + utf8(path));
        const std::string added = bytes();
        expect(stream->Write(added.data(), static_cast<ULONG>(added.size()), nullptr), S_OK, "Write");
        item.bytes += added;
    }
    void makeDirectory() {
        const std::wstring path = newPath();
        const bool clear = below(4) == 0;
        const HRESULT status = archive_.createDirectory(path.c_str(), false, clear);
        if (exists(path) && !model_[path].isDirectory) {
            expect(status, STG_E_INVALIDFUNCTION, "createDirectory " + utf8(path));
            return;
        }
        expect(status, S_OK, "createDirectory " + utf8(path));
        model_[path].isDirectory = true;
        if (clear)
            eraseBelow(path);
    }
    void rewrite() {
        const std::wstring path = anyPath(false);
        if (path.empty())
            return;
        ComPtr<IStream> stream;
        expect(archive_.extractFile(&stream, path), S_OK, "extractFile " + utf8(path));
        Item& item = model_[path];
        check(bytesOf(stream.Get()) == item.bytes, "other contents: " + utf8(path));
        if (below(2))
            return;
        ULARGE_INTEGER size;
        size.QuadPart = below(static_cast<unsigned>(item.bytes.size()) + 1);
        expect(stream->SetSize(size), S_OK, "SetSize");
        item.bytes.resize(size.QuadPart);
    }
    void remove() {
        const std::wstring path = anyPath(below(3) == 0);
        if (path.empty())
            return;
        expect(archive_.remove(path), S_OK, "remove " + utf8(path));
        eraseBelow(path);
        model_.erase(path);
    }
    void move() {
        const std::wstring from = anyPath(below(3) == 0);
        const std::wstring to = newPath();
        if (from.empty())
            return;
        const HRESULT status = archive_.move(from, to);
        if (exists(to) || isBelow(from, to)) {
            expect(status, exists(to) ? STG_E_FILEALREADYEXISTS : STG_E_ACCESSDENIED, "move " + utf8(from));
            return;
        }
        expect(status, S_OK, "move " + utf8(from));
        Model moved;
        for (auto& [path, item] : model_)
            moved[path == from || isBelow(from, path) ? to + path.substr(from.size()) : path] =
                std::move(item);
        model_ = std::move(moved);
    }
    void clear() {
        const std::wstring path = anyPath(true);
        if (path.empty() && below(20))
            return;
        expect(archive_.clear(path), S_OK, "clear " + utf8(path));
        eraseBelow(path);
    }
    void flush() { expect(archive_.flush(anyPath(true)), S_OK, "flush"); }
    void reload() {
        if (!archive_.isChanged())
            expect(archive_.reload(), S_OK, "reload");
    }
    void copyToAnother() {
        SZipArchive copy((folder_ / L"copy.7z").native(), false, true);
        if (below(2))
            expect(copy.borrowPackedData(archive_), S_OK, "borrowPackedData");
        expect(copy.addItems(archive_, L""), S_OK, "addItems");
        std::filesystem::remove(folder_ / L"copy.7z");
        expect(copy.save(true), S_OK, "save of a copy");
        verify(copy);
    }
    void save() {
        expect(archive_.save(below(2) == 0), S_OK, "save");
        verify(archive_);
        if (below(3) == 0)
            archive_ = open();
        SZipArchive again = open();
        verify(again);
        if (!std::filesystem::exists(file_))
            return;
        const std::wstring name = std::to_wstring(saves_++);
        std::filesystem::copy_file(file_, folder_ / (name + L".7z"));
        nlohmann::json list = nlohmann::json::object();
        for (const auto& [path, item] : model_)
            list[utf8(path)] = {item.isDirectory, item.bytes.size(), crcOf(item.bytes)};
        std::ofstream(folder_ / (name + L".json")) << list.dump();
    }

    void step() {
        static constexpr std::pair<unsigned, Step> steps[] = {
            {30, &Walk::write}, {15, &Walk::makeDirectory}, {20, &Walk::rewrite},
            {8, &Walk::remove}, {10, &Walk::move},          {1, &Walk::clear},
            {4, &Walk::flush},  {2, &Walk::reload},         {1, &Walk::copyToAnother},
            {4, &Walk::save}};
        unsigned draw = below(95);
        for (const auto& [weight, step] : steps) {
            if (draw < weight) {
                (this->*step)();
                return;
            }
            draw -= weight;
        }
    }

    void verify(SZipArchive& archive) {
        check(archive.items().size() == model_.size(), "other number of items");
        for (const auto& [path, item] : archive.items()) {
            const auto found = model_.find(path.GetString());
            check(found != model_.end() && found->second.isDirectory == item.isDirectory(),
                  "unexpected item: " + utf8(StringLess::view(path)));
            if (item.isDirectory())
                continue;
            ComPtr<IStream> stream;
            expect(archive.extractFile(&stream, path), S_OK, "extractFile " + utf8(StringLess::view(path)));
            check(bytesOf(stream.Get()) == found->second.bytes,
                  "other contents: " + utf8(StringLess::view(path)));
        }
    }
    void eraseBelow(const std::wstring& directory) {
        std::erase_if(model_, [&](const auto& entry) { return isBelow(directory, entry.first); });
    }

    struct Item {
        bool isDirectory = false;
        std::string bytes;
    };
    using Model = std::map<std::wstring, Item>;

    std::filesystem::path folder_;
    std::filesystem::path file_;
    std::mt19937 random_;
    SZipArchive archive_;
    Model model_;
    unsigned saves_ = 0;
};

[[noreturn]] void loop(const std::wstring& file) {
    SZipArchive archive(file, false, true);
    expect(archive.reload(), S_OK, "reload");
    for (unsigned n = 0;; ++n) {
        for (unsigned i = 0; i < 20; ++i) {
            ComPtr<IStream> stream;
            const std::wstring path = L"item" + std::to_wstring(i);
            const std::string bytes(std::size_t{2000} * (i + 1), n % 2 ? 'b' : 'a');
            expect(archive.createFile(&stream, path.c_str(), false, true), S_OK, "createFile");
            expect(stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr), S_OK, "Write");
        }
        expect(archive.save(n % 3 == 0), S_OK, "save");
        std::printf("%u\n", n);
        std::fflush(stdout);
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
    expect(document.open({file, false, false}, RootStorageOpenMode::ReadWrite, false), S_OK, "open");
    expect(WriteProperties(document, FMTID_SummaryInformation, summary), S_OK, "summary");
    expect(WriteProperties(document, FMTID_UserDefinedProperties, user), S_OK, "user");
    expect(WriteProperties(document, FMTID_DocSummaryInformation, documentSummary), S_OK, "document");
    expect(document.commit(), S_OK, "commit");
}

int run(const std::vector<std::wstring>& arguments) {
    if (arguments.size() == 3 && arguments[1] == L"dump")
        dump(arguments[2]);
    else if (arguments.size() >= 3 && arguments[1] == L"open")
        std::for_each(arguments.begin() + 2, arguments.end(), open);
    else if (arguments.size() == 3 && arguments[1] == L"loop")
        loop(arguments[2]);
    else if (arguments.size() == 3 && arguments[1] == L"properties")
        writeProperties(arguments[2]);
    else if (arguments.size() == 5 && arguments[1] == L"walk")
        Walk(arguments[2], static_cast<unsigned>(std::stoul(arguments[3])))
            .run(static_cast<unsigned>(std::stoul(arguments[4])));
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
