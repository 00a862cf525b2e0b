#include "io/text_encoding.h"
#include "support/bad_reads.h"
#include "support/compound_file.h"
#include "support/log_capture.h"
#include "support/scarce_memory.h"

#include <vexel/files.h>
#include <vexel/ini.h>

#include <gtest/gtest.h>

#include <atomic>
#include <bit>
#include <climits>
#include <cmath>
#include <random>
#include <thread>

using namespace vxio;
using namespace std::string_literals;

namespace {

using namespace Support;

std::string narrow(const CString& text) {
    const std::wstring wide = text.GetString();
    return {wide.begin(), wide.end()};
}

/// All that is in a file, as "Section{key=value|…}…".
std::string dump(const IniFile& file) {
    std::string text;
    for (const auto& [name, section] : file) {
        text += narrow(name) + "{";
        for (const auto& [key, value] : section)
            text += narrow(key) + "=" + narrow(value) + "|";
        text += "}";
    }
    return text;
}

class Ini : public testing::Test {
protected:
    std::string load(std::string_view bytes) const {
        writeFile(path_, bytes);
        IniFile file;
        file.SetInt(L"left", L"over", 1);
        const bool loaded = file.Load(path_.c_str());
        EXPECT_TRUE(loaded || file.IsEmpty());
        return loaded ? dump(file) : "failed";
    }

    IniFile loaded() const {
        IniFile file;
        EXPECT_TRUE(file.Load(path_.c_str()));
        return file;
    }

    /// In the folder, where nothing must be left behind.
    std::ptrdiff_t files() const {
        return std::distance(std::filesystem::directory_iterator(folder_.file(L"")), {});
    }

    Support::TempFolder folder_;
    std::wstring path_ = folder_.file(L"settings.ini");
};

TEST_F(Ini, ReadsLines) {
    const std::pair<std::string, const char*> cases[] = {
        {"", ""},
        {"[Main]\nWidth = 10\n;comment\nName='a b'\n", "Main{Width=10|Name=a b|}"},
        {"[Main]\na=1\n[Other]\n[main]\nb=2", "Main{a=1|b=2|}Other{}"},
        {"[s]\nWidth=1\nWIDTH=2", "s{Width=2|}"},
        {" \t[ s ]\t\r\n  k \t=\t v w \r\n", " s {k=v w|}"},
        {"[s]\nk=v ; no comment\nl=\"q\"\nm=\"q'\nn='\no=''\np='\"x\"'",
         "s{k=v ; no comment|l=q|m=\"q'|n='|o=|p=\"x\"|}"},
        {"[s]\nk=a=b\n e =\n", "s{k=a=b|e=|}"},
        {"[a]b]\nk=1", "a]b{k=1|}"},
        {"[s]\n;[x\n\n\n;\n", "s{}"},
        {"[s]\0k=1\0l=2"s, "s{k=1|l=2|}"}, // zeros end lines, which are no UTF-16
        {"[s]\nk=12\n\0"s, "s{k=12|}"},
        {"[s]\nk=1234\0l=2\n"s, "s{k=1234|l=2|}"},
    };
    for (const auto& [bytes, result] : cases)
        EXPECT_EQ(load(bytes), result) << bytes;
    for (const char* bytes : {"[]\n", "[s\n", "[\n", "[s] x\nk=1", "[s]\nno entry\n", "[s]\n=v\n",
                              "k=1\n[s]\n", "# comment\n", "( ( "}) // the last is white space in UTF-16
        EXPECT_EQ(load(bytes), "failed") << bytes;
    const std::wstring missing = folder_.file(L"none");
    for (const wchar_t* path : {static_cast<const wchar_t*>(nullptr), L"", missing.c_str()})
        EXPECT_FALSE(IniFile().Load(path));
}

std::string encoded(std::wstring_view text, TextEncoding encoding, bool mark = false) {
    const Vexel::Detail::Bytes start = Vexel::Detail::byteOrderMark(encoding);
    std::vector<unsigned char> bytes;
    if (mark)
        bytes.assign(start.begin(), start.end());
    Vexel::Detail::encodeText(text, encoding, bytes);
    return {bytes.begin(), bytes.end()};
}

// Wherever the first character stands that is not ASCII, in whatever encoding: it is read, and another entry
// that is set takes nothing with it.
TEST_F(Ini, KeepsTextOfEveryEncodingAtEveryPlace) {
    struct Form {
        TextEncoding encoding;
        bool mark;
        std::string value;
    };
    std::vector<Form> forms;
    for (const char* bytes : // no UTF-8, and therefore in the system's code page
         {"M\xFCller \xE9t\xE9", "\xC0\xAF too long", "\xE0\x9F\xBF too long", "\xF0\x8F\xBF\xBF too long",
          "\xED\xA0\x80 half of a pair", "\xF4\x90\x80\x80 beyond the last",
          "\xF8\x88\x80\x80\x80 of five bytes", "\xE4\xB8 cut off", "\x80 alone", "at the end \xC3"})
        forms.push_back({TextEncoding::Ansi, false, bytes});
    for (const bool mark : {false, true}) {
        for (const auto encoding : {TextEncoding::Utf8, TextEncoding::Utf16LE, TextEncoding::Utf32LE})
            forms.push_back({encoding, mark, encoded(L"\u00E9 \u4E2D \U0001F600", encoding)});
        forms.push_back({TextEncoding::Utf32BE, mark, encoded(L"\u00E9", TextEncoding::Utf32BE)});
        // With a line feed's byte in each.
        forms.push_back({TextEncoding::Utf16BE, mark, encoded(L"\u0A95 \u010A", TextEncoding::Utf16BE)});
    }
    std::vector<std::size_t> places{0, 1, 2, 3, 1000, 70'000};
    for (const std::size_t edge : {4096u, 65'536u})
        for (std::size_t before = 0; before < 8; ++before)
            places.push_back(edge - before);
    const std::wstring start = L"[s]\nfill=", middle = L"\nname=";
    for (std::size_t form = 0; form < forms.size(); ++form)
        for (std::size_t i = 0; i < places.size(); ++i) {
            const auto& [encoding, mark, value] = forms[form];
            SCOPED_TRACE(testing::Message() << "form " << form << ": " << value << " at " << places[i]);
            const std::size_t head = encoded(start + middle, encoding, mark).size();
            const std::size_t fill = places[i] < head ? places[i] : places[i] - head;
            const std::wstring filler(fill / Vexel::Detail::unitSize(encoding), L'x');
            writeFile(path_, encoded(start + filler + middle, encoding, mark) + value);
            for (const bool isSaved : {false, true}) {
                if (isSaved && (form % 3 != 0 || i != form % places.size())) // a save takes its time
                    break;
                if (isSaved) {
                    EXPECT_TRUE(IniFile::SetInt(L"s", L"new", 1, path_.c_str()));
                }
                const IniFile file = loaded();
                EXPECT_EQ(encoded(file.GetString(L"s", L"name", L"none").GetString(), encoding), value);
                EXPECT_STREQ(file.GetString(L"s", L"fill", L"none"), filler.c_str());
            }
        }
}

// Text of other languages without a mark has few zeros.
TEST_F(Ini, ReadsWideTextWithoutAMark) {
    for (const std::wstring& text :
         {L"[S\u0416]\r\nKey=1\r\n"s, L"[\u8BBE\u7F6E]\n\u540D=\u503C\u503C\u503C\u503C\u503C\u503C\n"s,
          L"[\u0A95\u0A95]\n\u0A95\u0A95=\u0A95\u0A95\n"s, L";\u4E2D\n[\u4E2D]\n"s, L"[\u4E2D]"s,
          L"[a]\nk=\x1B\n"s, L"[a]\nk=\xD83D\xDE00\n"s, L"[a]\nk=v\n\0\0"s})
        for (const auto encoding :
             {TextEncoding::Utf16LE, TextEncoding::Utf16BE, TextEncoding::Utf32LE, TextEncoding::Utf32BE}) {
            const std::string marked = load(encoded(text, encoding, true));
            EXPECT_NE(marked, "failed");
            EXPECT_EQ(load(encoded(text, encoding)), marked) << static_cast<int>(encoding);
        }
}

// What is marked but not what the mark says could not be written as it was.
TEST_F(Ini, DoesNotSaveWhatItCouldNotRead) {
    for (const std::string& tail : {"\xEF\xBB\xBF[s]\nk=M\xFCller\n"s, "\xFF\xFE[\0s\0]\0\n\0x\0=\0y\0z"s,
                                    "\xFF\xFE\0\0[\0\0\0s\0\0\0]\0\0\0\n\0\0\0x\0\0\0=\0\0\0\0\0\x11\0"s}) {
        writeFile(path_, tail);
        IniFile file = loaded();
        EXPECT_NE(file.GetSection(L"s"), nullptr);
        EXPECT_FALSE(file.Save(folder_.file(L"other").c_str()));
        EXPECT_FALSE(IniFile::SetInt(L"s", L"n", 1, path_.c_str()));
        EXPECT_EQ(readFile(path_), tail);
        writeFile(path_, "[s]\n");
        EXPECT_TRUE(file.Load(path_.c_str()));
        EXPECT_TRUE(file.Save(path_.c_str()));
    }
    // UTF-8 has no place for half a pair.
    EXPECT_TRUE(IniFile::SetString(L"s", L"\xDC00", L"\xD800x", path_.c_str()));
    EXPECT_STREQ(loaded().GetString(L"s", L"\xDC00", L""), L"\xD800x");
}

TEST_F(Ini, SavesWhatItHolds) {
    IniFile file;
    file.SetString(L"Main", L"Text", L"a b \u0416").SetDouble(L"main", L"X", 0.1);
    file.GetOrCreateSection(L"Empty");
    ASSERT_TRUE(file.Save(path_.c_str()));
    EXPECT_EQ(readFile(path_), "[Main]\nText=a b \xD0\x96\nX=0.1\n[Empty]\n");
    file.SetSection(L"Moved", std::move(file.GetOrCreateSection(L"Main"))); // makes room meanwhile
    EXPECT_EQ(dump(file), "Main{}Empty{}Moved{Text=a b \x16|X=0.1|}");
    EXPECT_EQ(files(), 1);
}

// In place of the old file, or into it; either way nothing is left behind.
TEST_F(Ini, SavesWhereverItCan) {
    const wchar_t* const path = path_.c_str();
    const std::wstring link = folder_.file(L"link"), longest = folder_.file(std::wstring(250, L'n'));
    const IniFile file = std::move(IniFile().SetInt(L"new", L"k", 1));
    vxio::SimpleFile held;
    const auto save = [&](const char* place, const std::wstring& target) {
        EXPECT_TRUE(file.Save(target.c_str())) << place;
        held.Close();
        EXPECT_EQ(readFile(target), "[new]\nk=1\n") << place;
    };
    for (const std::string& old : {"[old]\n"s, "[old]\n" + std::string(100, ';')}) {
        writeFile(path_, old);
        SetFileAttributesW(path, FILE_ATTRIBUTE_HIDDEN);
        save("a hidden file", path_);
        EXPECT_TRUE(GetFileAttributesW(path) & FILE_ATTRIBUTE_HIDDEN);
        SetFileAttributesW(path, FILE_ATTRIBUTE_NORMAL);
        writeFile(path_, old);
        ASSERT_TRUE(
            held.Open(path, vxio::FileAccess::Read, vxio::FileCreation::OpenExisting, vxio::ProtectReading));
        save("beside a reader that lets others write", path_);
        writeFile(path_, old);
        ASSERT_TRUE(CreateHardLinkW(link.c_str(), path, nullptr));
        save("a file with another name", path_);
        EXPECT_EQ(readFile(link), readFile(path_));
        DeleteFileW(link.c_str());
        EXPECT_EQ(files(), 1);
    }
    save("the longest name", longest);
    save("the longest name once more", longest);
    EXPECT_EQ(files(), 2);
}

TEST_F(Ini, AFailedSaveLeavesTheOldFile) {
    const wchar_t* const path = path_.c_str();
    writeFile(path_, "[old]\n");
    const IniFile file = std::move(IniFile().SetInt(L"new", L"k", 1));
    vxio::SimpleFile held;
    const auto hold = [&](vxio::FileAccess access, vxio::FileStreamProtectedType protection) {
        ASSERT_TRUE(held.Open(path, access, vxio::FileCreation::OpenExisting, protection));
    };
    hold(vxio::FileAccess::Read, vxio::ProtectWriting);
    EXPECT_FALSE(file.Save(path));
    // Someone writes it: it is not read, and so not written over either.
    hold(vxio::FileAccess::Write, vxio::ProtectNothing);
    EXPECT_FALSE(IniFile().Load(path));
    EXPECT_FALSE(IniFile::SetInt(L"new", L"k", 1, path));
    held.Close();
    hold(vxio::FileAccess::Read, vxio::ProtectReading); // so that it could be written
    EXPECT_FALSE(IniFile::SetInt(L"new", L"k", 1, path));
    held.Close();
    SetFileAttributesW(path, FILE_ATTRIBUTE_READONLY);
    EXPECT_FALSE(file.Save(path));
    EXPECT_EQ(readFile(path_), "[old]\n");
    const std::wstring nowhere = folder_.file(L"no/such/folder.ini"), folder = folder_.file(L"");
    for (const wchar_t* place : {static_cast<const wchar_t*>(nullptr), L"", nowhere.c_str(), folder.c_str()})
        EXPECT_FALSE(file.Save(place));
    EXPECT_EQ(files(), 1);
    const LogCapture log; // a device that takes nothing: opened, so it counts
    EXPECT_TRUE(file.Save(L"Z:\\dev\\full"));
    EXPECT_EQ(log.count(L"Failed to write the settings file"), 1);
}

// Each save of one file by several threads succeeds, and what is read is always one of them, whole.
TEST_F(Ini, ThreadsSaveOneFile) {
    constexpr int kSaves = 10, kEntries = 2000;
    std::atomic<int> failed = 0, torn = 0;
    const auto save = [&](int number) {
        IniFile file;
        for (int i = 0; i < kEntries; ++i)
            file.SetInt(L"s", std::to_wstring(i), number);
        for (int i = 0; i < kSaves; ++i)
            failed += !file.Save(path_.c_str());
    };
    save(1);
    {
        std::vector<std::jthread> threads;
        for (int number = 1; number <= 3; ++number)
            threads.emplace_back(save, number);
        threads.emplace_back([&] {
            for (int i = 0; i < kSaves; ++i) {
                IniFile file;
                if (file.Load(path_.c_str())) // it may be held just then
                    torn +=
                        file.GetInt(L"s", L"0", 0) != file.GetInt(L"s", std::to_wstring(kEntries - 1), -1);
                failed += !IniFile::SetInt(L"t", L"k", i, path_.c_str());
            }
        });
    }
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(loaded().GetSection(L"s")->GetEntries().size(), std::size_t{kEntries});
    EXPECT_EQ(files(), 1);
}

// Without memory nothing is changed, whichever allocation fails.
TEST_F(Ini, KeepsWhatItHoldsWithoutMemory) {
    for (const int sections : {1, 40}) {
        IniFile file;
        for (int i = 0; i < sections; ++i)
            file.SetInt(L"s" + std::to_wstring(i), L"k", i);
        file.GetSection(L"none");
        const std::string before = dump(file);
        const CString value(L"value");
        const unsigned failures = Support::sweepFaults([&](unsigned spared) {
            const auto set = [&] { file.SetString(L"new", L"key", value); };
            try {
                return WithFailingAllocation(spared, set);
            } catch (const std::bad_alloc&) {
                EXPECT_EQ(dump(file), before);
                return true;
            }
        });
        EXPECT_GT(failures, 1U);
        EXPECT_STREQ(file.GetString(L"new", L"key", L""), L"value");
    }
}

TEST_F(Ini, WorksStraightOnFiles) {
    const wchar_t* const path = path_.c_str();
    EXPECT_TRUE(IniFile::SetInt(L"Window", L"Width", 800, path));
    EXPECT_TRUE(IniFile::SetDouble(L"window", L"Zoom", 1.5, path));
    EXPECT_TRUE(IniFile::SetString(L"Other", L"Name", L"x", path));
    EXPECT_TRUE(IniFile::SetSection(L"Other", std::move(IniFileSection().SetInt(L"n", 1)), path));
    EXPECT_EQ(readFile(path_), "[Window]\nWidth=800\nZoom=1.5\n[Other]\nn=1\n");
    EXPECT_EQ(IniFile::GetInt(L"WINDOW", L"WIDTH", 0, path), 800);
    EXPECT_EQ(IniFile::GetDouble(L"Window", L"Zoom", 0, path), 1.5);
    EXPECT_EQ(IniFile::TryGetInt(L"None", L"Width", path), std::nullopt);
    EXPECT_EQ(IniFile::TryGetDouble(L"Window", L"Zoom", L"none"), std::nullopt);
    EXPECT_EQ(IniFile::TryGetSection(L"window", path).value_or(IniFileSection()).GetEntries().size(), 2u);
    EXPECT_EQ(IniFile::TryGetSection(L"None", path), std::nullopt);
    const LogCapture log;
    writeFile(path_, "# by hand\n[s]\nk=1\n");
    EXPECT_TRUE(IniFile::SetInt(L"new", L"k", 1, path));
    EXPECT_EQ(readFile(path_), "[new]\nk=1\n");
    EXPECT_EQ(log.count(L"cannot be understood and is begun anew"), 1);
    for (const wchar_t* none : {static_cast<const wchar_t*>(nullptr), L""})
        EXPECT_FALSE(IniFile::SetInt(L"s", L"k", 1, none));
}

// Whichever read fails, in whatever encoding the file is being tried, and also with the codes that say what
// is to become of a file.
TEST_F(Ini, WhatCannotBeReadIsNotBegunAnew) {
    const std::string large = "[s]\nfill=" + std::string(70'000, 'x') + "\nk=1";
    for (const std::string& old : {large, encoded(L"[\u4E2D]", TextEncoding::Utf16BE)}) {
        const std::string settings = load(old);
        ASSERT_NE(settings, "failed");
        for (const DWORD error :
             std::initializer_list<DWORD>{ERROR_SUCCESS, ERROR_READ_FAULT, ERROR_INVALID_DATA,
                                          ERROR_FILE_TOO_LARGE, ERROR_FILE_NOT_FOUND})
            sweepBadReads([&](int first, int count) {
                SCOPED_TRACE(testing::Message() << error << ", " << count << " from " << first);
                writeFile(path_, old);
                int calls = 0;
                bool isSet = false;
                {
                    const BadReads reads(first, count, error);
                    isSet = IniFile::SetInt(L"new", L"k", 1, path_.c_str());
                    calls = reads.calls();
                }
                EXPECT_TRUE(dump(loaded()) == (isSet ? settings + "new{k=1|}" : settings));
                return calls;
            });
    }
}

// That there is no file has to be certain. A link that leads nowhere is there, but no file, and stays a link:
// the file comes where it leads.
TEST_F(Ini, BeginsAnewWhereThereIsNoFile) {
    auto& calls = Vexel::Detail::platform();
    for (const DWORD error :
         std::initializer_list<DWORD>{ERROR_ACCESS_DENIED, ERROR_NETNAME_DELETED, ERROR_PATH_NOT_FOUND}) {
        static DWORD asking;
        asking = error;
        writeFile(path_, "[s]\nk=1\n");
        const BadReads reads(0, INT_MAX, ERROR_FILE_NOT_FOUND);
        calls.getAttributes = [](const wchar_t*) -> DWORD {
            SetLastError(asking);
            return INVALID_FILE_ATTRIBUTES;
        };
        EXPECT_FALSE(IniFile::SetInt(L"new", L"k", 1, path_.c_str()));
        EXPECT_EQ(readFile(path_), "[s]\nk=1\n");
    }
    DeleteFileW(path_.c_str());
    static int moves;
    moves = 0;
    const PlatformGuard guard;
    calls.getAttributes = [](const wchar_t*) -> DWORD { return FILE_ATTRIBUTE_REPARSE_POINT; };
    calls.moveFile = [](auto... arguments) {
        ++moves;
        return MoveFileExW(arguments...);
    };
    EXPECT_TRUE(IniFile::SetInt(L"new", L"k", 1, path_.c_str()));
    EXPECT_EQ(readFile(path_), "[new]\nk=1\n");
    EXPECT_EQ(moves, 0);
    const BadReads reads(0, INT_MAX, ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(IniFile::SetInt(L"newer", L"k", 1, path_.c_str()));
    EXPECT_EQ(readFile(path_), "[new]\nk=1\n");
}

// What is too long for a line in one encoding may be many in the next. The system's own error of this code
// stands in for such a file.
TEST_F(Ini, ALineThatIsTooLongIsTriedOtherwise) {
    static int opened;
    const PlatformGuard guard;
    Vexel::Detail::platform().createFile = [](auto... arguments) {
        ++opened;
        return CreateFileW(arguments...);
    };
    Vexel::Detail::platform().readFile = [](auto... arguments) -> BOOL {
        if (opened != 2) // in the encoding that is tried first, after the one that was guessed
            return ReadFile(arguments...);
        SetLastError(ERROR_FILE_TOO_LARGE);
        return FALSE;
    };
    opened = 0;
    EXPECT_NE(load(encoded(L"[\u4E2D]", TextEncoding::Utf16BE)), "failed");
    EXPECT_GT(opened, 2);
    writeFile(path_, "no settings");
    opened = 0;
    EXPECT_FALSE(IniFile::SetInt(L"s", L"k", 1, path_.c_str()));
    EXPECT_EQ(readFile(path_), "no settings");
}

// What cannot be written beside the file is not written into it, where the same failure would cost the old
// settings.
TEST_F(Ini, WhatCannotBeWrittenLeavesTheOldSettings) {
    auto& calls = Vexel::Detail::platform();
    for (const DWORD error : {DWORD{ERROR_SUCCESS}, DWORD{ERROR_DISK_FULL}, DWORD{ERROR_WRITE_FAULT}})
        for (const bool isWritten : {false, true}) { // but cannot be flushed
            SCOPED_TRACE(testing::Message() << error << ", " << isWritten);
            writeFile(path_, "[s]\nk=1\n");
            const PlatformGuard guard;
            if (isWritten)
                refuse(calls.flushFile, error);
            else
                refuse(calls.writeFile, error);
            IniFile::SetInt(L"new", L"k", 1, path_.c_str());
            EXPECT_EQ(readFile(path_), "[s]\nk=1\n");
        }
}

// It is not known to be all of a file that has another length at the end.
TEST_F(Ini, ReadsAsMuchAsTheFileIsLong) {
    writeFile(path_, "[s]\nk=1\n");
    {
        const PlatformGuard guard;
        Vexel::Detail::platform().getFileSize = [](HANDLE file, LARGE_INTEGER* size) { // cut off meanwhile
            const BOOL done = GetFileSizeEx(file, size);
            --size->QuadPart;
            return done;
        };
        EXPECT_FALSE(IniFile().Load(path_.c_str()));
        EXPECT_FALSE(IniFile::SetInt(L"s", L"n", 1, path_.c_str()));
    }
    EXPECT_EQ(readFile(path_), "[s]\nk=1\n");

    const std::wstring name = // has no length
        L"\\\\.\\pipe\\vexel settings test " + std::to_wstring(GetCurrentProcessId());
    const HANDLE pipe =
        CreateNamedPipeW(name.c_str(), PIPE_ACCESS_OUTBOUND, PIPE_TYPE_BYTE, 1, 0, 0, 0, nullptr);
    std::jthread writer([pipe] {
        DWORD written = 0;
        ConnectNamedPipe(pipe, nullptr);
        WriteFile(pipe, "[s]\nk=1\n", 8, &written, nullptr);
    });
    {
        const BadReads reads(1, INT_MAX, ERROR_SUCCESS); // it ends behind what was written
        EXPECT_FALSE(IniFile().Load(name.c_str()));
        EXPECT_GT(reads.calls(), 1);
    }
    writer.join();
    CloseHandle(pipe);
}

TEST_F(Ini, ParsesIntegers) {
    const std::pair<const wchar_t*, int> numbers[] = {{L" 42 ", 42}, {L"+7", 7}, {L"00000000000000001", 1}};
    IniFileSection section;
    for (const auto& [text, value] : numbers)
        EXPECT_EQ(section.SetString(L"k", text).GetInt(L"K", 99), value);
    for (const wchar_t* text : {L"2147483648", L"-2147483649", L"99999999999999999999999", L"", L"  ", L"+",
                                L"-", L"4 2", L"0x10", L"+-1", L"1.", L"\u0661"})
        EXPECT_EQ(section.SetString(L"k", text).GetInt(L"k", 99), 99) << narrow(text);
    for (const int value : {INT_MIN, -1, 0, INT_MAX})
        EXPECT_EQ(section.SetInt(L"k", value).GetInt(L"k", 1), value);
    EXPECT_STREQ(section.SetInt(L"k", -5).GetString(L"k", L""), L"-5");
}

TEST_F(Ini, KeepsDoubles) {
    IniFileSection section;
    std::mt19937_64 random(5);
    using Limits = std::numeric_limits<double>;
    std::vector values{-0.0, Limits::max(), Limits::denorm_min(), 1e21};
    for (int i = 0; i < 20'000; ++i)
        values.push_back(std::bit_cast<double>(random()));
    for (const double value : values) {
        if (std::isnan(value))
            continue;
        section.SetDouble(L"k", value);
        ASSERT_EQ(std::bit_cast<std::uint64_t>(section.GetDouble(L"k", 0)),
                  std::bit_cast<std::uint64_t>(value));
        ASSERT_LE(section.GetString(L"k", L"").GetLength(), 24);
    }
    const std::pair<double, const wchar_t*> texts[] = {
        {-std::nan(""), L"nan"}, {Limits::infinity(), L"inf"}, {-Limits::infinity(), L"-inf"}};
    for (const auto& [value, text] : texts) {
        EXPECT_STREQ(section.SetDouble(L"k", value).GetString(L"k", L""), text);
        EXPECT_TRUE(std::isnan(value) || section.GetDouble(L"k", 0) == value);
    }
    EXPECT_TRUE(std::isnan(section.SetString(L"k", L" NaN ").GetDouble(L"k", 0)));
    EXPECT_EQ(section.SetString(L"k", L"\t+1.5E3").GetDouble(L"k", 0), 1500);
    for (const wchar_t* text : {L"", L"x", L"1,5", L"1.5x", L"+-1", L"+", L"1e999", L"\u0131"})
        EXPECT_EQ(section.SetString(L"k", text).TryGetDouble(L"k"), std::nullopt) << narrow(text);
}

// Long lists are looked up, short ones looked through: both find the first that matches.
TEST_F(Ini, FindsKeysInLongAndShortSections) {
    for (const int count : {5, 500}) {
        IniFileSection section;
        for (int i = 0; i < count; ++i)
            section.SetInt(L"Ключ-Key" + std::to_wstring(i), i);
        section.SetInt(L"Ключ-KEY3", -3);
        EXPECT_EQ(section.GetInt(L"Ключ-key3", 0), -3);
        section.Remove(L"Ключ-kEy0").Remove(L"none");
        EXPECT_EQ(section.TryGetInt(L"Ключ-Key0"), std::nullopt);
        for (int i = 4; i < count; ++i)
            EXPECT_EQ(section.GetInt(L"Ключ-KEY" + std::to_wstring(i), -1), i);
        IniFileSection copy = section;
        copy.SetString(CString(L"new"), L"1");
        EXPECT_STREQ(section.GetString(L"new", CString(L"none")), L"none");
        section = std::move(copy);
        EXPECT_EQ(section.GetInt(L"NEW", 0), 1);
        EXPECT_EQ(section.GetEntries().size(), static_cast<std::size_t>(count));
    }
}

} // namespace
