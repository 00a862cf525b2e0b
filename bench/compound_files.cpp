// Opening a compound file, listing all of it and reading every stream: through the handles, and with the same
// calls on the system's own interfaces.

#include "support/ratio.h"

#include <vexel/storage.h>

#include <windows.h>

#include <objbase.h>
#include <wrl/client.h>

#include <string>
#include <vector>

using Microsoft::WRL::ComPtr;

namespace {

const std::wstring kSample = [] {
    const std::string folder = "Z:" VEXEL_TEST_DATA_DIR;
    return std::wstring(folder.begin(), folder.end()) + L"/foreign-tree.cfb";
}();

struct Totals {
    unsigned nodes = 0;
    unsigned long long bytes = 0;
    bool operator==(const Totals&) const = default;
};

void readAll(const StorageRef& storage, std::vector<char>& buffer, Totals& totals) {
    StorageEnumerator child;
    if (FAILED(child.reset(storage)))
        return;
    while (child.moveNext()) {
        ++totals.nodes;
        if (child.type() == StorageType::Storage) {
            StorageRef inner;
            if (SUCCEEDED(inner.open(child.name(), storage, true)))
                readAll(inner, buffer, totals);
            continue;
        }
        StreamRef stream;
        if (FAILED(stream.open(child.name(), storage, true)))
            continue;
        buffer.resize(child.size().QuadPart);
        totals.bytes += stream.ReadBytes(buffer.data(), buffer.size());
    }
}

void readAll(IStorage* storage, std::vector<char>& buffer, Totals& totals) {
    ComPtr<IEnumSTATSTG> children;
    if (FAILED(storage->EnumElements(0, nullptr, 0, &children)))
        return;
    STATSTG child{};
    while (children->Next(1, &child, nullptr) == S_OK) {
        ++totals.nodes;
        ComPtr<IStorage> inner;
        ComPtr<::IStream> stream;
        if (child.type == STGTY_STORAGE) {
            if (SUCCEEDED(storage->OpenStorage(child.pwcsName, nullptr,
                                               STGM_TRANSACTED | STGM_SHARE_EXCLUSIVE | STGM_READ, nullptr, 0,
                                               &inner)))
                readAll(inner.Get(), buffer, totals);
        } else if (SUCCEEDED(storage->OpenStream(child.pwcsName, nullptr, STGM_SHARE_EXCLUSIVE | STGM_READ, 0,
                                                 &stream))) {
            buffer.resize(child.cbSize.QuadPart);
            ULONG done = 0;
            stream->Read(buffer.data(), static_cast<ULONG>(buffer.size()), &done);
            totals.bytes += done;
        }
        CoTaskMemFree(child.pwcsName);
    }
}

Totals throughHandles(std::vector<char>& buffer) {
    Totals totals;
    StorageRef root;
    if (SUCCEEDED(
            root.open(SharedPathName(kSample, false, false), RootStorageOpenMode::ReadOnlyDenyWrite, false)))
        readAll(root, buffer, totals);
    return totals;
}

Totals throughTheSystem(std::vector<char>& buffer) {
    Totals totals;
    STGOPTIONS options{};
    options.usVersion = 1;
    options.ulSectorSize = 512;
    ComPtr<IStorage> root;
    if (SUCCEEDED(StgOpenStorageEx(kSample.c_str(), STGM_TRANSACTED | STGM_SHARE_DENY_WRITE | STGM_READ,
                                   STGFMT_DOCFILE, 0, &options, nullptr, IID_IStorage, &root)))
        readAll(root.Get(), buffer, totals);
    return totals;
}

template <Totals (*Read)(std::vector<char>&)>
void run(benchmark::State& state) {
    std::vector<char> buffer;
    const Totals expected = throughTheSystem(buffer);
    for (auto _ : state)
        if (Read(buffer) != expected || expected.bytes == 0)
            state.SkipWithError("not everything was read");
}

} // namespace

int main(int argc, char** argv) {
    Vexel::Bench::Suite suite;
    suite.compare("open, list and read a compound file", 1.15, run<throughHandles>, run<throughTheSystem>);
    return suite.run(argc, argv);
}
