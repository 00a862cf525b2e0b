// The two formats side by side: one tree as a package, through the handles, and as a compound file, through
// the system's interfaces. There is no limit: the table shows what choosing packages costs and gains.

#include "support/archives.h"
#include "support/ratio.h"

#include <vexel/storage.h>

#include <windows.h>

#include <objbase.h>
#include <wrl/client.h>

#include <cstdio>
#include <filesystem>
#include <limits>
#include <random>
#include <string>
#include <vector>

using Microsoft::WRL::ComPtr;
using Vexel::Bench::check;

namespace {

constexpr unsigned kStorages = 60;
constexpr unsigned kStreams = 500;
constexpr DWORD kWhole = STGM_SHARE_EXCLUSIVE;
constexpr double kNoLimit = std::numeric_limits<double>::infinity();

const std::wstring kPackage = (std::filesystem::temp_directory_path() / L"vexel-bench-package").wstring();
const std::wstring kCompound = (std::filesystem::temp_directory_path() / L"vexel-bench-compound").wstring();

std::wstring storageOf(unsigned stream) { return L"Storage " + std::to_wstring(stream % kStorages); }
std::wstring nameOf(unsigned stream) { return L"Stream " + std::to_wstring(stream); }

/// 2 to 20 KB that pack to less than half.
const std::vector<unsigned char>& contentsOf(unsigned stream) {
    static const auto kAll = [] {
        std::mt19937 random(3);
        std::vector<std::vector<unsigned char>> made;
        for (unsigned i = 0; i < kStreams; ++i)
            made.push_back(Vexel::Bench::someBytes(2000 + random() % 18000, false, i));
        return made;
    }();
    return kAll[stream];
}

// The package.

StorageRef openPackage(RootStorageOpenMode mode) {
    StorageRef root;
    check(root.open(SharedPathName(kPackage.c_str(), false, false), mode, false) == S_OK);
    return root;
}

void cleanUp() { StorageContainer::Instance().deleteUnusedObjects(); }

void createPackage() {
    DeleteFileW(kPackage.c_str());
    {
        StorageRef root;
        check(root.create(SharedPathName(kPackage.c_str(), false, false)) == S_OK);
        for (unsigned i = 0; i < kStreams; ++i) {
            StorageRef storage;
            StreamRef stream;
            const bool isNew = i < kStorages;
            check((isNew ? storage.create(storageOf(i).c_str(), root, false)
                         : storage.open(storageOf(i).c_str(), root, false)) == S_OK);
            check(stream.create(nameOf(i).c_str(), storage) == S_OK);
            const auto& bytes = contentsOf(i);
            check(stream.WriteBytes(bytes.data(), bytes.size()) == bytes.size());
        }
        check(root.commit() == S_OK);
    }
    cleanUp();
}

void readFromPackage(const StorageRef& root, unsigned i, std::vector<char>& buffer) {
    StorageRef storage;
    StreamRef stream;
    check(storage.open(storageOf(i).c_str(), root, true) == S_OK &&
          stream.open(nameOf(i).c_str(), storage, true) == S_OK);
    buffer.resize(contentsOf(i).size());
    check(stream.ReadBytes(buffer.data(), buffer.size()) == buffer.size());
}

void readPackage(unsigned first, unsigned count) {
    {
        const StorageRef root = openPackage(RootStorageOpenMode::ReadOnlyDenyWrite);
        std::vector<char> buffer;
        for (unsigned i = first; i < first + count; ++i)
            readFromPackage(root, i, buffer);
    }
    cleanUp();
}

void changePackage() {
    {
        const StorageRef root = openPackage(RootStorageOpenMode::ReadWrite);
        StorageRef storage;
        StreamRef stream;
        check(storage.open(storageOf(7).c_str(), root, false) == S_OK &&
              stream.open(nameOf(7).c_str(), storage, false) == S_OK);
        const auto& bytes = contentsOf(7);
        check(stream.WriteBytes(bytes.data(), bytes.size()) == bytes.size() && root.commit() == S_OK);
    }
    cleanUp();
}

// The compound file.

ComPtr<IStorage> openCompound(DWORD stgm) {
    ComPtr<IStorage> root;
    check(SUCCEEDED(StgOpenStorageEx(kCompound.c_str(), STGM_TRANSACTED | stgm, STGFMT_DOCFILE, 0, nullptr,
                                     nullptr, IID_IStorage, reinterpret_cast<void**>(root.GetAddressOf()))));
    return root;
}

void writeStream(IStorage* root, unsigned i, bool isNew) {
    ComPtr<IStorage> storage;
    ComPtr<::IStream> stream;
    const DWORD stgm = STGM_TRANSACTED | STGM_READWRITE | kWhole;
    check(SUCCEEDED(isNew ? root->CreateStorage(storageOf(i).c_str(), stgm, 0, 0, &storage)
                          : root->OpenStorage(storageOf(i).c_str(), nullptr, stgm, nullptr, 0, &storage)));
    check(SUCCEEDED(
        storage->CreateStream(nameOf(i).c_str(), STGM_CREATE | STGM_READWRITE | kWhole, 0, 0, &stream)));
    const auto& bytes = contentsOf(i);
    check(SUCCEEDED(stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr)) &&
          SUCCEEDED(storage->Commit(STGC_DEFAULT)));
}

void createCompound() {
    ComPtr<IStorage> root;
    check(SUCCEEDED(StgCreateStorageEx(
        kCompound.c_str(), STGM_CREATE | STGM_TRANSACTED | STGM_READWRITE | kWhole, STGFMT_DOCFILE, 0,
        nullptr, nullptr, IID_IStorage, reinterpret_cast<void**>(root.GetAddressOf()))));
    for (unsigned i = 0; i < kStreams; ++i)
        writeStream(root.Get(), i, i < kStorages);
    check(SUCCEEDED(root->Commit(STGC_DEFAULT)));
}

void readCompound(unsigned first, unsigned count) {
    const ComPtr<IStorage> root = openCompound(STGM_READ | STGM_SHARE_DENY_WRITE);
    std::vector<char> buffer;
    for (unsigned i = first; i < first + count; ++i) {
        ComPtr<IStorage> storage;
        ComPtr<::IStream> stream;
        check(SUCCEEDED(root->OpenStorage(storageOf(i).c_str(), nullptr, STGM_TRANSACTED | STGM_READ | kWhole,
                                          nullptr, 0, &storage)) &&
              SUCCEEDED(storage->OpenStream(nameOf(i).c_str(), nullptr, STGM_READ | kWhole, 0, &stream)));
        buffer.resize(contentsOf(i).size());
        ULONG done = 0;
        stream->Read(buffer.data(), static_cast<ULONG>(buffer.size()), &done);
        check(done == buffer.size());
    }
}

void changeCompound() {
    const ComPtr<IStorage> root = openCompound(STGM_READWRITE | STGM_SHARE_DENY_WRITE);
    writeStream(root.Get(), 7, false);
    check(SUCCEEDED(root->Commit(STGC_DEFAULT)));
}

template <class Action>
Vexel::Bench::Function repeat(Action action) {
    return [action](benchmark::State& state) {
        for (auto _ : state)
            action();
    };
}

} // namespace

int main(int argc, char** argv) {
    createPackage();
    createCompound();
    std::printf("%u streams in %u storages: package %llu bytes, compound file %llu bytes\n", kStreams,
                kStorages, static_cast<unsigned long long>(std::filesystem::file_size(kPackage)),
                static_cast<unsigned long long>(std::filesystem::file_size(kCompound)));
    Vexel::Bench::Suite suite;
    suite.compare("open", kNoLimit, repeat([] { readPackage(0, 0); }), repeat([] { readCompound(0, 0); }));
    suite.compare("read all", kNoLimit, repeat([] { readPackage(0, kStreams); }),
                  repeat([] { readCompound(0, kStreams); }));
    suite.compare("read one", kNoLimit, repeat([] { readPackage(7, 1); }),
                  repeat([] { readCompound(7, 1); }));
    suite.compare("change one and save", kNoLimit, repeat(changePackage), repeat(changeCompound));
    suite.compare("create", kNoLimit, repeat(createPackage), repeat(createCompound));
    const int status = suite.run(argc, argv);
    DeleteFileW(kPackage.c_str());
    DeleteFileW(kCompound.c_str());
    return status;
}
