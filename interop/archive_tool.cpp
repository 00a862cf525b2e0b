// Works on packages as a client of the DLL does, for the checks against other programs:
//
//   archive_tool open DIR               what opening each file there gives, after reading their contents
//   archive_tool loop FILE              saves two states in turn until it is stopped, telling each time
//   archive_tool properties FILE        gives a document of either format three property sets

#include <vexel/archive.h>
#include <vexel/properties.h>

#include <windows.h>

#include <wrl/client.h>

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using Microsoft::WRL::ComPtr;
using Vexel::Storage::SZipArchive;

namespace {

void expect(HRESULT status, const std::string& what) {
    if (status != S_OK)
        throw std::runtime_error(what + std::to_string(status));
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

[[noreturn]] void loop(const fs::path& file) {
    SZipArchive archive(file.native(), false, true);
    expect(archive.reload(), "reload gives ");
    for (unsigned n = 0;; ++n) {
        for (unsigned i = 0; i < 20; ++i) {
            ComPtr<IStream> stream;
            const std::string bytes(std::size_t{2000} * (i + 1), n % 2 ? 'b' : 'a');
            expect(archive.createFile(&stream, (L"item" + std::to_wstring(i)).c_str(), false, true),
                   "createFile gives ");
            expect(stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr), "Write gives ");
        }
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
