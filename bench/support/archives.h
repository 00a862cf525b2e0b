#pragma once

#include "archive/database.h"
#include "archive/engine.h"
#include "archive/packing_settings.h"
#include "archive/update_callback.h"
#include "archive/update_step.h"
#include "base/com_pointer.h"
#include "base/handles.h"

#include <vexel/memory_streams.h>

#include <windows.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <filesystem>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <utility>
#include <vector>

/// Archives to measure with, made by the update step, and the bare engine and the system as peers.
namespace Vexel::Bench {

using namespace Vexel::Storage;
using namespace Vexel::Storage::Engine;
namespace N7z = NArchive::N7z;

/// What is measured works, or there is nothing to measure.
inline void require(HRESULT status) noexcept {
    if (status == S_OK)
        return;
    std::printf("failed with status 0x%08lx\n", static_cast<unsigned long>(status));
    std::exit(1);
}
inline void check(bool works) noexcept { require(works ? S_OK : E_FAIL); }

/// Text-like bytes, which LZMA packs to about a third; or noise. Others for each seed.
inline std::vector<unsigned char> someBytes(std::size_t size, bool isNoise, unsigned seed = 7) {
    std::mt19937 random(seed);
    std::vector<unsigned char> bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        const auto number = static_cast<unsigned>(random());
        const bool repeats = !isNoise && i > 300 && number % 8 != 0;
        bytes[i] = repeats ? bytes[i - 300 + (number >> 8) % 2] : static_cast<unsigned char>(number >> 24);
    }
    return bytes;
}

/// Empty, with memory for so much.
inline DynamicBuffer roomFor(std::size_t size) {
    DynamicBuffer bytes;
    bytes.data = static_cast<unsigned char*>(std::malloc(size));
    bytes.capacity = size;
    return bytes;
}

inline ComPtr<::IStream> streamOver(const unsigned char* bytes, std::size_t size) {
    DynamicBuffer buffer;
    buffer.data =
        const_cast<unsigned char*>(bytes); // NOLINT(cppcoreguidelines-pro-type-const-cast): only read
    buffer.size = buffer.capacity = size;
    buffer.ownsMemory = false;
    return Vexel::Detail::adopt<::IStream>(new InMemoryIStream(std::move(buffer)));
}

/// In the order of their numbers, as archives list their items.
inline CString nameOf(unsigned index) {
    wchar_t name[64];
    std::swprintf(name, std::size(name), L"Folder %04u/Item %06u", index / 100, index);
    return {name};
}

inline std::vector<UpdateEntry> newEntries(unsigned count, const std::vector<unsigned char>& from,
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

/// Hands the engine's update the contents of entries that are all new.
class BareCallback final : public UpdateCallbackBase<> {
public:
    explicit BareCallback(const std::vector<UpdateEntry>& entries) noexcept : entries_(entries) {}

    HRESULT STDMETHODCALLTYPE GetStream(UInt32 index, ISequentialInStream** stream) noexcept override {
        entries_[index].contents->Seek({}, STREAM_SEEK_SET, nullptr);
        *stream = new (std::nothrow) IStreamInStream(entries_[index].contents);
        return *stream ? S_OK : E_OUTOFMEMORY;
    }

private:
    const std::vector<UpdateEntry>& entries_;
};

/// One call of the engine's update, with the settings that saves use, and the engine's own encoder.
inline void updateBare(const std::vector<UpdateEntry>& entries, const wchar_t* path) {
    NArchive::N7z::CMethodFull method;
    method.Id = 0x21; // LZMA2
    method.NumStreams = 1;
    method.AddProp32(NCoderPropID::kDictionarySize, kDictionary);
    method.AddProp32(NCoderPropID::kAlgorithm, kFastMode);
    method.AddProp32(NCoderPropID::kNumFastBytes, kFastBytes);
    method.AddProp_Ascii(NCoderPropID::kMatchFinder, kMatchFinder);
    method.AddProp32(NCoderPropID::kNumThreads, threadCount());
    N7z::CCompressionMethodMode mode;
    mode.Methods.Add(method);
    mode.NumThreads = threadCount();
    N7z::CUpdateOptions options;
    options.Method = &mode;
    options.MultiThreadMixer = threadCount() > 1;
    options.NumSolidFiles = 1;
    options.AnalysisLevel = 0;

    CObjectVector<N7z::CUpdateItem> items;
    items.ClearAndReserve(static_cast<unsigned>(entries.size()));
    for (unsigned i = 0; i < entries.size(); ++i) {
        N7z::CUpdateItem& item = items.AddNewInReserved();
        item.IndexInArchive = -1;
        item.IndexInClient = i;
        item.Name = entries[i].name.GetString();
        item.Size = entries[i].size;
        item.MTime = i + 1;
        item.MTimeDefined = true;
        item.CTimeDefined = item.ATimeDefined = item.AttribDefined = item.IsDir = item.IsAnti = false;
        item.NewProps = item.NewData = true;
    }
    const auto callback = Vexel::Detail::adopt(new BareCallback(entries));
    const auto file = Vexel::Detail::adopt(new TemporaryFile(path));
    require(file->create());
    require(N7z::Update(nullptr, nullptr, items, file.Get(), callback.Get(), options));
    require(file->finish());
    file->keep();
}

inline std::unique_ptr<ScratchFile> archiveOf(const wchar_t* name, unsigned count,
                                              const std::vector<unsigned char>& from, std::size_t size) {
    auto file = std::make_unique<ScratchFile>(name);
    file->write(newEntries(count, from, size), nullptr);
    return file;
}

/// Makes a file when it is first asked for, so that a benchmark that is left out costs nothing.
template <class Make>
class Lazy {
public:
    explicit Lazy(Make make) : make_(std::move(make)) {}

    const ScratchFile* operator->() const {
        if (!made_)
            made_ = make_();
        return made_.get();
    }

private:
    Make make_;
    mutable std::unique_ptr<ScratchFile> made_;
};

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

inline void readDatabaseBare(benchmark::State& state, const wchar_t* path) {
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

inline void copyFile(benchmark::State& state, const wchar_t* path) {
    const ScratchFile target(L"copied.7z");
    for (auto _ : state) {
        if (!CopyFileW(path, target.path(), FALSE))
            state.SkipWithError("cannot copy");
        target.remove(state);
    }
}

} // namespace Vexel::Bench
