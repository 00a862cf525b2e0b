// What documents of older versions cost: inflating their streams, against zlib's own file reader, and making
// packages of compound files, against reading them by the system's interfaces and compressing what was read.

#include "support/archives.h"
#include "support/ratio.h"

#include <vexel/compressed_stream.h>
#include <vexel/storage.h>

#include <windows.h>

#include <objbase.h>
#include <wrl/client.h>

#include <zlib.h>

#include <fstream>
#include <string>
#include <vector>

using namespace Vexel::Bench;

namespace {

constexpr std::size_t kTextBytes = std::size_t{32} << 20;
constexpr unsigned kStreams = 200;
constexpr std::size_t kStreamBytes = 500'000; // 100 MB in all
constexpr DWORD kWhole = STGM_SHARE_EXCLUSIVE;

void makeGzip(const ScratchFile& target) {
    const auto text = someBytes(kTextBytes, false);
    const gzFile file = gzopen_w(target.path(), "wb6");
    check(file && gzwrite(file, text.data(), static_cast<unsigned>(text.size())) > 0);
    gzclose(file);
}

ComPtr<InMemoryIStream> inMemory(const std::wstring& path) {
    std::vector<char> bytes(std::filesystem::file_size(path));
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    check(file.read(bytes.data(), static_cast<std::streamsize>(bytes.size())).good());
    auto stream = Vexel::Detail::make<InMemoryIStream>();
    stream->write(bytes.data(), bytes.size());
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
        check(file.OpenStream(source.Get()));
        std::size_t total = 0;
        while (const auto count = file.ReadBytes(buffer.data(), part))
            total += count;
        check(total == kTextBytes);
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
        check(total == kTextBytes);
    }
    state.SetBytesProcessed(state.iterations() * std::int64_t{kTextBytes});
}

void decompressOurs(benchmark::State& state, const std::wstring& path) {
    const auto source = inMemory(path);
    const auto target = Vexel::Detail::make<InMemoryIStream>(kTextBytes);
    for (auto _ : state) {
        source->rewind();
        target->rewind();
        check(DecompressStream(source.Get(), target.Get()) == S_OK && target->position() == kTextBytes);
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
        check(target->position() == kTextBytes);
    }
    state.SetBytesProcessed(state.iterations() * std::int64_t{kTextBytes});
}

std::wstring streamName(unsigned index) { return L"Stream " + std::to_wstring(index); }

void makeCompound(const ScratchFile& target) {
    STGOPTIONS options{};
    options.usVersion = 1;
    options.ulSectorSize = 4096;
    ComPtr<IStorage> root;
    check(SUCCEEDED(StgCreateStorageEx(target.path(), STGM_CREATE | STGM_READWRITE | kWhole, STGFMT_DOCFILE,
                                       0, &options, nullptr, IID_IStorage, &root)));
    for (unsigned i = 0; i < kStreams; ++i) {
        ComPtr<::IStream> stream;
        const auto text = someBytes(kStreamBytes, false, i);
        check(SUCCEEDED(root->CreateStream(streamName(i).c_str(), STGM_CREATE | STGM_READWRITE | kWhole, 0, 0,
                                           &stream)) &&
              SUCCEEDED(stream->Write(text.data(), static_cast<ULONG>(text.size()), nullptr)));
    }
}

void convertOurs(benchmark::State& state, const std::wstring& path, const std::wstring& result) {
    for (auto _ : state) {
        StorageRef source;
        StorageRef target;
        check(source.open({path, false, false}, RootStorageOpenMode::ReadOnly, false) == S_OK &&
              target.create({result, false, false}) == S_OK && source.copyTo(target) == S_OK &&
              target.commit() == S_OK);
        target.close();
        StorageContainer::Instance().deleteUnusedObjects();
        DeleteFileW(result.c_str());
    }
}

void convertPeer(benchmark::State& state, const std::wstring& path, const std::wstring& result) {
    for (auto _ : state) {
        ComPtr<IStorage> root;
        check(SUCCEEDED(StgOpenStorageEx(path.c_str(), STGM_TRANSACTED | STGM_READ, STGFMT_DOCFILE, 0,
                                         nullptr, nullptr, IID_IStorage, &root)));
        std::vector<UpdateEntry> entries(kStreams);
        for (unsigned i = 0; i < kStreams; ++i) {
            ComPtr<::IStream> stream;
            check(
                SUCCEEDED(root->OpenStream(streamName(i).c_str(), nullptr, STGM_READ | kWhole, 0, &stream)));
            const auto contents = Vexel::Detail::make<InMemoryIStream>();
            stream->CopyTo(contents.Get(), {.QuadPart = ~0ULL}, nullptr, nullptr);
            contents->rewind();
            entries[i].name = streamName(i).c_str();
            entries[i].size = contents->size();
            entries[i].hasNewData = true;
            entries[i].contents = contents;
        }
        const auto output = Vexel::Detail::adopt(new TemporaryFile(result.c_str()));
        check(output->create() == S_OK &&
              writeArchive(entries, nullptr, output.Get(), result.c_str()) == S_OK &&
              output->finish() == S_OK);
    }
}

} // namespace

int main(int argc, char** argv) {
    start();
    const ScratchFile gzipFile(L"text.gz");
    const ScratchFile documentFile(L"document");
    const ScratchFile resultFile(L"result.7z");
    makeGzip(gzipFile);
    makeCompound(documentFile);
    const std::wstring gzip = gzipFile.path();
    const std::wstring document = documentFile.path();
    const std::wstring result = resultFile.path();
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
