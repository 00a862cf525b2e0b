#include "support/compound_file.h"
#include "support/log_capture.h"

#include <vexel/files.h>
#include <vexel/ini.h>

#include <gtest/gtest.h>

#include <bit>
#include <climits>
#include <cmath>
#include <limits>
#include <random>
#include <string>

using vxio::IniFile;
using vxio::IniFileSection;

namespace {

using Support::readFile;
using Support::writeFile;

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

    Support::TempFolder folder_;
    std::wstring path_ = folder_.file(L"settings.ini");
};

TEST_F(Ini, ReadsLines) {
    const struct {
        const char* bytes;
        const char* result;
    } cases[] = {
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
        {"[]\n", "failed"},
        {"[s\n", "failed"},
        {"[\n", "failed"},
        {"[s] x\nk=1", "failed"},
        {"[s]\nno entry\n", "failed"},
        {"[s]\n=v\n", "failed"},
        {"k=1\n[s]\n", "failed"},
        {"# comment\n", "failed"},
    };
    for (const auto& [bytes, result] : cases)
        EXPECT_EQ(load(bytes), result) << bytes;
    EXPECT_EQ(load(std::string("[s]\0k=1\0l=2", 11)), "s{k=1|l=2|}"); // zeros end lines
    IniFile file;
    EXPECT_FALSE(file.Load(nullptr));
    EXPECT_FALSE(file.Load(L""));
    EXPECT_FALSE(file.Load(folder_.file(L"none").c_str()));
}

TEST_F(Ini, ReadsEveryEncoding) {
    const std::wstring text = L"[S\u0416]\r\nKey=\u00E9 \u4E2D \U0001F600\n[Latin]\nanother=entry\n";
    for (int encoding = 3; encoding <= 7; ++encoding) {
        for (const bool mark : {true, false}) {
            SCOPED_TRACE(testing::Message() << "encoding " << encoding << (mark ? ", marked" : ""));
            vxio::TextFileWriteStream stream;
            ASSERT_TRUE(
                stream.Open({.path = path_.c_str()}, static_cast<vxio::TextEncoding>(encoding), mark));
            EXPECT_TRUE(stream.WriteString(text));
            ASSERT_TRUE(stream.Close());
            IniFile file;
            ASSERT_TRUE(file.Load(path_.c_str()));
            EXPECT_STREQ(file.GetString(L"S\u0416", L"key", L"none"), L"\u00E9 \u4E2D \U0001F600");
        }
    }
    writeFile(path_, "[s]\nk=\xE9t\xE9"); // no UTF-8: the system's code page
    const CString value = IniFile::GetString(L"s", L"k", L"none", path_.c_str());
    EXPECT_EQ(value.GetLength(), 3);
    EXPECT_EQ(value[1], L't');
}

TEST_F(Ini, SavesWhatItHolds) {
    IniFile file;
    file.SetString(L"Main", L"Text", L"a b \u0416")
        .SetInt(L"Main", L"Number", -5)
        .SetDouble(L"main", L"X", 0.1);
    file.GetOrCreateSection(L"Empty");
    ASSERT_TRUE(file.Save(path_.c_str()));
    EXPECT_EQ(readFile(path_), "[Main]\nText=a b \xD0\x96\nNumber=-5\nX=0.1\n[Empty]\n");
    IniFile again;
    ASSERT_TRUE(again.Load(path_.c_str()));
    EXPECT_EQ(dump(again), dump(file));
    again.SetSection(L"Moved", std::move(again.GetOrCreateSection(L"Main"))); // makes room meanwhile
    EXPECT_EQ(dump(again), "Main{}Empty{}Moved{Text=a b \x16|Number=-5|X=0.1|}");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder_.file(L"")), {}), 1) << "left-overs";
}

TEST_F(Ini, AFailedSaveLeavesTheOldFile) {
    const LogCapture quiet;
    writeFile(path_, "[old]\n");
    IniFile file;
    file.SetInt(L"new", L"k", 1);
    const auto unchanged = [&] {
        EXPECT_FALSE(file.Save(path_.c_str()));
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder_.file(L"")), {}), 1);
    };
    {
        vxio::SimpleFile held;
        ASSERT_TRUE(held.Open(path_.c_str(), vxio::FileAccess::Read, vxio::FileCreation::OpenExisting,
                              vxio::ProtectWriting));
        unchanged();
        // It could be written, but not be replaced.
        ASSERT_TRUE(held.Open(path_.c_str(), vxio::FileAccess::Read, vxio::FileCreation::OpenExisting,
                              vxio::ProtectReading));
        unchanged();
    }
    SetFileAttributesW(path_.c_str(), FILE_ATTRIBUTE_READONLY);
    unchanged();
    EXPECT_EQ(readFile(path_), "[old]\n");
    EXPECT_FALSE(file.Save(nullptr));
    EXPECT_FALSE(file.Save(L""));
    EXPECT_FALSE(file.Save(folder_.file(L"no/such/folder.ini").c_str()));
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
    EXPECT_EQ(IniFile::TryGetString(L"Window", L"None", path), std::nullopt);
    EXPECT_EQ(IniFile::TryGetInt(L"None", L"Width", path), std::nullopt);
    EXPECT_EQ(IniFile::TryGetDouble(L"Window", L"Zoom", L"none"), std::nullopt);
    EXPECT_EQ(IniFile::TryGetSection(L"window", path).value_or(IniFileSection()).GetEntries().size(), 2u);
    EXPECT_EQ(IniFile::TryGetSection(L"None", path), std::nullopt);
    EXPECT_FALSE(IniFile::SetInt(L"s", L"k", 1, nullptr));
    EXPECT_FALSE(IniFile::SetInt(L"s", L"k", 1, L""));
}

// Where the rules agree, the system reads the same.
TEST_F(Ini, AgreesWithTheSystem) {
    const IniFile file = [] {
        IniFile made;
        for (int i = 0; i < 40; ++i)
            made.SetString(L"Section " + std::to_wstring(i % 3), L"key" + std::to_wstring(i),
                           (L"value " + std::to_wstring(i * 7)).c_str());
        return made.SetString(L"Section 1", L"Quoted", L"it's \"so\"");
    }();
    ASSERT_TRUE(file.Save(path_.c_str()));
    for (const auto& [name, section] : file) {
        for (const auto& [key, value] : section) {
            wchar_t text[100];
            GetPrivateProfileStringW(name, CString(key).MakeUpper(), L"none", text, 100, path_.c_str());
            EXPECT_STREQ(text, value);
        }
    }
}

TEST_F(Ini, ParsesIntegers) {
    const struct {
        const wchar_t* text;
        std::optional<int> value;
    } cases[] = {
        {L" 42 ", 42},
        {L"+7", 7},
        {L"-0", 0},
        {L"-2147483648", INT_MIN},
        {L"2147483647", INT_MAX},
        {L"00000000000000000001", 1},
        {L"2147483648", std::nullopt},
        {L"-2147483649", std::nullopt},
        {L"99999999999999999999999", std::nullopt},
        {L"", std::nullopt},
        {L"  ", std::nullopt},
        {L"+", std::nullopt},
        {L"-", std::nullopt},
        {L"4 2", std::nullopt},
        {L"0x10", std::nullopt},
        {L"+-1", std::nullopt},
        {L"1.", std::nullopt},
        {L"\u0661", std::nullopt},
    };
    IniFileSection section;
    for (const auto& [text, value] : cases) {
        section.SetString(L"k", text);
        EXPECT_EQ(section.TryGetInt(L"K"), value) << narrow(text);
        EXPECT_EQ(section.GetInt(L"K", 99), value.value_or(99));
    }
    for (const int value : {INT_MIN, -1, 0, INT_MAX})
        EXPECT_EQ(section.SetInt(L"k", value).GetInt(L"k", 1), value);
}

TEST_F(Ini, KeepsDoubles) {
    IniFileSection section;
    std::mt19937_64 random(5);
    using Limits = std::numeric_limits<double>;
    std::vector values{-0.0, Limits::max(), Limits::denorm_min(), -Limits::infinity(), 1e21};
    for (int i = 0; i < 20'000; ++i)
        values.push_back(std::bit_cast<double>(random()));
    for (const double value : values) {
        if (std::isnan(value))
            continue;
        section.SetDouble(L"k", value);
        const auto again = section.TryGetDouble(L"k");
        ASSERT_TRUE(again && std::bit_cast<std::uint64_t>(*again) == std::bit_cast<std::uint64_t>(value));
        ASSERT_LE(section.GetString(L"k", L"").GetLength(), 24);
    }
    const std::pair<double, const wchar_t*> texts[]{{std::nan(""), L"nan"},
                                                    {-std::nan(""), L"nan"},
                                                    {-Limits::infinity(), L"-inf"},
                                                    {0.1, L"0.1"},
                                                    {-5, L"-5"}};
    for (const auto& [value, text] : texts)
        EXPECT_STREQ(section.SetDouble(L"k", value).GetString(L"k", L""), text);
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
        EXPECT_EQ(section.GetEntries().size(), static_cast<std::size_t>(count));
        EXPECT_EQ(section.GetInt(L"Ключ-key3", 0), -3);
        section.Remove(L"Ключ-kEy0").Remove(L"none");
        EXPECT_EQ(section.TryGetInt(L"Ключ-Key0"), std::nullopt);
        for (int i = 4; i < count; ++i)
            EXPECT_EQ(section.GetInt(L"Ключ-KEY" + std::to_wstring(i), -1), i);
        IniFileSection copy = section;
        copy.SetInt(L"new", 1);
        EXPECT_EQ(copy.GetInt(L"NEW", 0), 1);
        EXPECT_EQ(section.TryGetInt(L"new"), std::nullopt);
        section = std::move(copy);
        EXPECT_EQ(section.GetInt(L"NEW", 0), 1);
    }
}

// Whatever is in a file: it is refused, or comes back as it was after a save. What does not survive one by
// nature (see the header) is mended first.
TEST_F(Ini, AnyFileIsRefusedOrKept) {
    std::mt19937 random(11);
    const std::string good = "[Main]\nWidth = 10\n;comment\nName='a b'\n[Other]\nk=v\nl=\xD0\x96\n";
    int accepted = 0;
    for (int round = 0; round < 400; ++round) {
        std::string bytes = good;
        if (round % 4 == 0) {
            bytes.resize(random() % 200);
            for (char& byte : bytes)
                byte = static_cast<char>(random());
        } else {
            for (unsigned i = 0; i <= random() % 6; ++i)
                bytes[random() % bytes.size()] = "[]=;'\" \n\r\0\xFF\xFEk"[random() % 13];
        }
        writeFile(path_, bytes);
        IniFile file;
        if (!file.Load(path_.c_str())) {
            EXPECT_TRUE(file.IsEmpty());
            continue;
        }
        ++accepted;
        ASSERT_TRUE(file.Save(path_.c_str()));
        IniFile once;
        IniFile twice;
        // Quotes go layer by layer, so what was saved may lose some more; it still is a file.
        ASSERT_TRUE(once.Load(path_.c_str())) << round;
        ASSERT_EQ(once.GetSections().size(), file.GetSections().size());
        while (dump(once) != dump(twice)) {
            ASSERT_TRUE(once.Save(path_.c_str()));
            twice = once;
            ASSERT_TRUE(once.Load(path_.c_str()));
        }
    }
    EXPECT_GT(accepted, 50);
}

} // namespace
