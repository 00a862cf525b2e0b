// Memory streams against the system's, and against nothing but copying; strings in documents against the
// least that writing and reading them takes.

#include "base/com_pointer.h"
#include "io/small_copy.h"
#include "support/ratio.h"

#include <vexel/framework.h>
#include <vexel/memory_streams.h>
#include <vexel/strings.h>

#include <windows.h>

#include <objidl.h>
#include <shlwapi.h>
#include <wrl/client.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

using Microsoft::WRL::ComPtr;
using Vexel::Bench::Function;
using Vexel::Detail::adopt;
using Vexel::Storage::InMemoryIStream;

namespace {

constexpr ULONG kKiB = 1024;
constexpr ULONG kMiB = 1024 * kKiB;

using Make = ComPtr<::IStream> (*)();

ComPtr<::IStream> ours() { return adopt<::IStream>(new InMemoryIStream()); }
ComPtr<::IStream> systems() { return adopt(SHCreateMemStream(nullptr, 0)); }

// Small blocks stay within the cache, so that the calls count and not the memory.
ULONG lengthFor(ULONG block) { return (std::max)(64 * kKiB, (std::min)(8 * block, 2 * kMiB)); }

void toStart(::IStream* stream) { stream->Seek({}, STREAM_SEEK_SET, nullptr); }

ComPtr<::IStream> filled(Make make, ULONG length) {
    ComPtr<::IStream> stream = make();
    stream->SetSize({.QuadPart = length});
    stream->Write(std::vector<char>(length, 'x').data(), length, nullptr);
    return stream;
}

Function reading(Make make, ULONG block) {
    return [=](benchmark::State& state) {
        const ULONG length = lengthFor(block);
        const ComPtr<::IStream> stream = filled(make, length);
        std::vector<char> buffer(block);
        for (auto _ : state) {
            toStart(stream.Get());
            ULONG total = 0;
            for (ULONG at = 0; at < length; at += block) {
                ULONG done = 0;
                stream->Read(buffer.data(), block, &done);
                total += done;
            }
            if (total != length)
                state.SkipWithError("a short read");
        }
    };
}

Function writing(Make make, ULONG block) {
    return [=](benchmark::State& state) {
        const ULONG length = lengthFor(block);
        const ComPtr<::IStream> stream = filled(make, length);
        const std::vector<char> buffer(block, 'y');
        for (auto _ : state) {
            toStart(stream.Get());
            ULONG total = 0;
            for (ULONG at = 0; at < length; at += block) {
                ULONG done = 0;
                stream->Write(buffer.data(), block, &done);
                total += done;
            }
            if (total != length)
                state.SkipWithError("a short write");
        }
    };
}

// What reading (or writing) does to memory, and nothing else.
Function copying(ULONG block, bool reads) {
    return [=](benchmark::State& state) {
        std::vector<char> contents(lengthFor(block), 'x'), buffer(block, 'y');
        for (auto _ : state) {
            for (std::size_t at = 0; at < contents.size(); at += block) {
                char* const place = contents.data() + at;
                std::memcpy(reads ? buffer.data() : place, reads ? place : buffer.data(), block);
                benchmark::ClobberMemory();
            }
        }
    };
}

// What the streams copy short pieces by, against the call that it stands for.
template <void (*Copy)(void*, const void*, std::size_t)>
Function copyingPieces(std::size_t length) {
    return [=](benchmark::State& state) {
        constexpr std::size_t kSize = std::size_t{64} * kKiB;
        std::vector<char> pieces(kSize + 64, 'x');
        std::vector<char> buffer(64);
        for (auto _ : state) {
            for (std::size_t at = 0; at < kSize; at += length) {
                std::size_t count = length;
                benchmark::DoNotOptimize(count); // known at run time only, as the streams' counts are
                Copy(buffer.data(), pieces.data() + at, count);
                benchmark::ClobberMemory();
            }
        }
    };
}

void moveBytes(void* to, const void* from, std::size_t count) { std::memmove(to, from, count); }

void moveShortBytes(void* to, const void* from, std::size_t count) {
    Vexel::Detail::copyBytes(to, from, count);
}

Function appending(Make make, ULONG block, ULONG length) {
    return [=](benchmark::State& state) {
        const std::vector<char> buffer(block, 'y');
        for (auto _ : state) {
            const ComPtr<::IStream> stream = make();
            ULONG done = block;
            for (ULONG at = 0; at < length && done == block; at += done)
                stream->Write(buffer.data(), block, &done);
            if (done != block)
                state.SkipWithError("a short write");
        }
    };
}

// Strings, a thousand one after the other.

template <class One>
Function onStrings(Make make, void (*fill)(vxio::IWriteStream&, const CStringW&), One one) {
    return [=](benchmark::State& state) {
        vxio::IStreamStream stream(make().Get());
        CStringW text(L"twenty characters...");
        for (int i = 0; i < 1000; ++i)
            fill(stream, text);
        for (auto _ : state) {
            stream.SeekToBegin();
            for (int i = 0; i < 1000; ++i)
                one(stream, text);
        }
        if (text != L"twenty characters...")
            state.SkipWithError("another string");
    };
}

void writeU(vxio::IStreamStream& stream, const CStringW& text) { VxwWriteString(stream, text); }

void readU(vxio::IStreamStream& stream, CStringW& text) { VxwReadUniString(stream, text); }

void writePlainly(vxio::IStreamStream& stream, const CStringW& text) {
    const auto count = static_cast<std::uint32_t>(text.GetLength()) * 2;
    stream.GetStream()->Write(&count, sizeof count, nullptr);
    stream.GetStream()->Write(text.GetString(), count, nullptr);
}

void readPlainly(vxio::IStreamStream& stream, CStringW& text) {
    std::uint32_t count = 0;
    stream.GetStream()->Read(&count, sizeof count, nullptr);
    const int length = static_cast<int>(count / 2);
    stream.GetStream()->Read(text.GetBuffer(length), count, nullptr);
    text.ReleaseBuffer(length);
}

// In the framework's archive, whose layout M is.
template <bool Reads>
void inArchive(benchmark::State& state) {
    CMemFile file;
    CStringW text(L"twenty characters...");
    {
        CArchive archive(&file, CArchive::store);
        for (int i = 0; i < 1000; ++i)
            archive << text;
        archive.Close();
    }
    for (auto _ : state) {
        file.SeekToBegin();
        CArchive archive(&file, Reads ? CArchive::load : CArchive::store);
        for (int i = 0; i < 1000; ++i)
            if constexpr (Reads)
                archive >> text;
            else
                archive << text;
        archive.Close();
    }
}

} // namespace

int main(int argc, char** argv) {
    Vexel::Bench::Suite suite;
    struct Block {
        const char* name;
        ULONG bytes;
        double limit; // above 1 where both do little but copy, and only chance makes a difference
    };
    for (const auto& [name, bytes, limit] :
         {Block{"16 B", 16, 0.6}, {"4 KiB", 4 * kKiB, 1.1}, {"1 MiB", kMiB, 1.1}}) {
        const std::string blocks = std::string(" in blocks of ") + name;
        suite.compare("read" + blocks, limit, reading(ours, bytes), reading(systems, bytes));
        suite.compare("write" + blocks, limit, writing(ours, bytes), writing(systems, bytes));
    }
    suite.compare("read 1 MiB against memcpy", 1 / 0.9, reading(ours, kMiB), copying(kMiB, true));
    suite.compare("write 1 MiB against memcpy", 1 / 0.9, writing(ours, kMiB), copying(kMiB, false));
    for (const std::size_t length : {1U, 4U, 16U, 40U}) {
        suite.compare("copy " + std::to_string(length) + " B against memmove", 0.8,
                      copyingPieces<moveShortBytes>(length), copyingPieces<moveBytes>(length));
    }
    // The system's stream moves its memory with every block: more of them would take it minutes.
    suite.compare("append 1 MiB in blocks of 16 B", 0.5, appending(ours, 16, kMiB),
                  appending(systems, 16, kMiB));
    suite.compare("append 256 MiB in blocks of 16 MiB", 1, appending(ours, 16 * kMiB, 256 * kMiB),
                  appending(systems, 16 * kMiB, 256 * kMiB));
    suite.compare("write 1000 strings, U", 1.5, onStrings(ours, VxwWriteString, writeU),
                  onStrings(systems, VxwWriteString, writePlainly));
    suite.compare("read 1000 strings, U", 1.5, onStrings(ours, VxwWriteString, readU),
                  onStrings(systems, VxwWriteString, readPlainly));
    suite.compare("write 1000 strings, M", 1.5,
                  onStrings(ours, VxwWriteCArchiveString, VxwWriteCArchiveString), inArchive<false>);
    suite.compare("read 1000 strings, M", 1.5, onStrings(ours, VxwWriteCArchiveString, VxwReadCArchiveString),
                  inArchive<true>);
    return suite.run(argc, argv);
}
