// Works on packages as a client of the DLL does, for the checks against other programs:
//
//   archive_tool dump FILE              every item, a line of JSON each
//   archive_tool open FILE...           what opening each gives, and reads their contents
//   archive_tool play DIR               the calls of DIR/script, a line of JSON each, which have to succeed
//   and to
//                                       find what the line says; contents are parts of DIR/data
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
#include <iterator>
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

std::wstring wide(const std::string& text) {
    std::wstring units(text.size(), L'\0');
    const int size = static_cast<int>(text.size());
    units.resize(
        static_cast<std::size_t>(MultiByteToWideChar(CP_UTF8, 0, text.data(), size, units.data(), size)));
    return units;
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
                            {"size", item.size()},
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

/// Contents that cannot be had do no harm either.
void open(const std::wstring& file) {
    SZipArchive archive(file, true, true);
    std::cout << static_cast<unsigned>(archive.reload()) << '\n';
    for (const auto& [path, item] : archive.items()) {
        ComPtr<IStream> stream;
        if (!item.isDirectory())
            archive.extractFile(&stream, path);
        stream.Reset();
        archive.flush(path);
    }
}

/// Whether it is a directory, the size and the CRC of each item, by path.
nlohmann::json itemsOf(SZipArchive& archive) {
    nlohmann::json items = nlohmann::json::object();
    for (const auto& [path, item] : archive.items()) {
        ComPtr<IStream> stream;
        const std::string name = utf8(StringLess::view(path));
        if (!item.isDirectory())
            expect(archive.extractFile(&stream, path), S_OK, "extractFile " + name);
        const std::string bytes = stream ? bytesOf(stream.Get()) : std::string();
        items[name] = {item.isDirectory(), bytes.size(), crcOf(bytes)};
    }
    return items;
}

SZipArchive opened(const std::filesystem::path& file) {
    SZipArchive archive(file.native(), false, true);
    expect(archive.reload(), S_OK, "reload");
    return archive;
}

HRESULT carryOut(SZipArchive& archive, const nlohmann::json& call, IStream** stream) {
    const std::string name = call["call"];
    const std::wstring path = wide(call["path"]);
    if (name == "createFile")
        return archive.createFile(stream, path.c_str(), false, call["replace"]);
    if (name == "createDirectory")
        return archive.createDirectory(path.c_str(), false, call["clear"]);
    if (name == "extractFile")
        return archive.extractFile(stream, path);
    if (name == "remove")
        return archive.remove(path);
    if (name == "move")
        return archive.move(path, wide(call["to"]));
    if (name == "clear")
        return archive.clear(path);
    if (name == "flush")
        return archive.flush(path);
    if (name == "reload")
        return archive.isChanged() ? S_OK : archive.reload();
    return archive.save(call["flag"]);
}

/// Looks at what was saved, and leaves it under the name that the call has as its path.
void checkSaved(SZipArchive& archive, const nlohmann::json& call, const std::filesystem::path& folder) {
    const std::filesystem::path file = folder / L"played.7z", named = folder / wide(call["path"]);
    check(itemsOf(archive) == call["items"], "other items: " + call.dump());
    if (std::filesystem::exists(file))
        std::filesystem::copy_file(file, named);
    SZipArchive again = opened(named);
    check(itemsOf(again) == call["items"], "other items in the file: " + call.dump());
    if (call["reopen"])
        archive = opened(file);
}

void play(const std::filesystem::path& folder) {
    std::ifstream script(folder / L"script"), source(folder / L"data", std::ios::binary);
    const std::string data(std::istreambuf_iterator<char>(source), {});
    SZipArchive archive = opened(folder / L"played.7z");
    for (std::string line; std::getline(script, line);) {
        const auto call = nlohmann::json::parse(line);
        ComPtr<IStream> stream;
        expect(carryOut(archive, call, &stream), S_OK, line);
        if (stream)
            check(crcOf(bytesOf(stream.Get())) == call["crc"], "other contents: " + line);
        if (call.contains("at")) {
            const std::string_view added = std::string_view(data).substr(call["at"], call["size"]);
            expect(stream->Write(added.data(), static_cast<ULONG>(added.size()), nullptr), S_OK, "Write");
        } else if (call.contains("size")) {
            expect(stream->SetSize({.QuadPart = call["size"].get<ULONGLONG>()}), S_OK, "SetSize");
        } else if (call.contains("items")) {
            checkSaved(archive, call, folder);
        }
    }
}

[[noreturn]] void loop(const std::wstring& file) {
    SZipArchive archive = opened(file);
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
    else if (arguments.size() == 3 && arguments[1] == L"play")
        play(arguments[2]);
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
