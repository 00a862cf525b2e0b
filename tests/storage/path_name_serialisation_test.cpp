#include "io/com_pointer.h"
#include "support/compound_file.h"

#include <vexel/path_name.h>
#include <vexel/storage.h>
#include <vexel/strings.h>

#include <windows.h>

#include <shlwapi.h>
#include <wrl/client.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

using Microsoft::WRL::ComPtr;
using namespace std::string_literals;

namespace {

using ReadFlag = SharedPathName::ReadFlag;
using ReadFlags = Vexel::FlagSet<ReadFlag>;

ComPtr<IStream> systemStream(std::string_view bytes) {
    ComPtr<IStream> stream = Vexel::Detail::adopt(SHCreateMemStream(nullptr, 0));
    stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr);
    stream->Seek({}, STREAM_SEEK_SET, nullptr);
    return stream;
}

std::string contents(IStream* stream) {
    std::string bytes(100, '\0');
    ULONG done = 0;
    stream->Seek({}, STREAM_SEEK_SET, nullptr);
    stream->Read(bytes.data(), 100, &done);
    bytes.resize(done);
    return bytes;
}

std::string archived(const SharedPathName& name) {
    CMemFile file;
    CArchive archive(&file, CArchive::store);
    name.write(archive);
    archive.Close();
    std::string bytes(static_cast<std::size_t>(file.GetLength()), '\0');
    file.SeekToBegin();
    file.Read(bytes.data(), static_cast<UINT>(bytes.size()));
    return bytes;
}

// "ab" hashes to 97 * 33 + 98 = 3299 = 0x0CE3.
const std::string text = "\4\0\0\0a\0b\0"s;
const std::string hash = "\xE3\x0C\0\0"s;
const SharedPathName ab(L"ab", true, false);

TEST(PathNameSerialisation, WritesTheTextAndItsHash) {
    EXPECT_EQ(archived(ab), "\xFF\xFE\xFF\2a\0b\0"s + hash);
    EXPECT_EQ(archived({}), "\xFF\xFE\xFF\0"s);

    const ComPtr<IStream> com = systemStream({});
    vxio::IStreamStream stream(com.Get());
    ab.write(stream, 3654, SharedPathName::ConvertVersion);
    EXPECT_EQ(contents(com.Get()), text);
    ab.write(stream, 3655, SharedPathName::ConvertVersion);
    SharedPathName().write(stream, 3655, SharedPathName::ConvertVersion);
    ab.write(com.Get());
    SharedPathName().write(com.Get());
    ab.write(static_cast<IStream*>(nullptr));
    EXPECT_EQ(contents(com.Get()), text + text + hash + "\0\0\0\0"s + text + hash + "\0\0\0\0"s);

    CMemFile file;
    CArchive loading(&file, CArchive::load);
    loading.m_strFileName = L"drawing";
    try {
        ab.write(loading);
        ADD_FAILURE() << "wrote to an archive that is loading";
    } catch (CArchiveException* failure) {
        EXPECT_EQ(failure->m_cause, CArchiveException::readOnly);
        EXPECT_STREQ(failure->m_strFileName, L"drawing");
        failure->Delete();
    }
}

struct Reader {
    const char* what;
    bool archiveLayout;
    bool caseCountsWithoutHash;
    std::function<void(SharedPathName&, const std::string&, unsigned version, ReadFlags)> read;
};

const std::vector<Reader> readers{
    {"archive", true, true,
     [](SharedPathName& name, const std::string& bytes, unsigned version, ReadFlags flags) {
         CMemFile file;
         file.Write(bytes.data(), static_cast<UINT>(bytes.size()));
         file.SeekToBegin();
         CArchive archive(&file, CArchive::load);
         name.read(archive, version, SharedPathName::ConvertVersion, flags);
     }},
    {"stream", false, true,
     [](SharedPathName& name, const std::string& bytes, unsigned version, ReadFlags flags) {
         vxio::IStreamStream stream(systemStream(bytes).Get());
         name.read(stream, version, SharedPathName::ConvertVersion, flags);
     }},
    {"stream, archive layout", true, true,
     [](SharedPathName& name, const std::string& bytes, unsigned version, ReadFlags flags) {
         vxio::IStreamStream stream(systemStream(bytes).Get());
         name.read(stream, version, SharedPathName::ConvertVersion, flags | ReadFlag::CArchiveString);
     }},
    {"COM stream", false, false,
     [](SharedPathName& name, const std::string& bytes, unsigned version, ReadFlags flags) {
         name.read(systemStream(bytes).Get(), version, SharedPathName::ConvertVersion, flags);
     }},
};

std::string storedFor(const Reader& reader, const std::string& utf16) {
    const char length = static_cast<char>(utf16.size());
    return reader.archiveLayout ? "\xFF\xFE\xFF"s + static_cast<char>(length / 2) + utf16
                                : length + "\0\0\0"s + utf16;
}

TEST(PathNameSerialisation, ReadsByVersion) {
    const SharedPathName otherSpelling(L"Serialised", true, false);
    for (const Reader& reader : readers) {
        SCOPED_TRACE(reader.what);
        const auto stored = [&](const std::string& utf16) { return storedFor(reader, utf16); };
        const std::string wrongHash = "\1\2\3\4"s;
        SharedPathName name(L"before", true, false);
        reader.read(name, stored("a\0b\0"s), 3654, ReadFlag::CaseSensitive);
        EXPECT_EQ(name, ab) << "no hash follows";
        reader.read(name, stored("a\0b\0"s) + wrongHash, 3687, ReadFlag::CaseSensitive);
        EXPECT_EQ(name, ab) << "the hash is dropped";
        reader.read(name, stored("a\0b\0"s) + hash, 3688, ReadFlag::CaseSensitive);
        EXPECT_EQ(name, ab) << "the hash is right";
        reader.read(name, stored("a\0b\0"s) + wrongHash, 3688, ReadFlag::CaseSensitive);
        EXPECT_NE(name, ab) << "the hash is taken at its word";
        EXPECT_STREQ(name.asString(), L"ab");
        EXPECT_EQ(archived(name), "\xFF\xFE\xFF\2a\0b\0"s + wrongHash) << "and written as it came";
        reader.read(name, stored("C\0:\0/\0x\0"s) + wrongHash, 3688, ReadFlag::CaseSensitive);
        EXPECT_STREQ(name.asString(), L"C:/x") << "and so is the text";
        reader.read(name, stored("C\0:\0/\0x\0"s) + wrongHash, 3687, ReadFlag::CaseSensitive);
        EXPECT_STREQ(name.asString(), LR"(C:\x)");
        reader.read(name, stored(""), 3688, ReadFlag::CaseSensitive);
        EXPECT_TRUE(name.empty());

        const std::string shouted = "S\0E\0R\0I\0A\0L\0I\0S\0E\0D\0"s;
        reader.read(name, stored(shouted), 3654, {});
        EXPECT_EQ(name, otherSpelling);
        reader.read(name, stored(shouted), 3654, ReadFlag::CaseSensitive);
        EXPECT_EQ(name == otherSpelling, !reader.caseCountsWithoutHash);
        reader.read(name, stored(shouted) + wrongHash, 3655, ReadFlag::CaseSensitive);
        EXPECT_NE(name, otherSpelling);
    }
}

// Streams give what came: a character may lack its high byte, and a cut hash counts as 0. Archives raise.
TEST(PathNameSerialisation, SurvivesACutAtEveryByte) {
    const SharedPathName withoutHash = [] {
        SharedPathName name;
        vxio::IStreamStream stream(systemStream(text + "\0\0\0\0"s).Get());
        name.read(stream, 3688, SharedPathName::ConvertVersion, ReadFlag::CaseSensitive);
        return name;
    }();
    for (const Reader& reader : readers) {
        const std::string whole = storedFor(reader, "a\0b\0"s) + hash;
        const std::size_t header = 4;
        const std::size_t textEnd = header + 4;
        for (std::size_t cut = 0; cut < whole.size(); ++cut) {
            SCOPED_TRACE(reader.what + " cut at "s + std::to_string(cut));
            SharedPathName name(L"before", true, false);
            try {
                reader.read(name, whole.substr(0, cut), 3688, ReadFlag::CaseSensitive);
                EXPECT_FALSE(&reader == &readers.front());
                const std::size_t characters = cut <= header ? 0 : (std::min(cut, textEnd) - header + 1) / 2;
                EXPECT_EQ(name.asStringView(), std::wstring_view(L"ab", characters));
                EXPECT_EQ(name == withoutHash, characters == 2);
            } catch (CArchiveException* failure) {
                EXPECT_EQ(failure->m_cause, CArchiveException::endOfFile);
                failure->Delete();
                EXPECT_TRUE(&reader == &readers.front());
                EXPECT_STREQ(name.asString(), cut < textEnd ? L"before" : L"");
            }
        }
    }
}

TEST(PathNameSerialisation, LeavesNullStreamsAndStoringArchivesAlone) {
    SharedPathName name(L"ab", true, false);
    name.read(static_cast<IStream*>(nullptr), 3688, SharedPathName::ConvertVersion, {});
    name.read(StreamRef(), 3688, SharedPathName::ConvertVersion, {});
    name.read(StreamRef(), 3688, SharedPathName::ConvertVersion, ReadFlag::CArchiveString);
    name.write(StreamRef());
    EXPECT_STREQ(name.asString(), L"ab");

    CMemFile file;
    CArchive storing(&file, CArchive::store);
    try {
        name.read(storing, 3688, SharedPathName::ArchiveConvertVersion, {});
        ADD_FAILURE() << "read from an archive that is storing";
    } catch (CArchiveException* failure) {
        EXPECT_EQ(failure->m_cause, CArchiveException::writeOnly);
        failure->Delete();
    }
}

TEST(PathNameSerialisation, GoesThroughAStreamOfADocument) {
    const Support::TempFolder folder;
    const std::wstring path = folder.file(L"names.cfb");
    Support::writeCompoundFile(path, {{L"Names", ""}});
    StorageRef document;
    ASSERT_EQ(document.open(SharedPathName(path, false, false), RootStorageOpenMode::ReadWrite, false), S_OK);
    StreamRef stream;
    ASSERT_EQ(stream.open(L"Names", document, false), S_OK);
    ab.write(stream);
    ab.write(stream, 3655, SharedPathName::ConvertVersion);
    VxwWriteCArchiveString(stream, L"archived");
    stream.SeekToBegin();
    for (const unsigned version : {3655U, 3688U}) {
        SharedPathName name;
        name.read(static_cast<const StreamRef&>(stream), version, SharedPathName::ConvertVersion,
                  ReadFlag::CaseSensitive);
        EXPECT_EQ(name, ab);
    }
    SharedPathName name;
    name.read(static_cast<const StreamRef&>(stream), 3654, SharedPathName::ConvertVersion,
              ReadFlag::CArchiveString);
    EXPECT_STREQ(name.asString(), L"archived");
}

} // namespace
