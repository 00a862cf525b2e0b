// The check of the headers against the engine itself: what is well-formed passes and reads as it would have
// without the check, and whatever passes ends in the engine with no more memory than the bytes account for.

#include "archive/engine_api.h"
#include "archive/engine_status.h"
#include "archive/header_check.h"
#include "archive/header_stream.h"
#include "base/com_pointer.h"
#include "support/archive_bytes.h"
#include "support/compound_file.h"
#include "support/scarce_memory.h"

#include <7zip/Common/StreamObjects.h>

#include <algorithm>

namespace {

using namespace ArchiveBytes;
using namespace Vexel::Storage::Engine;
using NArchive::N7z::CDbEx;

class Input final : public HeaderSource {
public:
    explicit Input(const std::string& bytes, unsigned reads = ~0U) : bytes_(bytes), reads_(reads) {}
    std::uint64_t size() const noexcept override { return bytes_.size(); }
    HRESULT read(std::uint64_t offset, std::span<std::byte> target, std::size_t& count) noexcept override {
        if (reads_-- == 0)
            return STG_E_LOCKVIOLATION;
        count = offset < bytes_.size() ? (std::min)(target.size(), bytes_.size() - std::size_t(offset)) : 0;
        std::memcpy(target.data(), bytes_.data() + (count > 0 ? offset : 0), count);
        return S_OK;
    }

private:
    const std::string& bytes_;
    unsigned reads_;
};

std::string sample(std::wstring_view name) { return Support::readFile(Support::samplePath(name)); }

HRESULT readDatabase(IInStream* input, CDbEx& database) {
    const UInt64 limit = 0;
    NArchive::N7z::CInArchive archive(false);
    const HRESULT status = withEngine(S_FALSE, [&] { return archive.Open(input, &limit); });
    return status != S_OK ? status : withEngine(S_FALSE, [&] { return archive.ReadDatabase(database); });
}
HRESULT readDirectly(const std::string& file, CDbEx& database) {
    const CMyComPtr2_Create<IInStream, CBufInStream> input;
    input->Init(reinterpret_cast<const Byte*>(file.data()), file.size());
    return readDatabase(input, database);
}
HRESULT readChecked(PlainHeader header, CDbEx& database) {
    return readDatabase(Vexel::Detail::make<HeaderStream>(std::move(header)).Get(), database);
}

/// All that the engine read.
std::string contents(const CDbEx& db) {
    std::string all = little(db.ArcInfo.DataStartPosition) + little(db.NumFolders);
    all += std::string_view(reinterpret_cast<const char*>(db.NamesBuf.ConstData()), db.NamesBuf.Size());
    all += std::string_view(reinterpret_cast<const char*>(db.CodersData.ConstData()), db.CodersData.Size());
    for (unsigned i = 0; i < db.NumPackStreams; ++i)
        all += little(db.PackPositions[i + 1]);
    for (unsigned i = 0; i < db.Files.Size(); ++i) {
        const auto& file = db.Files[i];
        UInt64 time = 0;
        db.MTime.GetItem(i, time);
        all +=
            little(file.Size) + little(file.Crc) + little(file.HasStream) + little(file.IsDir) + little(time);
    }
    return all;
}

void expectFault(const char* name, const std::string& file, HeaderFault fault, unsigned reads = ~0U) {
    SCOPED_TRACE(name);
    Input input(file, reads);
    const std::size_t before = AllocatedBytes();
    const HeaderVerdict verdict = checkHeaders(input);
    EXPECT_EQ(verdict.fault, fault) << verdict.what;
    EXPECT_EQ(SUCCEEDED(verdict.status), fault == HeaderFault::None);
    EXPECT_LE(AllocatedBytes() - before,
              10000 * file.size()); // as much as the largest header that such a file could hold
}

TEST(HeaderCheck, PassesWhatTheEngineReads) {
    std::string unfinished = sample(L"plain-lzma2.7z");
    unfinished.replace(8, 24, 24, '\0');
    std::u16string deep, nested, counted; // names that pack as well as any
    for (int i = 0; i < 1000; ++i)
        nested += (deep += deep.empty() ? u"a" : u"/a") + u'\0';
    std::u16string longNames;
    for (int i = 100'000; i < 300'000; ++i) {
        for (const char digit : std::to_string(i))
            counted += static_cast<char16_t>(digit);
        counted += u'\0';
        if (i < 120'000)
            longNames += std::u16string(500, u'x') + counted.substr(counted.size() - 7);
    }
    const std::pair<const char*, std::string> cases[] = {
        {"plain header", sample(L"plain-lzma2.7z")},
        {"packed header", sample(L"plain-lzma-packed-header.7z")},
        {"no items", sample(L"empty.7z")},
        {"unknown method", sample(L"unsupported-ppmd.7z")},
        {"unfinished, with its header", unfinished},
        {"deep tree", withPackedHeader(listHeader(1000, nested))},
        {"names that count up", withPackedHeader(listHeader(200'000, counted))},
        {"long names", withPackedHeader(listHeader(20'000, longNames))},
        {"huge dictionary",
         archiveOf("x", bytes({1, 4}) + packInfo(1) + unpackInfo(lzma2Folder, 600) + bytes({0, 5, 1, 0, 0}))},
        {"property twice", archiveOf("", bytes({1, 5, 1, 0x0E, 1, 0x80, 0x0E, 1, 0x80, 0, 0}))},
        {"header of no streams", archiveOf("", bytes({0x17, 0}))},
        {"stored header", archiveOf(bytes({1, 0}), packedHeader(copyFolder, 2, 2))},
        {"item without a name", archiveOf("x", bytes({1, 4}) + packInfo(1) + unpackInfo(copyFolder, 1) +
                                                   bytes({0, 5, 1, 0x19, 3, 0, 0, 0, 0, 0}))},
    };
    for (const auto& [name, file] : cases) {
        SCOPED_TRACE(name);
        Input input(file);
        PlainHeader header;
        const HeaderVerdict verdict = checkHeaders(input, &header);
        EXPECT_EQ(verdict.status, S_OK) << verdict.what << " at " << verdict.where;
        CDbEx direct, checked;
        direct.Clear();
        checked.Clear();
        EXPECT_EQ(readDirectly(file, direct), S_OK);
        EXPECT_EQ(readChecked(std::move(header), checked), S_OK);
        EXPECT_EQ(contents(direct), contents(checked));
    }
}

TEST(HeaderCheck, RefusesWhatTheBytesCannotHold) {
    constexpr std::uint64_t kHuge = 1ULL << 60;
    const std::string items = bytes({1, 5}), streams = bytes({1, 4}), one = packInfo(1);
    const std::string folder = one + unpackInfo(copyFolder, 1);
    const std::pair<const char*, std::string> headers[] = {
        {"items with a time", items + number(0x7FFFFFFF) + bytes({0x14, 2, 1, 0, 0, 0})},
        {"packed streams", streams + bytes({6, 0}) + number(1 << 30) + bytes({9, 0, 0})},
        {"folders", streams + bytes({7, 11}) + number(1 << 30) + bytes({0, 1, 1, 0})},
        {"streams in a folder", streams + folder + bytes({8, 13}) + number(0x7FFFFFFF) + bytes({9, 0})},
        {"packed header too large", packedHeader(lzmaFolder, 600, kHuge)},
        {"packed bytes behind the header", streams + packInfo(601) + unpackInfo(copyFolder, 601)},
        {"packed sizes that wrap", streams + bytes({6, 0, 2, 9}) + number(~0ULL) + bytes({2, 0, 0})},
        {"streams larger than their folder", streams + folder + bytes({8, 13, 2, 9, 2, 0, 0})},
        {"names elsewhere", items + bytes({1, 0x11, 2, 1, 0, 0, 0})},
        {"fewer names than items", listHeader(2, u"a\0b"s)},
        {"property longer than its values", items + bytes({1, 0x0E, 2, 0x80, 0, 0, 0})},
        {"two folders of one packed stream",
         streams + one + bytes({7, 11, 2, 0}) + copyFolder + copyFolder + bytes({12, 1, 1, 0, 0})},
    };
    for (const auto& [name, header] : headers)
        expectFault(name, archiveOf(std::string(600, 'x'), header), HeaderFault::Header);

    const std::pair<const char*, std::string> unsupported[] = {
        {"2^60 items", items + number(kHuge) + bytes({0, 0})},
        {"2^30 coders", streams + one + unpackInfo(number(1 << 30), 1)},
        {"output into a missing input", streams + one + unpackInfo(bytes({2, 1, 0, 1, 0, 2, 0}), 1)},
        {"item without its stream", items + bytes({1, 0, 0})},
    };
    for (const auto& [name, header] : unsupported)
        expectFault(name, archiveOf("x", header), HeaderFault::Unsupported);

    const std::string many = listHeader(1000000, std::u16string(1000000, u'\0'));
    expectFault("items in a few packed bytes", withPackedHeader(many), HeaderFault::Header);
    expectFault("packed twice", withPackedHeader(packedHeader(lzmaFolder, 1, 1)), HeaderFault::Header);
    expectFault("header behind the end", start(1ULL << 63, 1ULL << 63, 0), HeaderFault::Header);
    expectFault("encrypted header", sample(L"encrypted-header.7z"), HeaderFault::Unsupported);
    expectFault("does not unpack", archiveOf(std::string(600, 'x'), packedHeader(lzmaFolder, 600, 5000)),
                HeaderFault::Unreadable);
    expectFault("unfinished", "7z\xBC\xAF\x27\x1C\0\4"s + std::string(600, '\0'), HeaderFault::Unreadable);
    expectFault("something else", std::string(600, '7'), HeaderFault::NotAnArchive);
    for (unsigned reads = 0; reads < 3; ++reads)
        expectFault("input that fails", sample(L"solid.7z"), HeaderFault::Input, reads);
}

TEST(HeaderCheck, LeavesChecksumsToTheEngineButTellsDamageFromNonsense) {
    const std::string list = listHeader(1, u"a\0"s), nonsense = bytes({1, 5}) + number(1ULL << 60);
    for (const std::uint32_t damage : {0U, 1U}) {
        const auto plain = [&](const std::string& header) {
            return start(0, header.size(), checksum(header) ^ damage) + header;
        };
        const auto packed = [&](const std::string& header) {
            const std::string digest = bytes({10, 1}) + little(checksum(header) ^ damage);
            return archiveOf(header, bytes({0x17}) + packInfo(header.size()) +
                                         unpackInfo(copyFolder, header.size(), digest) + bytes({0}));
        };
        for (const std::string& file : {plain(list), packed(list)}) {
            Input input(file);
            PlainHeader header;
            CDbEx database;
            database.Clear();
            EXPECT_EQ(checkHeaders(input, &header).fault, HeaderFault::None);
            EXPECT_EQ(readChecked(std::move(header), database) == S_OK, damage == 0);
        }
        for (const std::string& file : {plain(nonsense), packed(nonsense)})
            expectFault("nonsense", file, damage == 0 ? HeaderFault::Unsupported : HeaderFault::Header);
    }
}

// Whatever passes is read, with memory in proportion to its bytes.
void judge(const std::string& file) {
    Input input(file);
    PlainHeader header;
    if (checkHeaders(input, &header).fault != HeaderFault::None)
        return;
    const std::size_t size = header.bytes.size();
    CDbEx database;
    database.Clear();
    const std::size_t before = AllocatedBytes();
    EXPECT_EQ(readChecked(std::move(header), database), S_OK);
    EXPECT_LE(AllocatedBytes() - before, 20 * size + 2000);
}

TEST(HeaderCheck, LetsNoDamageThrough) {
    for (const wchar_t* name : {L"copy.7z", L"solid.7z", L"unsupported-bcj.7z", L"encrypted-data.7z"}) {
        SCOPED_TRACE(name);
        const std::string whole = sample(name);
        Input input(whole);
        PlainHeader plain;
        ASSERT_EQ(checkHeaders(input, &plain).fault, HeaderFault::None);
        const std::string packed = whole.substr(32, plain.offset - 32);
        const std::string header(reinterpret_cast<const char*>(plain.bytes.data()), plain.bytes.size());
        Support::sweepDamage(header, 0, {1, 2, 4, 8, 16, 32, 64, 128, 255},
                             [&](const std::string& damaged) { judge(archiveOf(packed, damaged)); });
    }
}

} // namespace
