// Strings in documents, in all layouts: whatever stands there reads without harm, takes memory as it comes,
// and what is written reads back. The layout of archives is read by the framework as well, which has to
// agree.

#include "fuzz/targets/byte_source.h"
#include "fuzz/targets/memory.h"

#include <vexel/memory_streams.h>
#include <vexel/strings.h>

using namespace Vexel::Fuzz;
using Microsoft::WRL::ComPtr;
using Vexel::Storage::InMemoryIStream;

namespace {

bool areEqual(const CStringW& a, const CStringW& b) {
    return a.GetLength() == b.GetLength() &&
           std::equal(a.GetString(), a.GetString() + a.GetLength(), b.GetString());
}

template <class Read>
bool throwsArchive(const Read& read) {
    try {
        read();
    } catch (CArchiveException* failure) {
        failure->Delete();
        return true;
    }
    return false;
}

void readAll(std::span<const std::uint8_t> bytes, std::size_t most) {
    const auto bounded = [&](auto read) {
        ByteSource source(bytes, most);
        const MemoryWatch memory;
        read(source);
        REQUIRE(memory.most() <= 0x60000 + 16 * bytes.size());
    };
    bounded([](ByteSource& source) {
        CStringW text(L"before");
        VxwReadString(source, text, 2860);
    });
    bounded([](ByteSource& source) {
        CStringW text;
        VxwReadString(source, text, 2861);
    });
    bounded([](ByteSource& source) {
        std::wstring text(L"before");
        VxwReadString(source, text, 2860);
        VxwReadString(source, text, 2861);
    });
    bounded([](ByteSource& source) {
        std::string text;
        VxwReadStringA(source, text);
    });
    bounded([](ByteSource& source) {
        std::wstring text;
        VxwReadStringW(source, text);
        VxwReadStringW(source, text, 0xFFFFFFFF);
    });
    CStringW fromBytes, fromCom;
    bounded([&](ByteSource& source) { VxwReadUniString(source, fromBytes); });
    VxwReadUniString(streamOf(bytes).Get(), fromCom);
    if (most > bytes.size())
        REQUIRE(areEqual(fromBytes, fromCom));
}

/// Those that the framework marks as wide, and that are there as a whole.
void compareWithFramework(std::span<const std::uint8_t> bytes) {
    CStringW ours, theirs;
    ByteSource source(bytes);
    const bool weThrow = throwsArchive([&] { VxwReadCArchiveString(source, ours); });
    std::vector<BYTE> copy(bytes.begin(), bytes.end());
    CMemFile file(copy.data(), static_cast<UINT>(copy.size()));
    CArchive archive(&file, CArchive::load);
    const bool theyThrow = throwsArchive([&] { archive >> theirs; });
    archive.Abort();
    const bool isWide = bytes.size() > 3 && bytes[0] == 0xFF && bytes[1] == 0xFE && bytes[2] == 0xFF;
    if (isWide && !theyThrow) {
        REQUIRE(!weThrow);
        REQUIRE(areEqual(ours, theirs));
    }
}

void writeAndRead(const std::vector<wchar_t>& units) {
    const std::wstring_view view(units.data(), units.size());
    CStringW text;
    text.SetString(units.data(), static_cast<int>(units.size()));
    const auto there = [&](auto write) {
        const ComPtr<InMemoryIStream> stream = streamOf({});
        vxio::IStreamStream bytes(stream.Get());
        write(bytes);
        bytes.SeekToBegin();
        return bytes;
    };
    const CStringW trimmed(units.data(), static_cast<int>(view.find_last_not_of(L'\0') + 1));
    CStringW back;
    auto layoutU =
        there([&](auto& stream) { VxwWriteString(static_cast<vxio::IWriteStream&>(stream), text); });
    REQUIRE(VxwReadUniString(static_cast<vxio::IReadStream&>(layoutU), back) && areEqual(back, trimmed));
    std::wstring wide;
    auto layoutW =
        there([&](auto& stream) { VxwWriteString(static_cast<vxio::IWriteStream&>(stream), view); });
    VxwReadStringW(static_cast<vxio::IReadStream&>(layoutW), wide);
    REQUIRE(wide == view);
    auto layoutM =
        there([&](auto& stream) { VxwWriteCArchiveString(static_cast<vxio::IWriteStream&>(stream), text); });
    VxwReadCArchiveString(static_cast<vxio::IReadStream&>(layoutM), back);
    REQUIRE(areEqual(back, text));
    REQUIRE(layoutM.GetPosition() == layoutM.GetLength());
    const ComPtr<InMemoryIStream> com = streamOf({});
    VxwWriteUniString(com.Get(), text);
    com->rewind();
    VxwReadUniString(com.Get(), back);
    REQUIRE(areEqual(back, trimmed));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const std::uint8_t most = input.byte();
    const auto bytes = input.rest();
    readAll(bytes, most > 8 ? ~std::size_t{0} : most + std::size_t{1});
    compareWithFramework(bytes);
    writeAndRead(Input(bytes.data(), bytes.size()).text(bytes.size()));
    return 0;
}
