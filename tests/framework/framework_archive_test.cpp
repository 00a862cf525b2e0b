#include "support/framework_files.h"
#include "support/streams.h"

#include <vexel/framework.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <random>
#include <string>
#include <vector>

using namespace std::string_literals;
using namespace Support;

namespace {

TEST(FrameworkArchive, StoresStringLengthsInTheShortestForm) {
    const std::pair<UINT_PTR, std::string> cases[] = {
        {0, "\0"s},
        {0xFE, "\xFE"},
        {0xFF, "\xFF\xFF\0"s},
        {0x12C, "\xFF\x2C\1"},
        {0xFFFD, "\xFF\xFD\xFF"},
        {0xFFFE, "\xFF\xFF\xFF\xFE\xFF\0\0"s},
        {0x12345678, "\xFF\xFF\xFF\x78\x56\x34\x12"},
        {0xFFFFFFFF, std::string(11, '\xFF') + "\0\0\0\0"s},
        {0x123456789A, std::string(7, '\xFF') + "\x9A\x78\x56\x34\x12\0\0\0"s},
    };
    for (const auto& [length, narrow] : cases) {
        for (const int size : {1, 2}) {
            const bool wide = size == 2;
            const std::string bytes = wide ? "\xFF\xFE\xFF" + narrow : narrow;
            EXPECT_EQ(stored([&](CArchive& archive) { AfxWriteStringLength(archive, length, wide); }), bytes);
            loadFrom(bytes, [&](CArchive& archive) {
                int readSize = 0;
                EXPECT_EQ(AfxReadStringLength(archive, readSize), length);
                EXPECT_EQ(readSize, size);
            });
        }
    }
}

TEST(FrameworkArchive, StringsAndNumbersRoundTrip) {
    EXPECT_EQ(stored([](CArchive& archive) { archive << CString(L"a\u0416") << 1 << BYTE{2} << true; }),
              "\xFF\xFE\xFF\2a\0\x16\4\1\0\0\0\2\1"s);
    for (const int length : {0, 1, 254, 255, 4095, 4097, 65533, 65534, 65535, 200000}) {
        const CString text(L'\u0416', length);
        loadFrom(stored([&](CArchive& to) { to << text << -2LL << 1.5; }), [&](CArchive& archive) {
            CString loaded = L"before";
            LONGLONG number = 0;
            double real = 0;
            archive >> loaded >> number >> real;
            EXPECT_EQ(loaded, text) << length;
            EXPECT_EQ(number, -2);
            EXPECT_EQ(real, 1.5);
            EXPECT_EQ(raised<CArchiveException>([&] { archive >> number; }), CArchiveException::endOfFile);
        });
    }
    loadFrom("\0\1\2"s, [&](CArchive& archive) {
        for (const int stored : {0, 1, 2}) {
            bool value = stored == 0;
            archive >> value;
            EXPECT_EQ(std::bit_cast<char>(value), stored != 0);
        }
    });
}

TEST(FrameworkArchive, LoadsNarrowStrings) {
    loadFrom("\3abc\0\xFF\x2C\1"s + std::string(300, 'x'), [](CArchive& archive) {
        for (const CString& expected : {CString(L"abc"), CString(), CString(L'x', 300)}) {
            CString text = L"before";
            archive >> text;
            EXPECT_EQ(text, expected);
        }
    });
}

/// Notes the largest request: the archive reads into the string's memory, so nothing larger was taken.
class WatchedFile : public CMemFile {
public:
    using CMemFile::CMemFile;
    UINT Read(void* data, UINT count) override {
        largest = std::max(largest, count);
        return CMemFile::Read(data, count) + surplus;
    }
    UINT largest = 0, surplus = 0;
};

TEST(FrameworkArchive, LengthsThatPromiseTooMuchTakeNoMemory) {
    constexpr int kCut = CArchiveException::endOfFile;
    constexpr int kTooLong = CArchiveException::genericException;
    const std::string rest(20000, 'x');
    const std::pair<std::string, int> cases[] = {
        {"\xFF\xFE\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x7F" + rest, kCut},
        {"\xFF\xFF\xFF\xFF\xFF\xFF\x7F" + rest, kCut},
        {"\xFF\xFE\xFF\xFF\xFF\xFF\0\0\0\x80"s + rest, kTooLong},
        {"\xFF\xFE\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\1\0\0\0\1\0\0\0"s + rest, kTooLong},
        {"\xFF\xFE\xFF\xFF", kCut},
        {"", kCut},
    };
    for (auto [bytes, cause] : cases) {
        WatchedFile file(reinterpret_cast<BYTE*>(bytes.data()), static_cast<UINT>(bytes.size()));
        CArchive archive(&file, CArchive::load);
        CString text = L"before";
        EXPECT_EQ(raised<CArchiveException>([&] { archive >> text; }), cause);
        EXPECT_EQ(text, L"before");
        EXPECT_LE(file.largest, 4 * bytes.size() + 4096);
    }
}

TEST(FrameworkArchive, RefusesTheWrongDirectionAndNamesTheFile) {
    WatchedFile boastful; // of bytes that are not there
    boastful.surplus = 100'000;
    for (const UINT count : {1U, 10'000U}) {
        std::string bytes(count, '\0');
        CArchive reading(&boastful, CArchive::load);
        EXPECT_EQ(raised<CArchiveException>([&] { reading.Read(bytes.data(), count); }),
                  CArchiveException::genericException);
    }

    CMemFile file;
    CArchive storing(&file, CArchive::store);
    CArchive loading(&file, CArchive::load);
    loading.m_strFileName = L"name.doc";
    int number = 0;
    EXPECT_EQ(raised<CArchiveException>([&] { storing >> number; }), CArchiveException::writeOnly);
    EXPECT_EQ(raised<CArchiveException>([&] { loading << number; }), CArchiveException::readOnly);
    try {
        loading << CString();
        ADD_FAILURE();
    } catch (CException* exception) { // by the base, as the application does
        wchar_t message[100];
        EXPECT_TRUE(exception->GetErrorMessage(message, 100));
        EXPECT_EQ(CString(message).Find(L"name.doc"), 0);
        exception->Delete();
    }
}

TEST(FrameworkArchive, OnlyAnEndedArchiveWritesWhatItHolds) {
    constexpr UINT kStore = CArchive::store, kNoFlush = kStore | CArchive::bNoFlushOnDelete;
    const struct {
        const char* what;
        UINT mode;
        void (*end)(CArchive&);
        ULONGLONG written;
    } cases[] = {
        {"closed", kStore, [](CArchive& archive) { archive.Close(); }, 1},
        {"destroyed", kStore, [](CArchive&) {}, 1},
        {"flushed", kNoFlush, [](CArchive& archive) { archive.Flush(); }, 1},
        {"destroyed without", kNoFlush, [](CArchive&) {}, 0},
        {"given up", kStore, [](CArchive& archive) { archive.Abort(); }, 0},
    };
    for (const auto& [what, mode, end, written] : cases) {
        CMemFile file;
        {
            CArchive archive(&file, mode);
            archive.Write("x", 1);
            end(archive);
        }
        EXPECT_EQ(file.GetLength(), written) << what;
    }
}

TEST(FrameworkArchive, PiecesOfAnySizePassThroughAnyBuffer) {
    std::mt19937 random(1);
    const std::string data = Support::noise(60000);
    for (const int buffer : {0, 200, 4096}) {
        CMemFile file;
        CArchive storing(&file, CArchive::store, buffer);
        std::vector<std::size_t> ends{0};
        while (ends.back() < data.size()) {
            const std::size_t start = ends.back();
            ends.push_back(std::min(start + random() % 700, data.size()));
            storing.Write(data.data() + start, static_cast<UINT>(ends.back() - start));
        }
        storing.Close();
        EXPECT_TRUE(contentsOf(file) == data) << buffer;

        file.SeekToBegin();
        CArchive loading(&file, CArchive::load, buffer);
        std::string loaded(data.size() + 1, '\0');
        for (std::size_t i = 1; i < ends.size(); ++i) {
            const UINT size = static_cast<UINT>(ends[i] - ends[i - 1]);
            EXPECT_EQ(loading.Read(loaded.data() + ends[i - 1], size), size);
            if (i % 8 == 0) {
                loading.Flush(); // gives back what was read ahead
                EXPECT_EQ(file.GetPosition(), ends[i]);
            }
        }
        EXPECT_EQ(loading.Read(&loaded.back(), 1), 0U);
        EXPECT_TRUE(loaded == data + '\0') << buffer;
    }
}

} // namespace
