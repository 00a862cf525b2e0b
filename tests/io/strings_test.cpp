#include "support/compound_file.h"

#include <vexel/strings.h>

#include <windows.h>

#include <objbase.h>
#include <shlwapi.h>
#include <wrl/client.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <string_view>
#include <type_traits>

using Microsoft::WRL::ComPtr;
using namespace std::string_literals;
using namespace std::string_view_literals;

namespace {

/// The system's memory stream with these bytes, at its start.
ComPtr<IStream> systemStream(std::string_view bytes = {}) {
    ComPtr<IStream> stream;
    stream.Attach(SHCreateMemStream(nullptr, 0));
    EXPECT_EQ(stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr), S_OK);
    EXPECT_EQ(stream->Seek({}, STREAM_SEEK_SET, nullptr), S_OK);
    return stream;
}

std::string written(const std::function<void(vxio::IStreamStream&)>& write) {
    vxio::IStreamStream stream(systemStream().Get());
    write(stream);
    std::string bytes(static_cast<std::size_t>(stream.GetLength()), '\0');
    stream.SeekToBegin();
    EXPECT_EQ(stream.ReadBytes(bytes.data(), bytes.size()), bytes.size());
    return bytes;
}

std::wstring text(const CStringW& string) {
    return {string.GetString(), static_cast<std::size_t>(string.GetLength())};
}

template <class Text = CStringW>
std::wstring read(std::string_view bytes,
                  const std::type_identity_t<std::function<void(vxio::IStreamStream&, Text&)>>& reader) {
    vxio::IStreamStream stream(systemStream(bytes).Get());
    Text result(L"before");
    reader(stream, result);
    if constexpr (std::is_same_v<Text, CStringW>)
        return text(result);
    else
        return result;
}

std::string repeated(std::size_t count) {
    std::string bytes;
    for (std::size_t i = 0; i < count; ++i)
        bytes += "x\0"s;
    return bytes;
}

TEST(Strings, AreWrittenInTheirLayouts) {
    const CStringW ab(L"ab");
    EXPECT_EQ(written([&](auto& s) { VxwWriteString(s, ab); }), "\4\0\0\0a\0b\0"s);
    EXPECT_EQ(written([&](auto& s) { VxwWriteString(s, L"ab"sv); }), "\2\0\0\0a\0b\0"s);
    EXPECT_EQ(written([&](auto& s) { VxwWriteUniString(s.GetStream(), ab); }), "\4\0\0\0a\0b\0"s);
    EXPECT_EQ(written([](auto& s) { VxwWriteUniString(s.GetStream(), CStringW()); }), "\0\0\0\0"s);

    struct Case {
        int length;
        std::string header;
    };
    for (const auto& [length, header] : {
             Case{0, "\xFF\xFE\xFF\0"s},
             Case{3, "\xFF\xFE\xFF\3"s},
             Case{254, "\xFF\xFE\xFF\xFE"s},
             Case{255, "\xFF\xFE\xFF\xFF\xFF\0"s},
             Case{300, "\xFF\xFE\xFF\xFF\x2C\1"s},
             Case{0xFFFD, "\xFF\xFE\xFF\xFF\xFD\xFF"s},
             Case{0xFFFE, "\xFF\xFE\xFF\xFF\xFF\xFF\xFE\xFF\0\0"s},
         }) {
        const CStringW string(L'x', length);
        const std::string bytes = written([&](auto& s) { VxwWriteCArchiveString(s, string); });
        EXPECT_EQ(bytes, header + repeated(static_cast<std::size_t>(length))) << length;
        EXPECT_EQ(read(bytes, VxwReadCArchiveString), text(string)) << length;

        // The framework's own archive reads and writes the same.
        CMemFile file;
        {
            CArchive archive(&file, CArchive::store);
            archive << string;
            archive.Close();
        }
        ASSERT_EQ(file.GetLength(), bytes.size());
        std::string stored(bytes.size(), '\0');
        file.SeekToBegin();
        file.Read(stored.data(), static_cast<UINT>(stored.size()));
        EXPECT_EQ(stored, bytes) << length;
    }
}

TEST(Strings, OfLayoutUAreReadFromEveryKindOfStream) {
    struct Case {
        const char* what;
        std::string bytes;
        std::wstring expected;
        bool complete;
    };
    const Support::TempFolder folder;
    for (const Case& c : {
             Case{"plain", "\4\0\0\0a\0b\0"s, L"ab", true},
             Case{"zeros at the end", "\6\0\0\0a\0\0\0\0\0"s, L"a", true},
             Case{"zero inside", "\6\0\0\0a\0\0\0b\0"s, L"a\0b"s, true},
             Case{"only zeros", "\4\0\0\0\0\0\0\0"s, L"", true},
             Case{"empty", "\0\0\0\0"s, L"", true},
             Case{"odd count", "\3\0\0\0a\0b"s, L"a", true},
             Case{"lone surrogate", "\2\0\0\0\0\xD8"s, L"\xD800", true},
             Case{"no count", "\4\0\0"s, L"", false},
             Case{"nothing", "", L"", false},
             Case{"short", "\x10\0\0\0a\0b\0"s, L"ab", false},
             Case{"short by half a character", "\x10\0\0\0a\0b"s, L"ab", false},
             Case{"monstrous count",
                  "\xFF\xFF\xFF\xFF"
                  "a\0"s,
                  L"a", false},
         }) {
        EXPECT_EQ(read(c.bytes, [&](auto& s, auto& t) { EXPECT_EQ(VxwReadUniString(s, t), c.complete); }),
                  c.expected)
            << c.what;
        EXPECT_EQ(read(c.bytes, [](auto& s, auto& t) { VxwReadUniString(s.GetStream(), t); }), c.expected)
            << c.what;
        EXPECT_EQ(read(c.bytes, [](auto& s, auto& t) { VxwReadString(s, t, 2861); }), c.expected) << c.what;

        const std::wstring path = folder.file(L"string");
        Support::writeFile(path, c.bytes);
        CFile file(path.c_str(), CFile::modeRead);
        CStringW fromFile(L"before");
        EXPECT_TRUE(VxwReadUniString(static_cast<void*>(file.m_hFile), fromFile));
        EXPECT_EQ(text(fromFile), c.expected) << c.what;
    }
    CStringW untouched(L"before");
    VxwReadUniString(static_cast<IStream*>(nullptr), untouched);
    VxwWriteUniString(static_cast<IStream*>(nullptr), untouched);
    EXPECT_EQ(text(untouched), L"before");
}

TEST(Strings, OfTheOtherLayoutsAreRead) {
    const auto wide = [](auto& s, std::wstring& t) { VxwReadStringW(s, t); };
    EXPECT_EQ(read<std::wstring>("\2\0\0\0a\0b\0c\0"s, wide), L"ab");
    EXPECT_EQ(read<std::wstring>("\2\0\0\0\0\0\0\0"s, wide), L"\0\0"s) << "zeros stay";
    EXPECT_EQ(read<std::wstring>("\0\0\0\0"s, wide), L"");
    EXPECT_EQ(read<std::wstring>("\xFF\xFF\xFF\xFF"
                                 "a\0b"s,
                                 wide),
              L"ab");
    EXPECT_EQ(read<std::wstring>("a\0b\0"s, [](auto& s, auto& t) { VxwReadStringW(s, t, 1); }), L"a");

    const auto old = [](auto& s, auto& t) { VxwReadString(s, t, 2860); };
    EXPECT_EQ(read<CStringW>("\4\0\0\0ab\0c"s, old), L"ab") << "ends at the zero";
    EXPECT_EQ(read<CStringW>("\0\0\0\0"s, old), L"");
    EXPECT_EQ(read<std::wstring>("\4\0\0\0ab\0c"s, old), L"ab\0c"s);
    EXPECT_EQ(read<std::wstring>("\0\0\0\0"s, old), L"before") << "a count of 0 leaves the target";
    EXPECT_EQ(read<std::wstring>("\1\0\0\0a\0"s, [](auto& s, auto& t) { VxwReadString(s, t, 2861); }), L"a");

    EXPECT_EQ(read("\3abc"
                   "def"s,
                   VxwReadCArchiveString),
              L"\x6261\x6463\x6665")
        << "without a mark, wide all the same";
    EXPECT_EQ(read("\xFF\2\0a\0b\0"s, VxwReadCArchiveString), L"ab");
    EXPECT_EQ(read("\xFF\xFE\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x7F"
                   "a\0"s,
                   VxwReadCArchiveString),
              L"a");
    for (const std::string& header :
         {"\xFF\xFF\xFF\0\0\0\x80"s, "\xFF\xFE\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\1\0\0\0\1\0\0\0"s}) {
        try {
            read(header, VxwReadCArchiveString);
            ADD_FAILURE() << "a length beyond what a string holds was taken";
        } catch (CArchiveException* failure) {
            EXPECT_EQ(failure->m_cause, CArchiveException::genericException);
            failure->Delete();
        }
    }
}

TEST(Strings, GoToFilesWhoseFailuresRaise) {
    const Support::TempFolder folder;
    const std::wstring path = folder.file(L"string");
    CFile file(path.c_str(), CFile::modeCreate | CFile::modeWrite);
    EXPECT_TRUE(VxwWriteUniString(static_cast<void*>(file.m_hFile), CStringW(L"ab")));
    EXPECT_EQ(VxwGetFilePointer(file.m_hFile), 8U);
    CStringW string;
    const auto raises = [](const auto& call) {
        try {
            call();
            return 0L;
        } catch (CFileException* failure) {
            const long error = failure->m_lOsError;
            failure->Delete();
            return error;
        }
    };
    EXPECT_EQ(raises([&] { VxwReadUniString(static_cast<void*>(file.m_hFile), string); }),
              ERROR_ACCESS_DENIED);
    EXPECT_EQ(raises([&] { VxwWriteUniString(INVALID_HANDLE_VALUE, string); }), ERROR_INVALID_HANDLE);
    EXPECT_EQ(raises([&] { VxwGetFilePointer(INVALID_HANDLE_VALUE); }), ERROR_INVALID_HANDLE);
}

TEST(StreamAdapter, HoldsOneReferenceAndMovesLikeItsStream) {
    const auto references = [](IStream* stream) {
        stream->AddRef();
        return stream->Release();
    };
    const ComPtr<IStream> com = systemStream("0123");
    const ULONG before = references(com.Get());
    {
        vxio::IStreamStream stream(com.Get());
        EXPECT_EQ(references(com.Get()), before + 1);
        stream.Attach(com.Get());
        EXPECT_EQ(references(com.Get()), before + 1);
        vxio::IStreamStream copy = stream;
        EXPECT_EQ(references(com.Get()), before + 2);
        vxio::IStreamStream& same = copy;
        copy = std::move(same);
        EXPECT_TRUE(copy);
        stream = std::move(copy); // the same COM stream: both keep it
        EXPECT_TRUE(copy);        // NOLINT(bugprone-use-after-move)
        const vxio::IStreamStream moved = std::move(copy);
        EXPECT_FALSE(copy); // NOLINT(bugprone-use-after-move)
        stream.Attach(nullptr);
        EXPECT_EQ(references(com.Get()), before + 1);
    }
    EXPECT_EQ(references(com.Get()), before);

    using Origin = vxio::IReadStream::SeekPosition;
    vxio::IStreamStream stream(com.Get());
    vxio::IReadStream& reader = stream;
    char bytes[10];
    EXPECT_EQ(reader.ReadBytes(bytes, 10), 4U);
    EXPECT_EQ(reader.ReadBytes(bytes, 10), 0U);
    EXPECT_EQ(reader.Seek(Origin::Begin, 2), 2U);
    EXPECT_EQ(reader.Seek(static_cast<Origin>(7), 0), 2U);
    EXPECT_EQ(reader.Seek(Origin::Current, -5), 2U) << "a failed move stays";
    EXPECT_EQ(reader.Seek(Origin::End, -1), 3U);
    EXPECT_EQ(reader.SeekToEnd(), 4U);
    EXPECT_EQ(reader.GetLength(), 4U);
    reader.SeekToBegin();
    EXPECT_EQ(reader.GetPosition(), 0U);
    EXPECT_EQ(stream.WriteBytes("ab", 2), 2U);
    stream.Close();
    EXPECT_EQ(stream.SeekToEnd() + stream.GetLength() + stream.GetPosition() + stream.ReadBytes(bytes, 4) +
                  stream.WriteBytes(bytes, 4) + vxio::IStreamStream::WriteBytes(nullptr, bytes, 4),
              0U);
}

} // namespace
