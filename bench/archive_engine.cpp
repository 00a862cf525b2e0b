// What stands between an archive and the engine, against the engine by itself: reading the database,
// decoding, and writing; and copying a file's unchanged items against copying the file.

#include "archive/folder_decoder.h"
#include "support/archives.h"
#include "support/c_decoder.h"
#include "support/ratio.h"

#include <7zCrc.h>
#include <Alloc.h>

using namespace Vexel::Bench;

namespace {

constexpr unsigned kManyItems = 100'000;
constexpr unsigned kSomeItems = 10'000;
constexpr std::size_t kSmallItem = 2048;
constexpr std::size_t kLargeItem = std::size_t{64} << 20;
constexpr std::size_t kPackedItem = 3000;

const std::vector<unsigned char>& text() {
    static const auto kBytes = someBytes(kLargeItem, false);
    return kBytes;
}

const std::vector<unsigned char>& noise() {
    static const auto kBytes = someBytes(std::size_t{40} << 20, true);
    return kBytes;
}

std::shared_ptr<DatabaseStream> openArchive(const wchar_t* path) {
    std::shared_ptr<DatabaseStream> archive;
    require(openFile(path, archive));
    require(archive->read(path));
    return archive;
}

void readDatabase(benchmark::State& state, const wchar_t* path) {
    for (auto _ : state)
        benchmark::DoNotOptimize(openArchive(path)->count());
}

void decode(benchmark::State& state, const wchar_t* path, std::size_t size) {
    const auto archive = openArchive(path);
    for (auto _ : state)
        for (unsigned i = 0; i < archive->count(); ++i) {
            DynamicBuffer bytes = roomFor(size);
            ComPtr<InStreamBase> input;
            require(archive->openCursor(input));
            const DecodedFolder decoded = decodeFolder(archive->database(), i, *input.Get(), bytes);
            require(decoded.status);
            benchmark::DoNotOptimize(decoded.crc);
        }
}

void decodeBare(benchmark::State& state, const wchar_t* path, std::size_t size) {
    const auto archive = openArchive(path);
    const N7z::CDbEx& database = archive->database();
    const auto input = Vexel::Detail::adopt<IInStream>(new PlainInput(path));
    for (auto _ : state) {
        N7z::CDecoder decoder(true);
        for (unsigned i = 0; i < archive->count(); ++i) {
            DynamicBuffer bytes = roomFor(size);
            const auto output = Vexel::Detail::adopt(new InMemoryOutStream(bytes));
            bool dataAfterEnd = false;
            require(decoder.Decode(input.Get(), database.ArcInfo.DataStartPosition, database, i, nullptr,
                                   output.Get(), nullptr, nullptr, dataAfterEnd, size >= 0x100000,
                                   threadCount(), ~UInt64{0}));
            benchmark::DoNotOptimize(output->crc());
        }
    }
}

/// By the engine's C code, which the library's decoder is the assembler form of: the only folder of the
/// archive, from memory to memory.
void decodeInC(benchmark::State& state, const wchar_t* path, std::size_t size) {
    const auto archive = openArchive(path);
    const N7z::CDbEx& database = archive->database();
    N7z::CFolder folder;
    database.ParseFolderInfo(0, folder);
    const auto input = Vexel::Detail::adopt<IInStream>(new PlainInput(path));
    std::vector<Byte> packed(static_cast<std::size_t>(database.PackPositions[1]));
    for (auto _ : state) {
        DynamicBuffer bytes = roomFor(size);
        require(
            input->Seek(static_cast<Int64>(database.ArcInfo.DataStartPosition), STREAM_SEEK_SET, nullptr));
        require(ReadStream_FAIL(input.Get(), packed.data(), packed.size()));
        SizeT made = size, taken = packed.size();
        ELzmaStatus status{};
        require(C_Lzma2Decode(bytes.data, &made, packed.data(), &taken, folder.Coders[0].Props[0],
                              LZMA_FINISH_END, &status, &g_Alloc));
        benchmark::DoNotOptimize(CrcCalc(bytes.data, made));
    }
}

/// One changed item; all others are copied.
void saveOneChange(benchmark::State& state, const wchar_t* path) {
    const auto archive = openArchive(path);
    const ScratchFile target(L"saved.7z");
    auto entries = newEntries(archive->count(), noise(), kPackedItem);
    for (unsigned i = 0; i < entries.size(); ++i)
        entries[i].databaseIndex = static_cast<int>(i);
    for (UpdateEntry& entry : entries)
        entry.hasNewData = entry.databaseIndex == 4711;
    for (auto _ : state) {
        target.write(entries, archive.get());
        target.remove(state);
    }
}

} // namespace

int main(int argc, char** argv) {
    start();
    Vexel::Bench::Suite suite;
    const Lazy many([&] { return archiveOf(L"many.7z", kManyItems, text(), 20); });
    suite.compare(
        "read the database of 100,000 items", 1.6, [&](auto& state) { readDatabase(state, many->path()); },
        [&](auto& state) { readDatabaseBare(state, many->path()); });
    const Lazy packed([&] { return archiveOf(L"packed.7z", kSomeItems, noise(), kPackedItem); });
    suite.compare(
        "read the database of 10,000 items, not packed", 2.2,
        [&](auto& state) { readDatabase(state, packed->path()); },
        [&](auto& state) { readDatabaseBare(state, packed->path()); });
    const Lazy small([&] { return archiveOf(L"small.7z", kSomeItems, text(), kSmallItem); });
    suite.compare(
        "decode 10,000 items of 2 KiB", 1.1, [&](auto& state) { decode(state, small->path(), kSmallItem); },
        [&](auto& state) { decodeBare(state, small->path(), kSmallItem); });
    const Lazy large([&] { return archiveOf(L"large.7z", 1, text(), kLargeItem); });
    suite.compare(
        "decode one item of 64 MiB", 1.03, [&](auto& state) { decode(state, large->path(), kLargeItem); },
        [&](auto& state) { decodeBare(state, large->path(), kLargeItem); });
    suite.compare(
        "decode one item of 64 MiB, against the C code", 0.72,
        [&](auto& state) { decode(state, large->path(), kLargeItem); },
        [&](auto& state) { decodeInC(state, large->path(), kLargeItem); });
    suite.compare(
        "write 30 MB with one changed item of 10,000", 5,
        [&](auto& state) { saveOneChange(state, packed->path()); },
        [&](auto& state) { copyFile(state, packed->path()); });
    return suite.run(argc, argv);
}
