// What documents of older versions cost: inflating their streams, against zlib's own file reader, and making
// packages of compound files, against reading them by the system's interfaces and compressing what was read.

#include "archive/engine.h"
#include "archive/engine_streams.h"
#include "archive/update_step.h"
#include "io/com_pointer.h"
#include "support/ratio.h"

#include <vexel/compressed_stream.h>
#include <vexel/memory_streams.h>
#include <vexel/storage.h>

#include <windows.h>

#include <objbase.h>
#include <wrl/client.h>

#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

using Microsoft::WRL::ComPtr;
using Vexel::Detail::adopt;
using Vexel::Storage::InMemoryIStream;
using namespace Vexel::Storage::Engine;

namespace {

constexpr std::size_t kTextBytes = std::size_t{32} << 20;
constexpr unsigned kStreams = 200;
constexpr std::size_t kStreamBytes = 500'000; // 100 MB in all
constexpr DWORD kWhole = STGM_SHARE_EXCLUSIVE;

void require(bool works, const char* what) {
    if (works)
        return;
    std::printf("%s failed\n", what);
    std::exit(1);
}

/// Bytes that pack to about a third.
std::string someText(std::size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        const auto number = static_cast<unsigned>(random());
        const bool repeats = i > 300 && number % 8 != 0;
        bytes[i] = repeats ? bytes[i - 300 + (number >> 8) % 2] : static_cast<char>(number >> 24);
    }
    return bytes;
}

class Folder {
public:
    Folder() : path_(std::filesystem::temp_directory_path() / L"vexel-bench-old-documents") {
        std::filesystem::create_directories(path_);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    ~Folder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    std::wstring file(const wchar_t* name) const { return (path_ / name).wstring(); }

private:
    std::filesystem::path path_;
};

std::wstring makeGzip(const Folder& folder) {
    const std::wstring path = folder.file(L"text.gz");
    const std::string text = someText(kTextBytes, 1);
    const gzFile file = gzopen_w(path.c_str(), "wb6");
    require(file && gzwrite(file, text.data(), static_cast<unsigned>(text.size())) > 0, "gzwrite");
    gzclose(file);
    return path;
}

ComPtr<InMemoryIStream> inMemory(const std::wstring& path) {
    const std::size_t size = std::filesystem::file_size(path);
    auto stream = Vexel::Detail::make<InMemoryIStream>(size);
    std::FILE* const file = _wfopen(path.c_str(), L"rb");
    std::string bytes(size, '\0');
    require(file && std::fread(bytes.data(), 1, size, file) == size, "fread");
    std::fclose(file);
    stream->write(bytes.data(), size);
    stream->rewind();
    return stream;
}

// The library's sources are streams of documents, which a package holds in memory; gzread wants a file.

void inflateOurs(benchmark::State& state, const std::wstring& path, std::size_t part) {
    const auto source = inMemory(path);
    std::vector<char> buffer(part);
    for (auto _ : state) {
        COleStreamCompressFile file(true);
        file.SetIgnoreEndOfFile(true);
        require(file.OpenStream(source.Get()), "opening");
        std::size_t total = 0;
        while (const auto count = file.ReadBytes(buffer.data(), part))
            total += count;
        require(total == kTextBytes, "inflating");
    }
    state.SetBytesProcessed(state.iterations() * std::int64_t{kTextBytes});
}

void inflatePeer(benchmark::State& state, const std::wstring& path, std::size_t part) {
    std::vector<char> buffer(part);
    for (auto _ : state) {
        const gzFile file = gzopen_w(path.c_str(), "rb");
        std::size_t total = 0;
        for (int count = 0; (count = gzread(file, buffer.data(), static_cast<unsigned>(part))) > 0;)
            total += static_cast<std::size_t>(count);
        gzclose(file);
        require(total == kTextBytes, "gzread");
    }
    state.SetBytesProcessed(state.iterations() * std::int64_t{kTextBytes});
}

void decompressOurs(benchmark::State& state, const std::wstring& path) {
    const auto source = inMemory(path);
    const auto target = Vexel::Detail::make<InMemoryIStream>(kTextBytes);
    for (auto _ : state) {
        source->rewind();
        target->rewind();
        require(DecompressStream(source.Get(), target.Get()) == S_OK && target->position() == kTextBytes,
                "DecompressStream");
    }
    state.SetBytesProcessed(state.iterations() * std::int64_t{kTextBytes});
}

void decompressPeer(benchmark::State& state, const std::wstring& path) {
    const auto target = Vexel::Detail::make<InMemoryIStream>(kTextBytes);
    std::vector<char> buffer(65536);
    for (auto _ : state) {
        const gzFile file = gzopen_w(path.c_str(), "rb");
        target->rewind();
        for (int count = 0; (count = gzread(file, buffer.data(), 65536)) > 0;)
            target->write(buffer.data(), static_cast<unsigned>(count));
        gzclose(file);
        require(target->position() == kTextBytes, "gzread");
    }
    state.SetBytesProcessed(state.iterations() * std::int64_t{kTextBytes});
}

std::wstring nameOf(unsigned index) { return L"Stream " + std::to_wstring(index); }

std::wstring makeCompound(const Folder& folder) {
    const std::wstring path = folder.file(L"document");
    STGOPTIONS options{};
    options.usVersion = 1;
    options.ulSectorSize = 4096;
    ComPtr<IStorage> root;
    require(SUCCEEDED(StgCreateStorageEx(path.c_str(), STGM_CREATE | STGM_READWRITE | kWhole, STGFMT_DOCFILE,
                                         0, &options, nullptr, IID_IStorage, &root)),
            "StgCreateStorageEx");
    for (unsigned i = 0; i < kStreams; ++i) {
        ComPtr<::IStream> stream;
        const std::string text = someText(kStreamBytes, i);
        require(SUCCEEDED(root->CreateStream(nameOf(i).c_str(), STGM_CREATE | STGM_READWRITE | kWhole, 0, 0,
                                             &stream)) &&
                    SUCCEEDED(stream->Write(text.data(), static_cast<ULONG>(text.size()), nullptr)),
                "writing a stream");
    }
    return path;
}

void convertOurs(benchmark::State& state, const std::wstring& path, const std::wstring& result) {
    for (auto _ : state) {
        StorageRef source;
        StorageRef target;
        require(source.open({path, false, false}, RootStorageOpenMode::ReadOnly, false) == S_OK &&
                    target.create({result, false, false}) == S_OK && source.copyTo(target) == S_OK &&
                    target.commit() == S_OK,
                "converting");
        target.close();
        StorageContainer::Instance().deleteUnusedObjects();
        DeleteFileW(result.c_str());
    }
}

void convertPeer(benchmark::State& state, const std::wstring& path, const std::wstring& result) {
    for (auto _ : state) {
        ComPtr<IStorage> root;
        require(SUCCEEDED(StgOpenStorageEx(path.c_str(), STGM_TRANSACTED | STGM_READ, STGFMT_DOCFILE, 0,
                                           nullptr, nullptr, IID_IStorage, &root)),
                "StgOpenStorageEx");
        std::vector<UpdateEntry> entries(kStreams);
        for (unsigned i = 0; i < kStreams; ++i) {
            ComPtr<::IStream> stream;
            require(SUCCEEDED(root->OpenStream(nameOf(i).c_str(), nullptr, STGM_READ | kWhole, 0, &stream)),
                    "OpenStream");
            const auto contents = Vexel::Detail::make<InMemoryIStream>();
            stream->CopyTo(contents.Get(), {.QuadPart = ~0ULL}, nullptr, nullptr);
            contents->rewind();
            entries[i].name = nameOf(i).c_str();
            entries[i].size = contents->size();
            entries[i].hasNewData = true;
            entries[i].contents = contents;
        }
        const auto output = adopt(new TemporaryFile(result.c_str()));
        require(output->create() == S_OK &&
                    writeArchive(entries, nullptr, output.Get(), result.c_str()) == S_OK &&
                    output->finish() == S_OK,
                "writing");
    }
}

} // namespace

int main(int argc, char** argv) {
    start();
    const Folder folder;
    const std::wstring gzip = makeGzip(folder);
    const std::wstring document = makeCompound(folder);
    const std::wstring result = folder.file(L"result.7z");
    Vexel::Bench::Suite suite;
    for (const std::size_t part : {16384u, 65536u})
        suite.compare(
            "inflate a stream in reads of " + std::to_string(part), 1.03,
            [=](benchmark::State& state) { inflateOurs(state, gzip, part); },
            [=](benchmark::State& state) { inflatePeer(state, gzip, part); });
    suite.compare(
        "decompress a stream into another", 1.03,
        [=](benchmark::State& state) { decompressOurs(state, gzip); },
        [=](benchmark::State& state) { decompressPeer(state, gzip); });
    suite.compare(
        "make a package of a compound file of 100 MB", 1.1,
        [=](benchmark::State& state) { convertOurs(state, document, result); },
        [=](benchmark::State& state) { convertPeer(state, document, result); });
    return suite.run(argc, argv);
}
