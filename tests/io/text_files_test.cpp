#include "io/encoding_guess.h"
#include "support/bad_reads.h"
#include "support/compound_file.h"

#include <vexel/files.h>

#include <gtest/gtest.h>

#include <climits>
#include <thread>

using namespace std::string_literals;
using namespace vxio;

namespace {

class TextFiles : public testing::Test {
protected:
    /// The lines of a file of these bytes, joined by "|".
    std::wstring lines(const std::string& contents, TextEncoding encoding = TextEncoding::Detect,
                       bool binary = false) {
        Support::writeFile(path_, contents);
        vxio::TextFileReadStream stream;
        EXPECT_TRUE(stream.Open(path_.c_str(), vxio::ProtectWriting, encoding, binary));
        found_ = stream.GetEncoding();
        std::wstring result;
        for (CString line; stream.ReadString(line); result += L"|")
            result += std::wstring(line.GetString(), static_cast<std::size_t>(line.GetLength()));
        EXPECT_EQ(stream.GetPosition(), contents.size());
        EXPECT_EQ(stream.GetLength(), contents.size());
        return result;
    }

    static std::wstring pipeName() {
        return L"\\\\.\\pipe\\vexel text files test " + std::to_wstring(GetCurrentProcessId());
    }

    Support::TempFolder folder_;
    std::wstring path_ = folder_.file(L"file");
    TextEncoding found_{};
};

TEST_F(TextFiles, LinesEndAtLineFeedsAndZeros) {
    EXPECT_EQ(lines("one\n\ntwo\n"), L"one||two|");
    EXPECT_EQ(lines("cr\r\nmid\rdle\r\n\r"), L"cr|mid\rdle|\r|");
    EXPECT_EQ(lines("cr\r\n\r\n", TextEncoding::Detect, true), L"cr\r|\r|");
    EXPECT_EQ(lines("a\0b\r\0"s), L"a|b\r|");
    const std::string longLine(200'000, 'x');
    EXPECT_EQ(lines(longLine + "\n" + longLine).size(), 400'002u);
}

// Those of whole files, marked and not, settings files go through elsewhere.
TEST_F(TextFiles, EncodingsAreFound) {
    const struct {
        const char* name;
        std::string bytes;
        TextEncoding encoding;
        const wchar_t* lines;
    } cases[] = {
        {"empty", "", TextEncoding::Utf8, L""},
        {"mark alone", "\xEF\xBB\xBF", TextEncoding::Utf8, L""},
        {"code page", "caf\xE9 x", TextEncoding::Ansi, L"caf\u00E9 x|"},
        {"UTF-16LE", "a\0b\0\n\0c\0=\xD8\0\xDE"s, TextEncoding::Utf16LE, L"ab|c\U0001F600|"},
        {"cut unit", "a\0b\0c\0d\0x"s, TextEncoding::Utf16LE, L"abcd\uFFFD|"},
        {"a line feed's bytes in two units", "\xFF\xFE\n\x0A\0\x0A\x41\0"s, TextEncoding::Utf16LE,
         L"\u0A0A\u0A00A|"},
        {"no characters", "\xFF\xFE\0\0\0\0\x11\0\0\xD8\0\0"s, TextEncoding::Utf32LE, L"\uFFFD\uFFFD|"},
        {"zeros", "\0\0\0\0"s, TextEncoding::Utf8, L"||||"},
        {"some zeros", "a\0b\0cdef"s, TextEncoding::Utf8, L"a|b|cdef|"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        EXPECT_EQ(lines(test.bytes), test.lines);
        EXPECT_EQ(found_, test.encoding);
    }
    EXPECT_EQ(lines("caf\xE9", TextEncoding::Latin1), L"caf\u00E9|");
    EXPECT_EQ(lines("x\xFFy", TextEncoding::Utf8), L"x\uFFFDy|");
}

// Code pages with one and with two bytes a character, as parts of all sizes bring them.
TEST_F(TextFiles, CodePagesAreChecked) {
    enum Guess { Unlikely, Likely };
    const struct {
        const char* what;
        UINT page;
        std::string_view bytes;
        Guess guess;
    } cases[] = {{"all assigned", 1252, "caf\xE9", Likely},
                 {"one not assigned", 1253, "\xC1\xAA", Unlikely},
                 {"of two bytes and of one", 932, "\x93\xFA\x96\x7B \xB1", Likely},
                 {"cut off", 932, "\x93\xFA\x96", Unlikely},
                 {"no second byte", 932, "\x93\x20", Unlikely},
                 {"simplified Chinese", 936, "\xD6\xD0\xCE\xC4", Likely},
                 {"of more bytes", CP_UTF8, "\xC3\xA9", Unlikely},
                 {"unknown page", 12345, "x", Unlikely}};
    for (const auto& test : cases)
        for (std::size_t cut = 0; cut <= test.bytes.size(); ++cut) {
            Vexel::Detail::CodePageGuess guess(test.page);
            for (const std::string_view part : {test.bytes.substr(0, cut), test.bytes.substr(cut)})
                guess.add({reinterpret_cast<const unsigned char*>(part.data()), part.size()});
            EXPECT_EQ(guess.isLikely(), test.guess == Likely) << test.what;
        }
}

TEST_F(TextFiles, WritesEncodings) {
    const auto written = [&](std::wstring_view text, TextEncoding encoding, bool mark = false) {
        vxio::TextFileWriteStream stream;
        EXPECT_TRUE(stream.Open({.path = path_.c_str()}, encoding, mark));
        EXPECT_TRUE(stream.WriteString(text));
        EXPECT_TRUE(stream.Close());
        return Support::readFile(path_);
    };
    EXPECT_EQ(written(L"a\u0416\u4E2D\U0001F600", TextEncoding::Utf8),
              "a\xD0\x96\xE4\xB8\xAD\xF0\x9F\x98\x80");
    EXPECT_EQ(written(L"\xD800x\xDC00", TextEncoding::Utf8), "\xEF\xBF\xBDx\xEF\xBF\xBD");
    EXPECT_EQ(written(L"\U0001F600\xD800", TextEncoding::Utf16BE), "\xD8\x3D\xDE\x00\xD8\0"s);
    EXPECT_EQ(written(L"\xD800", TextEncoding::Utf32BE), "\0\0\xFF\xFD"s);
    EXPECT_EQ(written(L"a\u00E9", TextEncoding::Ansi).size(), 2u);
    EXPECT_EQ(written(L"\U0001F600", TextEncoding::Utf32LE), "\0\xF6\1\0"s);
    EXPECT_EQ(written(L"\u00E9\u0416", TextEncoding::Latin1), "\xE9?");
    const std::wstring large(300'000, L'\u0416');
    EXPECT_EQ(written(large, TextEncoding::Utf8).size(), 600'000u);
    {
        vxio::TextFileWriteStream more; // writes what is left when it goes
        ASSERT_TRUE(more.Open({.path = path_.c_str(), .creation = FileCreation::OpenOrCreate, .append = true},
                              TextEncoding::Utf8, true));
        EXPECT_TRUE(more.WriteString(L"end"));
    }
    EXPECT_EQ(Support::readFile(path_).substr(600'000), "end");
}

TEST_F(TextFiles, FailuresTellTheSystemsCode) {
    const wchar_t* const path = path_.c_str();
    vxio::FileReadStream reading;
    EXPECT_FALSE(reading.Open(path, vxio::ProtectWriting));
    EXPECT_EQ(reading.GetLastErrorCode(), ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(reading.Open(nullptr, vxio::ProtectWriting));
    EXPECT_EQ(reading.GetLastErrorCode(), ERROR_INVALID_PARAMETER);
    char byte = 0;
    EXPECT_EQ(reading.ReadBytes(&byte, 1), 0u);
    EXPECT_EQ(reading.GetLastErrorCode(), ERROR_INVALID_HANDLE);

    vxio::FileWriteStream writing;
    ASSERT_TRUE(writing.Open({.path = path}));
    EXPECT_FALSE(reading.Open(path, vxio::ProtectNothing));
    EXPECT_EQ(reading.GetLastErrorCode(), ERROR_SHARING_VIOLATION);
    EXPECT_FALSE(writing.Open({.path = path, .creation = FileCreation::CreateNew}));
    EXPECT_EQ(writing.GetLastErrorCode(), ERROR_FILE_EXISTS);
    writing.Close();
    vxio::FileReadStream other;
    for (const auto& [protection, isReadable, isWritable] : {std::tuple(vxio::ProtectAll, false, false),
                                                             {vxio::ProtectWriting, true, false},
                                                             {vxio::ProtectReading, false, true},
                                                             {vxio::ProtectNothing, true, true}}) {
        ASSERT_TRUE(reading.Open(path, protection));
        EXPECT_EQ(other.Open(path, vxio::ProtectNothing), isReadable) << protection;
        other.Close();
        EXPECT_EQ(
            writing.Open(
                {.path = path, .creation = FileCreation::OpenExisting, .protection = vxio::ProtectNothing}),
            isWritable)
            << protection;
        writing.Close();
    }
    ASSERT_TRUE(reading.Open(path, vxio::ProtectNothing)); // the end is no error
    EXPECT_EQ(reading.ReadBytes(&byte, 1), 0u);
    EXPECT_EQ(reading.GetLastErrorCode(), 0u);
    ASSERT_TRUE(
        reading.Open(L"Z:\\proc\\self\\mem", vxio::ProtectNothing)); // begins with what cannot be read
    EXPECT_EQ(reading.ReadBytes(&byte, 1), 0u);
    EXPECT_NE(reading.GetLastErrorCode(), 0u);
    EXPECT_FALSE(vxio::TextFileReadStream().Open(L"Z:\\proc\\self\\mem", vxio::ProtectNothing,
                                                 TextEncoding::Detect, false));

    // What is cut off by a failure is no last line.
    const std::wstring name = pipeName();
    const HANDLE pipe =
        CreateNamedPipeW(name.c_str(), PIPE_ACCESS_OUTBOUND, PIPE_TYPE_BYTE, 1, 0, 0, 0, nullptr);
    std::jthread writer([pipe] {
        const std::string lines = "one\n" + std::string((64 << 10) - 4, 'x'); // as much as is read ahead
        DWORD written = 0;
        ConnectNamedPipe(pipe, nullptr);
        WriteFile(pipe, lines.data(), static_cast<DWORD>(lines.size()), &written, nullptr);
        FlushFileBuffers(pipe); // waits for the reader
        DisconnectNamedPipe(pipe);
    });
    vxio::TextFileReadStream cut;
    CString line;
    EXPECT_TRUE(cut.Open(name.c_str(), vxio::ProtectNothing, TextEncoding::Utf8, false));
    writer.join();
    EXPECT_TRUE(cut.ReadString(line));
    EXPECT_FALSE(cut.ReadString(line));
    EXPECT_NE(cut.GetLastErrorCode(), 0u);
    CloseHandle(pipe);

    vxio::TextFileWriteStream full; // a device that takes nothing
    ASSERT_TRUE(full.Open({.path = L"Z:\\dev\\full", .creation = FileCreation::OpenExisting},
                          TextEncoding::Utf8, false));
    EXPECT_TRUE(full.WriteString(L"text"));
    EXPECT_FALSE(full.Flush());
    EXPECT_EQ(full.GetLastErrorCode(), ERROR_DISK_FULL);
    EXPECT_FALSE(full.WriteString(L"text"));
    EXPECT_FALSE(full.Close());
}

// Neither the lines nor the encoding are taken from a part of the file.
TEST_F(TextFiles, AnEndBeforeTheEndIsNone) {
    const std::string large(100'000, 'x');
    const std::string wide = [] {
        std::vector<unsigned char> bytes;
        Vexel::Detail::encodeText(L"x\n" + std::wstring(40'000, L'\u0416'), TextEncoding::Utf16LE, bytes);
        return std::string(bytes.begin(), bytes.end());
    }();
    for (const std::string& contents :
         {"\xFF\xFE["s + "\0M\0]\0\n\0"s, "one\ntwo"s, large + "\nM\xFCller", large + "\n\xC3\xA9", wide}) {
        SCOPED_TRACE(contents.size());
        const std::wstring whole = lines(contents);
        const TextEncoding encoding = found_;
        int failures = 0;
        sweepBadReads([&](int first, int count) {
            SCOPED_TRACE(testing::Message() << count << " from " << first);
            const BadReads reads(first, count, ERROR_SUCCESS);
            vxio::TextFileReadStream stream;
            std::wstring read;
            if (stream.Open(path_.c_str(), vxio::ProtectWriting, TextEncoding::Detect, false)) {
                EXPECT_EQ(stream.GetEncoding(), encoding);
                for (CString line; stream.ReadString(line); read += L"|")
                    read += line.GetString();
            }
            if (count > 1 && stream.GetLastErrorCode()) {
                EXPECT_EQ(stream.GetLastErrorCode(), ERROR_READ_FAULT);
                ++failures;
            } else {
                EXPECT_EQ(stream.GetLastErrorCode(), 0u);
                EXPECT_TRUE(read == whole);
            }
            return reads.calls();
        });
        EXPECT_GT(failures, 0);
    }
}

TEST_F(TextFiles, ReadsWhatOthersAppendMeanwhile) {
    static const wchar_t* path;
    path = path_.c_str();
    Support::writeFile(path_, "start");
    const PlatformGuard guard;
    Vexel::Detail::platform().getFileSize = [](HANDLE file, LARGE_INTEGER* size) { // whenever the end is met
        vxio::FileWriteStream writing;
        EXPECT_TRUE(writing.Open({.path = path,
                                  .creation = FileCreation::OpenExisting,
                                  .protection = vxio::ProtectNothing,
                                  .append = true}));
        EXPECT_EQ(writing.WriteBytes(" more", 5), 5u);
        return GetFileSizeEx(file, size);
    };
    vxio::TextFileReadStream stream;
    ASSERT_TRUE(stream.Open(path, vxio::ProtectNothing, TextEncoding::Detect, false));
    std::string read;
    for (int i = 0; i < 4; ++i) {
        CString line;
        ASSERT_TRUE(stream.ReadString(line)) << stream.GetLastErrorCode();
        read.append(line.GetString(), line.GetString() + line.GetLength());
        EXPECT_EQ(stream.GetPosition(), read.size());
    }
    EXPECT_EQ(read, Support::readFile(path_).substr(0, read.size()));
    EXPECT_EQ(stream.GetLastErrorCode(), 0u);
}

// Which have no length to verify the end by.
TEST_F(TextFiles, PipesEndWhereTheirWritersCloseThem) {
    const std::wstring name = pipeName();
    const HANDLE pipe =
        CreateNamedPipeW(name.c_str(), PIPE_ACCESS_OUTBOUND, PIPE_TYPE_BYTE, 1, 0, 0, 0, nullptr);
    std::jthread writer([pipe] {
        DWORD written = 0;
        ConnectNamedPipe(pipe, nullptr);
        WriteFile(pipe, "one\ntw", 6, &written, nullptr);
        WriteFile(pipe, "o", 1, &written, nullptr);
        CloseHandle(pipe);
    });
    const PlatformGuard guard;
    refuse(Vexel::Detail::platform().getFileSize, ERROR_INVALID_PARAMETER);
    vxio::TextFileReadStream stream;
    EXPECT_TRUE(stream.Open(name.c_str(), vxio::ProtectNothing, TextEncoding::Detect, false));
    writer.join();
    std::wstring read;
    for (CString line; stream.ReadString(line); read += L"|")
        read += line.GetString();
    EXPECT_EQ(read, L"one|two|");
    EXPECT_EQ(stream.GetLastErrorCode(), 0u);
}

// What is the end of a pipe is none of a file.
TEST_F(TextFiles, FilesDoNotEndLikePipes) {
    Support::writeFile(path_, "one\ntwo");
    vxio::FileReadStream stream;
    ASSERT_TRUE(stream.Open(path_.c_str(), vxio::ProtectWriting));
    const BadReads reads(0, INT_MAX, ERROR_BROKEN_PIPE);
    char byte = 0;
    EXPECT_EQ(stream.ReadBytes(&byte, 1), 0u);
    EXPECT_EQ(stream.GetLastErrorCode(), ERROR_BROKEN_PIPE);
}

// Whether it is all of the line is not known.
TEST_F(TextFiles, ALineThatNothingEndsNeedsTheLengthOfTheFile) {
    Support::writeFile(path_, "one\ntwo");
    vxio::TextFileReadStream stream;
    ASSERT_TRUE(stream.Open(path_.c_str(), vxio::ProtectWriting, TextEncoding::Utf8, false));
    const PlatformGuard guard;
    refuse(Vexel::Detail::platform().getFileSize, ERROR_NETNAME_DELETED);
    CString line;
    EXPECT_TRUE(stream.ReadString(line));
    EXPECT_FALSE(stream.ReadString(line));
    EXPECT_TRUE(line.IsEmpty());
    EXPECT_EQ(stream.GetLastErrorCode(), ERROR_NETNAME_DELETED);
    EXPECT_EQ(stream.GetPosition(), 4u);
}

TEST_F(TextFiles, StreamsMoveLikeOthers) {
    vxio::FileWriteStream writing;
    ASSERT_TRUE(writing.Open({.path = path_.c_str(), .protection = vxio::ProtectNothing}));
    EXPECT_EQ(writing.WriteBytes("0123456789", 10), 10u);
    EXPECT_EQ(writing.Seek(vxio::IStream::Begin, 2), 2u);
    EXPECT_EQ(writing.WriteBytes("xy", 2), 2u);
    vxio::FileReadStream reading;
    ASSERT_TRUE(reading.Open(path_.c_str(), vxio::ProtectNothing));
    EXPECT_EQ(reading.GetLength(), 10u);
    EXPECT_EQ(reading.Seek(vxio::IStream::End, -3), 7u);
    EXPECT_EQ(reading.Seek(vxio::IStream::Current, -9), 7u) << "before the start";
    EXPECT_EQ(reading.SeekToEnd(), 10u);

    vxio::SimpleFile moved, file;
    ASSERT_TRUE(
        moved.Open(path_.c_str(), FileAccess::ReadWrite, FileCreation::OpenExisting, vxio::ProtectNothing));
    file = std::move(moved);
    EXPECT_FALSE(moved.IsOpen()); // NOLINT(bugprone-use-after-move): a file that was moved from is closed
    EXPECT_TRUE(file.SetLength(4));
    EXPECT_EQ(file.GetLength(), 4u);
    EXPECT_EQ(file.GetPosition(), 0u);
    EXPECT_TRUE(file.SetLength(6));
    EXPECT_TRUE(file.Flush());
    EXPECT_EQ(Support::readFile(path_), "01xy\0\0"s);
    char bytes[10];
    EXPECT_EQ(file.Read(bytes, 10), 6u);
}

} // namespace
