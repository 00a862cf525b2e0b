#include "support/compound_file.h"
#include "support/framework_files.h"
#include "support/platform_guard.h"
#include "support/recording_stream.h"
#include "support/streams.h"

#include <vexel/strings.h>

#include <type_traits>
#include <vector>

using Microsoft::WRL::ComPtr;
using namespace Support;
using namespace std::string_literals;
using namespace std::string_view_literals;

namespace {

std::string written(const std::function<void(vxio::IStreamStream&)>& write) {
    vxio::IStreamStream stream(systemStream().Get());
    write(stream);
    return Support::bytesOf(stream.GetStream());
}

template <class Text>
std::wstring wide(const Text& text) {
    if constexpr (std::is_same_v<Text, CStringW>)
        return {text.GetString(), static_cast<std::size_t>(text.GetLength())};
    else
        return {text.begin(), text.end()};
}

template <class Text = CStringW>
std::wstring read(std::string_view bytes,
                  const std::type_identity_t<std::function<void(vxio::IStreamStream&, Text&)>>& reader) {
    vxio::IStreamStream stream(systemStream(bytes).Get());
    Text result(L"before");
    reader(stream, result);
    return wide(result);
}

constexpr auto kReadU = [](vxio::IReadStream& stream, CStringW& string) { VxwReadUniString(stream, string); };
constexpr auto kReadW = [](vxio::IReadStream& stream, std::wstring& string) {
    VxwReadStringW(stream, string);
};
constexpr auto kReadOld = [](vxio::IReadStream& stream, auto& string) {
    VxwReadString(stream, string, 2860);
};

TEST(Strings, AreWrittenInTheirLayouts) {
    const CStringW ab(L"ab");
    EXPECT_EQ(written([&](auto& s) { VxwWriteString(s, ab); }), "\4\0\0\0a\0b\0"s);
    EXPECT_EQ(written([&](auto& s) { VxwWriteString(s, L"ab"sv); }), "\2\0\0\0a\0b\0"s);
    EXPECT_EQ(written([&](auto& s) { VxwWriteUniString(s.GetStream(), ab); }), "\4\0\0\0a\0b\0"s);
    EXPECT_EQ(written([](auto& s) { VxwWriteUniString(s.GetStream(), CStringW()); }), "\0\0\0\0"s);

    const std::wstring odd = L"\xDC00\0\xD800z"s; // surrogates the wrong way round, and a zero
    const CStringW oddString(odd.data(), static_cast<int>(odd.size()));
    EXPECT_EQ(read(written([&](auto& s) { VxwWriteString(s, oddString); }), kReadU), odd);
    EXPECT_EQ(read<std::wstring>(written([&](auto& s) { VxwWriteString(s, odd); }), kReadW), odd);
    EXPECT_EQ(read(written([&](auto& s) { VxwWriteCArchiveString(s, oddString); }), VxwReadCArchiveString),
              odd);

    // As the application's own archives write them, whose bytes are tested there.
    for (const int length : {0, 3, 254, 255, 300, 0xFFFD, 0xFFFE}) {
        const CStringW string(L'x', length);
        const std::string bytes = written([&](auto& s) { VxwWriteCArchiveString(s, string); });
        EXPECT_EQ(bytes, Support::stored([&](CArchive& archive) { archive << string; })) << length;
        EXPECT_EQ(read(bytes, VxwReadCArchiveString), wide(string)) << length;
    }
}

TEST(Strings, OfLayoutUAreReadFromEveryKindOfStream) {
    enum End { CutOff, Complete };
    const struct {
        const char* what;
        std::string bytes;
        std::wstring expected;
        End end;
    } cases[] = {
        {"plain", "\4\0\0\0a\0b\0"s, L"ab", Complete},
        {"zeros at the end", "\6\0\0\0a\0\0\0\0\0"s, L"a", Complete},
        {"zero inside", "\6\0\0\0a\0\0\0b\0"s, L"a\0b"s, Complete},
        {"only zeros", "\4\0\0\0\0\0\0\0"s, L"", Complete},
        {"empty", "\0\0\0\0"s, L"", Complete},
        {"odd count", "\3\0\0\0a\0b"s, L"a", Complete},
        {"no count", "\4\0\0"s, L"", CutOff},
        {"nothing", "", L"", CutOff},
        {"short by half a character", "\x10\0\0\0a\0b"s, L"ab", CutOff},
        {"monstrous count", "\xFF\xFF\xFF\xFF"s + "a\0"s, L"a", CutOff},
    };
    const Support::TempFolder folder;
    const std::wstring path = folder.file(L"string");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(
            read(c.bytes, [&](auto& s, auto& t) { EXPECT_EQ(VxwReadUniString(s, t), c.end == Complete); }),
            c.expected);
        EXPECT_EQ(read(c.bytes, [](auto& s, auto& t) { VxwReadUniString(s.GetStream(), t); }), c.expected);
        EXPECT_EQ(read(c.bytes, [](auto& s, auto& t) { VxwReadString(s, t, 2861); }), c.expected);
        Support::writeFile(path, c.bytes);
        CFile file(path.c_str(), CFile::modeRead);
        CStringW fromFile(L"before");
        EXPECT_TRUE(VxwReadUniString(static_cast<void*>(file.m_hFile), fromFile));
        EXPECT_EQ(wide(fromFile), c.expected);
    }
    CStringW untouched(L"before");
    VxwReadUniString(static_cast<IStream*>(nullptr), untouched);
    VxwWriteUniString(static_cast<IStream*>(nullptr), untouched);
    EXPECT_EQ(wide(untouched), L"before");
}

TEST(Strings, OfTheOtherLayoutsAreRead) {
    EXPECT_EQ(read<std::wstring>("\2\0\0\0a\0b\0c\0"s, kReadW), L"ab");
    EXPECT_EQ(read<std::wstring>("\2\0\0\0\0\0\0\0"s, kReadW), L"\0\0"s) << "zeros stay";
    EXPECT_EQ(read<std::wstring>("a\0b\0"s, [](auto& s, auto& t) { VxwReadStringW(s, t, 1); }), L"a");

    EXPECT_EQ(read<CStringW>("\4\0\0\0ab\0c"s, kReadOld), L"ab") << "ends at the zero";
    EXPECT_EQ(read<std::wstring>("\4\0\0\0ab\0c"s, kReadOld), L"ab\0c"s);
    EXPECT_EQ(read<std::wstring>("\0\0\0\0"s, kReadOld), L"before") << "a count of 0 leaves the target";
    EXPECT_EQ(read<std::wstring>("\1\0\0\0a\0"s, [](auto& s, auto& t) { VxwReadString(s, t, 2861); }), L"a");

    const LCID before = GetThreadLocale();
    SetThreadLocale(MAKELCID(MAKELANGID(LANG_JAPANESE, SUBLANG_DEFAULT), SORT_DEFAULT));
    EXPECT_EQ(read<CStringW>("\2\0\0\0\x82\xA0"s, kReadOld), L"\x3042") << "in the thread's code page";
    EXPECT_EQ(read<std::wstring>("\3\0\0\0\x82\xA0z"s, kReadOld), L"\x3042z\0"s)
        << "as long as the bytes were";
    SetThreadLocale(before);

    EXPECT_EQ(read("\3uvwxyz"s, VxwReadCArchiveString), L"\x7675\x7877\x7A79") << "wide without a mark, too";
    EXPECT_EQ(read("\xFF\2\0a\0b\0"s, VxwReadCArchiveString), L"ab");
    EXPECT_EQ(read("\xFF\xFE\xFF\xFF\xFE\xFFx\0y\0"s, VxwReadCArchiveString), L"xy") << "no second mark";
    for (const std::string& header :
         {"\xFF\xFF\xFF\0\0\0\x80"s, "\xFF\xFE\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\1\0\0\0\1\0\0\0"s}) {
        EXPECT_EQ(raised<CArchiveException>([&] { read(header, VxwReadCArchiveString); }),
                  CArchiveException::genericException)
            << "longer than what a string holds";
    }
}

TEST(Strings, GoToFilesWhoseFailuresRaise) {
    const Support::TempFolder folder;
    const std::wstring path = folder.file(L"string");
    CFile file(path.c_str(), CFile::modeCreate | CFile::modeWrite);
    EXPECT_TRUE(VxwWriteUniString(static_cast<void*>(file.m_hFile), CStringW(L"ab")));
    EXPECT_EQ(VxwGetFilePointer(file.m_hFile), 8U);
    CStringW string;
    const auto raises = [](const std::function<void()>& call) {
        return raised(call, &CFileException::m_lOsError);
    };
    EXPECT_EQ(raises([&] { VxwReadUniString(static_cast<void*>(file.m_hFile), string); }),
              ERROR_ACCESS_DENIED);
    EXPECT_EQ(raises([&] { VxwWriteUniString(INVALID_HANDLE_VALUE, string); }), ERROR_INVALID_HANDLE);
    EXPECT_EQ(raises([&] { VxwGetFilePointer(INVALID_HANDLE_VALUE); }), ERROR_INVALID_HANDLE);
    file.Seek(0xFFFFFFFF, CFile::begin);
    EXPECT_EQ(raises([&] { VxwGetFilePointer(file.m_hFile); }), ERROR_SUCCESS) << "cannot be told apart";
    file.Seek(0x100000002, CFile::begin);
    EXPECT_EQ(VxwGetFilePointer(file.m_hFile), 2U);

    const PlatformGuard guard;
    Vexel::Detail::platform().writeFile = [](HANDLE, const void*, DWORD size, DWORD* done, OVERLAPPED*) {
        *done = size - 1;
        return TRUE;
    };
    EXPECT_EQ(raises([&] { VxwWriteUniString(static_cast<void*>(file.m_hFile), string); }), ERROR_DISK_FULL);
    Vexel::Detail::platform().readFile = [](HANDLE, void*, DWORD size, DWORD* done, OVERLAPPED*) {
        *done = size + 1;
        return TRUE;
    };
    EXPECT_EQ(raises([&] { VxwReadUniString(static_cast<void*>(file.m_hFile), string); }), ERROR_IO_DEVICE);
}

TEST(Strings, OnFailingComStreamsGoByCountsAlone) {
    const ComPtr<Support::RecordingStream> stream = Vexel::Detail::adopt(new Support::RecordingStream());
    stream->status = E_FAIL;
    stream->most = 0;
    VxwWriteUniString(stream.Get(), CStringW(L"ab"));
    EXPECT_EQ(stream->take(), "Write 4, Write 4, ") << "the text follows whatever became of its count";
    stream->most = ~0ULL;
    CStringW string(L"before");
    VxwReadUniString(stream.Get(), string);
    EXPECT_EQ(stream->take(), "Read 4, ") << "no count from a failed call";
    EXPECT_EQ(wide(string), L"");

    vxio::IStreamStream adapter(stream.Get());
    const std::size_t tooLong = 0x100000001; // nobody looks at the characters
    VxwWriteString(adapter, std::wstring_view(string.GetString(), tooLong));
    EXPECT_EQ(stream->take(), "Write 4, Write 4294967295, Write 4294967295, ") << "cut to 0xFFFFFFFF";
}

// Remembers how much was asked of it at most.
class WatchedStream final : public vxio::IStreamStream {
public:
    using IStreamStream::IStreamStream;
    unsigned long long mostAsked = 0;

    unsigned long long ReadBytes(void* buffer, unsigned long long count) override {
        mostAsked = (std::max)(mostAsked, count);
        return IStreamStream::ReadBytes(buffer, count);
    }
};

template <class Text, auto Read>
std::wstring readAs(vxio::IReadStream& stream) {
    Text result{};
    Read(stream, result);
    return wide(result);
}

TEST(Strings, WhoseHeadersPromiseTooMuchAreWhatArrives) {
    const std::string most(4, '\xFF');
    const std::string longest = "\xFF\xFF\xFF\x7F"s;
    const struct {
        const char* name;
        std::string header; // promises more than there is
        std::wstring (*read)(vxio::IReadStream& stream);
        std::string character = "x\0"s;
    } layouts[] = {
        {"U", most, readAs<CStringW, kReadU>},
        {"W", most, readAs<std::wstring, kReadW>},
        {"A", most, readAs<std::string, VxwReadStringA>, "x"},
        {"A, wide", most, readAs<std::wstring, kReadOld>, "x"},
        {"A, framework", most, readAs<CStringW, kReadOld>, "x"},
        {"M", "\xFF\xFE\xFF\xFF\xFF\xFF"s + longest, readAs<CStringW, VxwReadCArchiveString>},
        {"M, no mark", "\xFF\xFF\xFF"s + longest, readAs<CStringW, VxwReadCArchiveString>},
    };
    for (const auto& [name, header, read, character] : layouts) {
        std::string bytes = header;
        while (bytes.size() < 1'000'000)
            bytes += character;
        std::vector<std::size_t> cuts{bytes.size()};
        for (std::size_t cut = 0; cut < 20; ++cut)
            cuts.push_back(cut);
        for (const std::size_t cut : cuts) {
            WatchedStream stream(systemStream(std::string_view(bytes).substr(0, cut)).Get());
            const std::size_t arrived = cut > header.size() ? cut - header.size() : 0;
            const std::size_t length = (arrived + character.size() - 1) / character.size();
            EXPECT_TRUE(read(stream) == std::wstring(length, L'x')) << name << " cut at " << cut;
            EXPECT_LE(stream.mostAsked, 0x10000 + arrived) << "memory follows what arrives";
        }
    }
}

} // namespace
