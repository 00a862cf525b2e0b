// What stands between an archive and the engine, against the engine by itself: reading the database,
// decoding, and writing; and copying a file's unchanged items against copying the file.

#include "archive/database.h"
#include "archive/engine.h"
#include "archive/folder_decoder.h"
#include "archive/update_step.h"
#include "io/com_pointer.h"
#include "support/ratio.h"

#include <vexel/memory_streams.h>

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

using namespace Vexel::Storage;
using namespace Vexel::Storage::Engine;
namespace N7z = NArchive::N7z;

namespace {

constexpr unsigned kManyItems = 100'000;
constexpr unsigned kSomeItems = 10'000;
constexpr std::size_t kSmallItem = 2048;
constexpr std::size_t kLargeItem = std::size_t{64} << 20;
constexpr std::size_t kPackedItem = 3000;

/// What is measured works, or there is nothing to measure.
void require(HRESULT status) noexcept {
    if (status == S_OK)
        return;
    std::printf("failed with status 0x%08lx\n", static_cast<unsigned long>(status));
    std::exit(1);
}

/// Text-like bytes, which LZMA packs to about a third; or noise.
std::vector<unsigned char> someBytes(std::size_t size, bool isNoise) {
    std::mt19937 random(7);
    std::vector<unsigned char> bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        const auto number = static_cast<unsigned>(random());
        const bool repeats = !isNoise && i > 300 && number % 8 != 0;
        bytes[i] = repeats ? bytes[i - 300 + (number >> 8) % 2] : static_cast<unsigned char>(number >> 24);
    }
    return bytes;
}

const std::vector<unsigned char>& text() {
    static const auto bytes = someBytes(kLargeItem, false);
    return bytes;
}

const std::vector<unsigned char>& noise() {
    static const auto bytes = someBytes(std::size_t{40} << 20, true);
    return bytes;
}

ComPtr<::IStream> streamOver(const unsigned char* bytes, std::size_t size) {
    DynamicBuffer buffer;
    buffer.data =
        const_cast<unsigned char*>(bytes); // NOLINT(cppcoreguidelines-pro-type-const-cast): only read
    buffer.size = buffer.capacity = size;
    buffer.ownsMemory = false;
    return Vexel::Detail::adopt<::IStream>(new InMemoryIStream(std::move(buffer)));
}

CString nameOf(unsigned index) {
    return {(L"Folder " + std::to_wstring(index / 100) + L"/Item " + std::to_wstring(index)).c_str()};
}

std::vector<UpdateEntry> newEntries(unsigned count, const std::vector<unsigned char>& from,
                                    std::size_t size) {
    std::vector<UpdateEntry> entries(count);
    for (unsigned i = 0; i < count; ++i) {
        entries[i].name = nameOf(i);
        entries[i].size = size;
        entries[i].modification = {i, 0x01d90000};
        entries[i].hasNewData = true;
        entries[i].contents = streamOver(from.data() + (i * size + i) % (from.size() - size + 1), size);
    }
    return entries;
}

/// A file in the temporary folder that goes with this object.
class ScratchFile {
public:
    explicit ScratchFile(const wchar_t* name)
        : path_(std::filesystem::temp_directory_path() /
                (std::to_wstring(GetCurrentProcessId()) + L"-" + name)) {}
    ScratchFile(const ScratchFile&) = delete;
    ScratchFile& operator=(const ScratchFile&) = delete;
    ~ScratchFile() { DeleteFileW(path()); }

    const wchar_t* path() const { return path_.c_str(); }
    /// Outside the time that is measured: the system takes as long for it as for a copy.
    void remove(benchmark::State& state) const {
        state.PauseTiming();
        DeleteFileW(path());
        state.ResumeTiming();
    }
    void write(const std::vector<UpdateEntry>& entries, const DatabaseStream* old) const {
        const auto file = Vexel::Detail::adopt(new TemporaryFile(path()));
        require(file->create());
        require(writeArchive(entries, old, file.Get(), path()));
        require(file->finish());
        file->keep();
    }

private:
    std::filesystem::path path_;
};

std::shared_ptr<DatabaseStream> openArchive(const wchar_t* path) {
    std::shared_ptr<DatabaseStream> archive;
    require(openFile(path, archive));
    require(archive->read(path));
    return archive;
}

std::unique_ptr<ScratchFile> archiveOf(const wchar_t* name, unsigned count,
                                       const std::vector<unsigned char>& from, std::size_t size) {
    auto file = std::make_unique<ScratchFile>(name);
    file->write(newEntries(count, from, size), nullptr);
    return file;
}

// ---

void readDatabase(benchmark::State& state, const wchar_t* path) {
    for (auto _ : state)
        benchmark::DoNotOptimize(openArchive(path)->count());
}

/// A file as programs mostly give it to the engine: each call is one of the system's.
class PlainInput final : public InStreamBase {
public:
    explicit PlainInput(const wchar_t* path)
        : file_(CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr)) {}

    HRESULT STDMETHODCALLTYPE Read(void* data, UInt32 size, UInt32* processed) noexcept override {
        DWORD count = 0;
        const BOOL done = ReadFile(file_.get(), data, size, &count, nullptr);
        *processed = count;
        return done ? S_OK : E_FAIL;
    }
    HRESULT STDMETHODCALLTYPE Seek(Int64 offset, UInt32 origin, UInt64* newPosition) noexcept override {
        LARGE_INTEGER distance;
        LARGE_INTEGER position{};
        distance.QuadPart = offset;
        const BOOL done = SetFilePointerEx(file_.get(), distance, &position, origin);
        if (newPosition)
            *newPosition = static_cast<UInt64>(position.QuadPart);
        return done ? S_OK : E_FAIL;
    }
    HRESULT STDMETHODCALLTYPE GetSize(UInt64* size) noexcept override {
        LARGE_INTEGER bytes{};
        const BOOL done = GetFileSizeEx(file_.get(), &bytes);
        *size = static_cast<UInt64>(bytes.QuadPart);
        return done ? S_OK : E_FAIL;
    }

private:
    Vexel::Detail::FileHandle file_;
};

void readDatabaseBare(benchmark::State& state, const wchar_t* path) {
    for (auto _ : state) {
        const auto input = Vexel::Detail::adopt<IInStream>(new PlainInput(path));
        N7z::CInArchive archive(true);
        N7z::CDbEx database;
        const UInt64 limit = 0;
        require(archive.Open(input.Get(), &limit));
        require(archive.ReadDatabase(database));
        benchmark::DoNotOptimize(database.Files.Size());
    }
}

DynamicBuffer roomFor(std::size_t size) {
    DynamicBuffer bytes;
    bytes.data = static_cast<unsigned char*>(std::malloc(size));
    bytes.capacity = size;
    return bytes;
}

void decode(benchmark::State& state, const wchar_t* path, std::size_t size) {
    const auto archive = openArchive(path);
    for (auto _ : state)
        for (unsigned i = 0; i < archive->count(); ++i) {
            DynamicBuffer bytes = roomFor(size);
            const DecodedFolder decoded = decodeFolder(*archive, i, bytes);
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

void copyFile(benchmark::State& state, const wchar_t* path) {
    const ScratchFile target(L"copied.7z");
    for (auto _ : state) {
        if (!CopyFileW(path, target.path(), FALSE))
            state.SkipWithError("cannot copy");
        target.remove(state);
    }
}

} // namespace

int main(int argc, char** argv) {
    start();
    Vexel::Bench::Suite suite;
    const auto many = archiveOf(L"many.7z", kManyItems, text(), 20);
    suite.compare(
        "read the database of 100,000 items", 1.6, [&](auto& state) { readDatabase(state, many->path()); },
        [&](auto& state) { readDatabaseBare(state, many->path()); });
    const auto packed = archiveOf(L"packed.7z", kSomeItems, noise(), kPackedItem);
    suite.compare(
        "read the database of 10,000 items, not packed", 1.6,
        [&](auto& state) { readDatabase(state, packed->path()); },
        [&](auto& state) { readDatabaseBare(state, packed->path()); });
    const auto small = archiveOf(L"small.7z", kSomeItems, text(), kSmallItem);
    suite.compare(
        "decode 10,000 items of 2 KiB", 1.1, [&](auto& state) { decode(state, small->path(), kSmallItem); },
        [&](auto& state) { decodeBare(state, small->path(), kSmallItem); });
    const auto large = archiveOf(L"large.7z", 1, text(), kLargeItem);
    suite.compare(
        "decode one item of 64 MiB", 1.03, [&](auto& state) { decode(state, large->path(), kLargeItem); },
        [&](auto& state) { decodeBare(state, large->path(), kLargeItem); });
    suite.compare(
        "write 30 MB with one changed item of 10,000", 5,
        [&](auto& state) { saveOneChange(state, packed->path()); },
        [&](auto& state) { copyFile(state, packed->path()); });
    return suite.run(argc, argv);
}
