#include "support/compound_file.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <iterator>

using Microsoft::WRL::ComPtr;

namespace Support {
namespace {

void require(HRESULT status, const char* call) {
    if (SUCCEEDED(status))
        return;
    ADD_FAILURE() << call << " failed with 0x" << std::hex << static_cast<unsigned long>(status);
    std::abort();
}

constexpr DWORD kChild = STGM_TRANSACTED | STGM_SHARE_EXCLUSIVE;

void writeElement(IStorage* storage, std::wstring_view path, const std::string& contents) {
    const size_t slash = path.find(L'/');
    const std::wstring name(path.substr(0, slash));
    if (slash == std::wstring_view::npos) {
        ComPtr<::IStream> stream;
        require(storage->CreateStream(name.c_str(), STGM_CREATE | STGM_SHARE_EXCLUSIVE | STGM_READWRITE, 0, 0,
                                      &stream),
                "CreateStream");
        require(stream->Write(contents.data(), static_cast<ULONG>(contents.size()), nullptr), "Write");
        return;
    }
    ComPtr<IStorage> inner;
    if (FAILED(storage->OpenStorage(name.c_str(), nullptr, kChild | STGM_READWRITE, nullptr, 0, &inner)))
        require(storage->CreateStorage(name.c_str(), kChild | STGM_READWRITE, 0, 0, &inner), "CreateStorage");
    if (slash + 1 < path.size())
        writeElement(inner.Get(), path.substr(slash + 1), contents);
    require(inner->Commit(STGC_DEFAULT), "Commit");
}

std::string readAll(::IStream* stream, ULONGLONG size) {
    std::string contents(static_cast<size_t>(size), '\0');
    ULONG done = 0;
    require(stream->Read(contents.data(), static_cast<ULONG>(size), &done), "Read");
    contents.resize(done);
    return contents;
}

void collect(IStorage* storage, const std::wstring& prefix, std::vector<Element>& elements) {
    ComPtr<IEnumSTATSTG> children;
    require(storage->EnumElements(0, nullptr, 0, &children), "EnumElements");
    STATSTG entry{};
    while (children->Next(1, &entry, nullptr) == S_OK) {
        const std::wstring name(entry.pwcsName);
        CoTaskMemFree(entry.pwcsName);
        if (entry.type == STGTY_STREAM) {
            ComPtr<::IStream> stream;
            require(storage->OpenStream(name.c_str(), nullptr, STGM_SHARE_EXCLUSIVE | STGM_READ, 0, &stream),
                    "OpenStream");
            elements.push_back({prefix + name, readAll(stream.Get(), entry.cbSize.QuadPart)});
            continue;
        }
        ComPtr<IStorage> inner;
        require(storage->OpenStorage(name.c_str(), nullptr, kChild | STGM_READ, nullptr, 0, &inner),
                "OpenStorage");
        elements.push_back({prefix + name + L"/", {}});
        collect(inner.Get(), prefix + name + L"/", elements);
    }
}

} // namespace

void PrintTo(const Element& element, std::ostream* out) {
    const std::wstring path = element.path.substr(0, 60);
    *out << std::string(path.begin(), path.end()) << "=" << element.contents.substr(0, 20);
}

std::wstring samplePath(std::wstring_view name) {
    std::filesystem::path path(L"Z:" + std::filesystem::path(VEXEL_TEST_DATA_DIR).wstring());
    return (path / name).make_preferred().wstring();
}

TempFolder::TempFolder() {
    static std::atomic<unsigned> count{0};
    do // A process of the same number that was killed may have left its own.
        path_ = std::filesystem::temp_directory_path() /
                (L"vexel-test-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(count++));
    while (!std::filesystem::create_directories(path_));
}

TempFolder::~TempFolder() {
    std::error_code ignored;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(path_, ignored))
        SetFileAttributesW(entry.path().c_str(), FILE_ATTRIBUTE_NORMAL);
    std::filesystem::remove_all(path_, ignored);
}

std::wstring TempFolder::file(std::wstring_view name) const { return (path_ / name).wstring(); }

void writeElements(IStorage* root, const std::vector<Element>& elements) {
    for (const Element& element : elements)
        writeElement(root, element.path, element.contents);
    require(root->Commit(STGC_DEFAULT), "Commit");
}

void writeCompoundFile(const std::wstring& file, const std::vector<Element>& elements, unsigned sectorSize) {
    STGOPTIONS options{};
    options.usVersion = 1;
    options.ulSectorSize = sectorSize;
    ComPtr<IStorage> root;
    require(StgCreateStorageEx(file.c_str(),
                               STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE | STGM_TRANSACTED,
                               STGFMT_DOCFILE, 0, &options, nullptr, IID_IStorage, &root),
            "StgCreateStorageEx");
    writeElements(root.Get(), elements);
}

std::vector<Element> readElements(IStorage* root) {
    std::vector<Element> elements;
    collect(root, L"", elements);
    return elements;
}

std::vector<Element> readCompoundFile(const std::wstring& file) {
    const auto root = openCompoundFile(file, STGM_TRANSACTED | STGM_SHARE_DENY_WRITE | STGM_READ);
    require(root ? S_OK : E_FAIL, "StgOpenStorageEx");
    return readElements(root.Get());
}

ComPtr<IStorage> openCompoundFile(const std::wstring& file, DWORD stgm) {
    ComPtr<IStorage> root;
    if (FAILED(
            StgOpenStorageEx(file.c_str(), stgm, STGFMT_DOCFILE, 0, nullptr, nullptr, IID_IStorage, &root)))
        return nullptr;
    return root;
}

void writeFile(const std::wstring& file, std::string_view contents) {
    std::ofstream stream(std::filesystem::path(file), std::ios::binary);
    stream.write(contents.data(), static_cast<std::streamsize>(contents.size())).flush();
    EXPECT_TRUE(stream.good()) << "writing a file";
}

std::string readFile(const std::wstring& file) {
    std::ifstream stream(std::filesystem::path(file), std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

} // namespace Support
