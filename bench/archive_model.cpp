// Archives and packages as their users see them: opening, reading and saving through SZipArchive against the
// engine and the system, reading through the handles against SZipArchive.

#include "support/archives.h"
#include "support/ratio.h"

#include <vexel/archive.h>
#include <vexel/diagnostics.h>
#include <vexel/storage.h>

#include <filesystem>
#include <fstream>
#include <iterator>

using namespace Vexel::Bench;

namespace {

constexpr unsigned kManyItems = 100'000;
constexpr unsigned kSomeItems = 10'000;
constexpr unsigned kChangedItems = 1000;
constexpr unsigned kChangedSheets = 200;
constexpr unsigned kStreams = 5000;
constexpr std::size_t kSmallItem = 2048;
constexpr std::size_t kPackedItem = 3000;
constexpr std::size_t kLargeStream = std::size_t{64} << 20;
constexpr std::size_t kSheet = std::size_t{100} << 10;

void open(benchmark::State& state, const wchar_t* path) {
    for (auto _ : state) {
        SZipArchive archive(path, true, true);
        require(archive.reload());
        std::size_t characters = 0;
        for (const auto& [name, item] : archive.items())
            characters += static_cast<std::size_t>(name.GetLength());
        benchmark::DoNotOptimize(characters);
    }
}

void change(SZipArchive& archive, unsigned index, const unsigned char* bytes, std::size_t size) {
    ComPtr<::IStream> stream;
    require(archive.createFile(&stream, nameOf(index), false, true));
    require(stream->Write(bytes, static_cast<ULONG>(size), nullptr));
}

/// Saves an archive with these items after their contents have changed. The old file has a second name
/// meanwhile: giving its place on the disk back takes the system longer than a copy does, and the peers'
/// files are removed outside the time that is measured, too.
void save(benchmark::State& state, const wchar_t* path, unsigned first, unsigned count,
          const std::vector<unsigned char>& bytes, std::size_t size) {
    const ScratchFile old(L"old.7z");
    SZipArchive archive(path, false, true);
    require(archive.reload());
    unsigned round = 0;
    for (auto _ : state) {
        state.PauseTiming();
        ++round;
        for (unsigned i = 0; i < count; ++i)
            change(archive, first + i, bytes.data() + (i * size + i + round) % (bytes.size() - size), size);
        if (!CreateHardLinkW(old.path(), path, nullptr))
            state.SkipWithError("cannot link");
        state.ResumeTiming();
        require(archive.save(true));
        old.remove(state);
    }
}

void saveBare(benchmark::State& state, unsigned count, const std::vector<unsigned char>& bytes,
              std::size_t size) {
    const ScratchFile file(L"updated.7z");
    const auto entries = newEntries(count, bytes, size);
    for (auto _ : state) {
        updateBare(entries, file.path());
        file.remove(state);
    }
}

/// Takes what it is given, and drops it.
class Nowhere final : public OutStream {
public:
    HRESULT STDMETHODCALLTYPE Write(const void* /*data*/, UInt32 size, UInt32* processed) noexcept override {
        position_ += size;
        if (processed)
            *processed = size;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Seek(Int64 offset, UInt32 origin, UInt64* position) noexcept override {
        if (origin == STREAM_SEEK_SET)
            position_ = static_cast<UInt64>(offset);
        if (position)
            *position = position_;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE SetSize(UInt64 /*size*/) noexcept override { return S_OK; }

private:
    UInt64 position_ = 0;
};

/// Without the disk, and what else a save does.
void pack(benchmark::State& state, unsigned count, const std::vector<unsigned char>& bytes, std::size_t size,
          unsigned threads) {
    const auto entries = newEntries(count, bytes, size);
    for (auto _ : state)
        require(writeArchive(entries, nullptr, Vexel::Detail::adopt(new Nowhere).Get(), L"", threads));
}

// Reading every stream.

void readItems(benchmark::State& state, const wchar_t* path) {
    std::vector<char> buffer(kSmallItem);
    for (auto _ : state) {
        SZipArchive archive(path, true, true);
        require(archive.reload());
        std::size_t total = 0;
        for (const auto& [name, item] : archive.items()) {
            if (item.isDirectory())
                continue;
            ComPtr<::IStream> stream;
            require(archive.extractFile(&stream, name));
            ULONG done = 0;
            stream->Read(buffer.data(), static_cast<ULONG>(buffer.size()), &done);
            total += done;
        }
        require(total == kStreams * kSmallItem ? S_OK : E_FAIL);
    }
}

/// The engine by itself, with a decoder made for each item, as programs mostly use it.
void readBare(benchmark::State& state, const wchar_t* path) {
    for (auto _ : state) {
        const auto input = Vexel::Detail::adopt<IInStream>(new PlainInput(path));
        N7z::CInArchive archive(true);
        N7z::CDbEx database;
        const UInt64 limit = 0;
        require(archive.Open(input.Get(), &limit));
        require(archive.ReadDatabase(database));
        std::size_t total = 0;
        for (unsigned i = 0; i < database.Files.Size(); ++i) {
            const auto& file = database.Files[i];
            if (!file.HasStream)
                continue;
            DynamicBuffer bytes = roomFor(static_cast<std::size_t>(file.Size));
            const auto output = Vexel::Detail::adopt(new InMemoryOutStream(bytes));
            N7z::CDecoder decoder(true);
            bool dataAfterEnd = false;
            require(decoder.Decode(input.Get(), database.ArcInfo.DataStartPosition, database,
                                   database.FileIndexToFolderIndexMap[i], nullptr, output.Get(), nullptr,
                                   nullptr, dataAfterEnd, false, threadCount(), ~UInt64{0}));
            require(output->crc() == file.Crc ? S_OK : E_FAIL);
            total += bytes.size;
        }
        require(total == kStreams * kSmallItem ? S_OK : E_FAIL);
    }
}

/// What streams of documents are mostly like: this project's own headers, one behind the other.
std::vector<unsigned char> writtenText() {
    std::vector<unsigned char> bytes;
    for (const auto& entry :
         std::filesystem::directory_iterator("Z:" VEXEL_TEST_DATA_DIR "/../../include/vexel")) {
        std::ifstream file(entry.path(), std::ios::binary);
        bytes.insert(bytes.end(), std::istreambuf_iterator<char>(file), {});
    }
    check(bytes.size() > (std::size_t{64} << 10));
    return bytes;
}

// NOLINTNEXTLINE(misc-no-recursion): two storages deep
std::size_t readStorage(const StorageRef& storage, std::vector<char>& buffer) {
    std::size_t total = 0;
    StorageEnumerator child;
    require(child.reset(storage));
    while (child.moveNext()) {
        if (child.type() == StorageType::Storage) {
            StorageRef inner;
            require(inner.open(child.name(), storage, true));
            total += readStorage(inner, buffer);
            continue;
        }
        StreamRef stream;
        require(stream.open(child.name(), storage, true));
        total += stream.ReadBytes(buffer.data(), buffer.size());
    }
    return total;
}

void readStreams(benchmark::State& state, const wchar_t* path) {
    std::vector<char> buffer(kSmallItem);
    for (auto _ : state) {
        {
            StorageRef root;
            require(root.open(SharedPathName(path, false, false), RootStorageOpenMode::ReadOnly, false));
            require(readStorage(root, buffer) == kStreams * kSmallItem ? S_OK : E_FAIL);
        }
        StorageContainer::Instance().deleteUnusedObjects();
    }
}

/// Of the archive's only item, which is not changed in the end. The log warns of that each time.
void openForWriting(benchmark::State& state, const wchar_t* path) {
    VxLog_SetSink([](int, const wchar_t*, void*) {}, nullptr);
    const CString item = nameOf(0);
    const int slash = item.Find(L'/');
    for (auto _ : state) {
        {
            StorageRef root, storage;
            require(root.open(SharedPathName(path, false, false), RootStorageOpenMode::ReadWrite, false));
            require(storage.open(item.Left(slash), root, false));
            StreamRef stream;
            require(stream.open(item.Mid(slash + 1), storage, false));
        }
        StorageContainer::Instance().clearAll();
    }
}

/// With an item for each directory, as the handles need them.
std::unique_ptr<ScratchFile> packageOf(const wchar_t* name, unsigned count,
                                       const std::vector<unsigned char>& bytes, std::size_t size) {
    auto file = std::make_unique<ScratchFile>(name);
    SZipArchive archive(file->path(), false, true);
    for (unsigned i = 0; i < count; ++i) {
        const CString item = nameOf(i);
        require(archive.createDirectory(item.Left(item.Find(L'/')), false, false));
        change(archive, i, bytes.data() + (i * size + i) % (bytes.size() - size), size);
    }
    require(archive.save(true));
    return file;
}

} // namespace

int main(int argc, char** argv) {
    start();
    Vexel::Bench::Suite suite;
    const auto text = someBytes(kLargeStream + 1, false);
    const auto noise = someBytes(std::size_t{16} << 20, true);
    const Lazy many([&] { return archiveOf(L"many.7z", kManyItems, text, 20); });
    suite.compare(
        "open and list 100,000 items", 2.6, [&](auto& state) { open(state, many->path()); },
        [&](auto& state) { readDatabaseBare(state, many->path()); });
    const Lazy packed([&] { return packageOf(L"packed.7z", kSomeItems, noise, kPackedItem); });
    const Lazy saved([&] { return packageOf(L"saved.7z", kSomeItems, noise, kPackedItem); });
    suite.compare(
        "save 30 MB with one changed item of 10,000", 5,
        [&](auto& state) { save(state, saved->path(), 4711, 1, noise, kPackedItem); },
        [&](auto& state) { copyFile(state, packed->path()); });
    const Lazy changed([&] { return packageOf(L"changed.7z", kChangedItems, text, kSmallItem); });
    suite.compare(
        "save 1,000 changed items of 2 KiB", 0.7,
        [&](auto& state) { save(state, changed->path(), 0, kChangedItems, text, kSmallItem); },
        [&](auto& state) { saveBare(state, kChangedItems, text, kSmallItem); });
    const Lazy sheets([&] { return packageOf(L"sheets.7z", kChangedSheets, text, kSheet); });
    suite.compare(
        "save 200 changed items of 100 KiB", 0.55,
        [&](auto& state) { save(state, sheets->path(), 0, kChangedSheets, text, kSheet); },
        [&](auto& state) { saveBare(state, kChangedSheets, text, kSheet); });
    suite.compare(
        "pack 1,000 items of 2 KiB on all processors, peer on one", 0.62,
        [&](auto& state) { pack(state, kChangedItems, text, kSmallItem, threadCount()); },
        [&](auto& state) { pack(state, kChangedItems, text, kSmallItem, 1); });
    for (const unsigned threads : {1U, 2U, 4U, 8U})
        suite.measure("pack 200 items of 100 KiB, threads: " + std::to_string(threads),
                      [&text, threads](auto& state) { pack(state, kChangedSheets, text, kSheet, threads); });
    const Lazy package([&] { return packageOf(L"package.7z", kStreams, text, kSmallItem); });
    suite.compare(
        "open a package and read its 5,000 streams", 1.1,
        [&](auto& state) { readStreams(state, package->path()); },
        [&](auto& state) { readItems(state, package->path()); });
    const Lazy written([&] { return packageOf(L"written.7z", kStreams, writtenText(), kSmallItem); });
    // Of our time two thirds are the decoding itself, which takes as long on the other side.
    suite.compare(
        "open a package and read its 5,000 streams, against a new decoder for each", 0.85,
        [&](auto& state) { readStreams(state, written->path()); },
        [&](auto& state) { readBare(state, written->path()); }, Clock::Processor);
    const Lazy largeStream([&] { return packageOf(L"large.7z", 1, text, kLargeStream); });
    const Lazy smallStream([&] { return packageOf(L"small.7z", 1, text, kSmallItem); });
    suite.compare(
        "open a stream of 64 MiB for writing, peer one of 2 KiB", 1.2,
        [&](auto& state) { openForWriting(state, largeStream->path()); },
        [&](auto& state) { openForWriting(state, smallStream->path()); });
    return suite.run(argc, argv);
}
