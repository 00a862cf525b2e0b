#include "support/framework_files.h"
#include "support/handles.h"
#include "support/streams.h"

#include <vexel/strings.h>

#include <algorithm>

using namespace Support;
using namespace std::string_literals;

namespace {

using ReadFlag = SharedPathName::ReadFlag;
using ReadFlags = Vexel::FlagSet<ReadFlag>;

constexpr auto kConvert = SharedPathName::ArchiveConvertVersion; // 3661

std::string archived(const SharedPathName& name) {
    return Support::stored([&](CArchive& archive) { name.write(archive); });
}

// "ab" hashes to 97 * 33 + 98 = 3299 = 0x0CE3.
const std::string kText = "\4\0\0\0a\0b\0"s;
const std::string kHash = "\xE3\x0C\0\0"s;
const SharedPathName kAb(L"ab", true, false);

TEST(PathNameSerialisation, WritesTheTextAndItsHash) {
    EXPECT_EQ(archived(kAb), "\xFF\xFE\xFF\2a\0b\0"s + kHash);
    EXPECT_EQ(archived({}), "\xFF\xFE\xFF\0"s);

    const auto com = systemStream();
    vxio::IStreamStream stream(com.Get());
    for (const SharedPathName& name : {kAb, SharedPathName()}) {
        name.write(stream, 3660, kConvert);
        name.write(stream, 3661, kConvert);
        name.write(com.Get());
    }
    EXPECT_EQ(bytesOf(com.Get()), kText + kText + kHash + kText + kHash + std::string(12, '\0'));
}

/// Reads a name from these bytes, for a file of that version.
using Reading = void (*)(SharedPathName& name, const std::string& bytes, unsigned version, ReadFlags flags);

struct Reader {
    const char* what;
    bool archiveLayout;
    bool caseCountsWithoutHash;
    Reading read;
};

template <class Stream>
void readFrom(Stream&& stream, SharedPathName& name, unsigned version, ReadFlags flags) {
    name.read(stream, version, kConvert, flags);
}

const Reader kReaders[]{
    {"archive", true, true,
     [](auto& name, auto& bytes, auto version, auto flags) {
         Support::loadFrom(bytes, [&](CArchive& archive) { readFrom(archive, name, version, flags); });
     }},
    {"stream", false, true,
     [](auto& name, auto& bytes, auto version, auto flags) {
         readFrom(vxio::IStreamStream(systemStream(bytes).Get()), name, version, flags);
     }},
    {"stream, archive layout", true, true,
     [](auto& name, auto& bytes, auto version, auto flags) {
         readFrom(vxio::IStreamStream(systemStream(bytes).Get()), name, version,
                  flags | ReadFlag::CArchiveString);
     }},
    {"COM stream", false, false,
     [](auto& name, auto& bytes, auto version, auto flags) {
         readFrom(systemStream(bytes).Get(), name, version, flags);
     }},
};

std::string storedFor(const Reader& reader, const std::string& utf16) {
    const char length = static_cast<char>(utf16.size());
    return reader.archiveLayout ? "\xFF\xFE\xFF"s + static_cast<char>(length / 2) + utf16
                                : length + "\0\0\0"s + utf16;
}

TEST(PathNameSerialisation, ReadsByVersion) {
    const SharedPathName otherSpelling(L"Serialised", true, false);
    const std::string shouted = "S\0E\0R\0I\0A\0L\0I\0S\0E\0D\0"s;
    const std::string absolute = "C\0:\0/\0x\0"s;
    const std::string wrongHash = "\1\2\3\4"s;
    for (const Reader& reader : kReaders) {
        SCOPED_TRACE(reader.what);
        const auto read = [&](const std::string& utf16, const std::string& rest, unsigned version,
                              ReadFlags flags = ReadFlag::CaseSensitive) {
            SharedPathName name(L"before", true, false);
            reader.read(name, storedFor(reader, utf16) + rest, version, flags);
            return name;
        };
        EXPECT_EQ(read("a\0b\0"s, "", 3660), kAb) << "no hash follows";
        EXPECT_STREQ(read(absolute, wrongHash, 3687).asString(), LR"(C:\x)") << "the hash is dropped";
        EXPECT_EQ(read("a\0b\0"s, kHash, 3688), kAb) << "the hash is right";
        const SharedPathName trusted = read(absolute, wrongHash, 3688);
        EXPECT_STREQ(trusted.asString(), L"C:/x") << "what came is taken at its word";
        EXPECT_EQ(archived(trusted), storedFor(kReaders[0], absolute) + wrongHash)
            << "and written as it came";
        EXPECT_TRUE(read("", "", 3688).empty());

        EXPECT_EQ(read(shouted, "", 3660, {}), otherSpelling);
        EXPECT_EQ(read(shouted, "", 3660) == otherSpelling, !reader.caseCountsWithoutHash);
        EXPECT_NE(read(shouted, wrongHash, 3661), otherSpelling);
    }
}

// Streams give what came: a character may lack its high byte, and a cut hash counts as 0. Archives raise.
TEST(PathNameSerialisation, SurvivesACutAtEveryByte) {
    for (const Reader& reader : kReaders) {
        const std::string whole = storedFor(reader, "a\0b\0"s) + kHash;
        const std::size_t header = 4, textEnd = header + 4;
        for (std::size_t cut = 0; cut < whole.size(); ++cut) {
            SCOPED_TRACE(reader.what + " cut at "s + std::to_string(cut));
            SharedPathName name(L"before", true, false);
            const auto read = [&] { reader.read(name, whole.substr(0, cut), 3688, ReadFlag::CaseSensitive); };
            if (&reader == kReaders) {
                EXPECT_EQ(raised<CArchiveException>(read), CArchiveException::endOfFile);
                EXPECT_STREQ(name.asString(), cut < textEnd ? L"before" : L"");
                continue;
            }
            read();
            const std::size_t characters = cut <= header ? 0 : (std::min(cut, textEnd) - header + 1) / 2;
            EXPECT_EQ(name.asStringView(), std::wstring_view(L"ab", characters));
            EXPECT_EQ(archived(name).ends_with("b\0\0\0\0\0"s), characters == 2) << "with its hash";
        }
    }
}

TEST(PathNameSerialisation, LeavesTheWrongKindsOfStreamsAlone) {
    SharedPathName name(L"ab", true, false);
    name.read(static_cast<IStream*>(nullptr), 3688, kConvert, {});
    name.read(StreamRef(), 3688, kConvert, {});
    name.read(StreamRef(), 3688, kConvert, ReadFlag::CArchiveString);
    name.write(static_cast<IStream*>(nullptr));
    name.write(StreamRef());
    EXPECT_STREQ(name.asString(), L"ab");

    CMemFile file;
    CArchive storing(&file, CArchive::store), loading(&file, CArchive::load);
    EXPECT_EQ(raised<CArchiveException>([&] { name.read(storing, 3688, kConvert, {}); }),
              CArchiveException::writeOnly);
    EXPECT_EQ(raised<CArchiveException>([&] { name.write(loading); }), CArchiveException::readOnly);
}

} // namespace
