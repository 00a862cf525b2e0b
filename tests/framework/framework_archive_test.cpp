#include "support/framework_files.h"

#include <vexel/framework.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <random>
#include <string>

using namespace std::string_literals;
using Support::contentsOf;
using Support::loadFrom;
using Support::raised;
using Support::stored;

namespace {

TEST(FrameworkArchive, StoresStringLengthsInTheShortestForm) {
    struct Case {
        UINT_PTR length;
        std::string narrow;
    };
    for (const auto& [length, narrow] : {
             Case{0, "\0"s},
             Case{0xFE, "\xFE"},
             Case{0xFF, "\xFF\xFF\0"s},
             Case{0x12C, "\xFF\x2C\1"},
             Case{0xFFFD, "\xFF\xFD\xFF"},
             Case{0xFFFE, "\xFF\xFF\xFF\xFE\xFF\0\0"s},
             Case{0x12345678, "\xFF\xFF\xFF\x78\x56\x34\x12"},
             Case{0xFFFFFFFF, std::string(11, '\xFF') + "\0\0\0\0"s},
             Case{0x123456789A, std::string(7, '\xFF') + "\x9A\x78\x56\x34\x12\0\0\0"s},
         }) {
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
        CString text;
        wchar_t* characters = text.GetBufferSetLength(length);
        for (int i = 0; i < length; ++i)
            characters[i] = static_cast<wchar_t>(i + 1);
        loadFrom(
            stored([&](CArchive& to) { to << text << WORD{0xABCD} << -2LL << 1.5; }), [&](CArchive& archive) {
                CString loaded = L"before";
                WORD word = 0;
                LONGLONG number = 0;
                double real = 0;
                archive >> loaded >> word >> number >> real;
                EXPECT_TRUE(loaded == text && word == 0xABCD && number == -2 && real == 1.5) << length;
                EXPECT_EQ(raised<CArchiveException>([&] { archive >> word; }), CArchiveException::endOfFile);
            });
    }
    for (int stored = 0; stored < 3; ++stored) {
        loadFrom(std::string(1, static_cast<char>(stored)), [&](CArchive& archive) {
            bool value = stored == 0;
            archive >> value;
            EXPECT_EQ(std::bit_cast<char>(value), stored != 0);
        });
    }
}

TEST(FrameworkArchive, LoadsNarrowStrings) {
    loadFrom("\3abc\0"s, [](CArchive& archive) {
        CString text;
        EXPECT_EQ((archive >> text, text), L"abc");
        EXPECT_EQ((archive >> text, text), L"");
    });
    loadFrom("\xFF\x2C\1" + std::string(300, 'x'), [](CArchive& archive) {
        CString text;
        EXPECT_EQ((archive >> text, text), CString(L'x', 300));
    });
}

/// Notes the largest request: the archive reads into the string's memory, so nothing larger was taken.
class WatchedFile : public CMemFile {
public:
    using CMemFile::CMemFile;
    UINT Read(void* data, UINT count) override {
        largest = std::max(largest, count);
        return CMemFile::Read(data, count);
    }
    UINT largest = 0;
};

TEST(FrameworkArchive, LengthsThatPromiseTooMuchTakeNoMemory) {
    constexpr int cut = CArchiveException::endOfFile;
    constexpr int tooLong = CArchiveException::genericException;
    const std::string rest(20000, 'x');
    struct Case {
        std::string bytes;
        int cause;
    };
    for (auto [bytes, cause] : {
             Case{"\xFF\xFE\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x7F" + rest, cut},
             Case{"\xFF\xFF\xFF\xFF\xFF\xFF\x7F" + rest, cut},
             Case{"\xFF\xFE\xFF\xFF\xFF\xFF\0\0\0\x80"s + rest, tooLong},
             Case{"\xFF\xFE\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\1\0\0\0\1\0\0\0"s + rest, tooLong},
             Case{"\xFF\xFE\xFF\xFF", cut},
             Case{"", cut},
         }) {
        WatchedFile file(reinterpret_cast<BYTE*>(bytes.data()), static_cast<UINT>(bytes.size()));
        CArchive archive(&file, CArchive::load);
        CString text = L"before";
        EXPECT_EQ(raised<CArchiveException>([&] { archive >> text; }), cause);
        EXPECT_EQ(text, L"before");
        EXPECT_LE(file.largest, 4 * bytes.size() + 4096);
    }
}

TEST(FrameworkArchive, RefusesTheWrongDirectionAndNamesTheFile) {
    CMemFile file;
    CArchive storing(&file, CArchive::store);
    CArchive loading(&file, CArchive::load);
    loading.m_strFileName = L"name.doc";
    CString text;
    int number = 0;
    EXPECT_EQ(raised<CArchiveException>([&] { storing >> number; }), CArchiveException::writeOnly);
    EXPECT_EQ(raised<CArchiveException>([&] { storing >> text; }), CArchiveException::writeOnly);
    EXPECT_EQ(raised<CArchiveException>([&] { loading << number; }), CArchiveException::readOnly);
    try {
        loading << text;
        ADD_FAILURE();
    } catch (CException* exception) { // by the base, as the application does
        wchar_t message[100];
        EXPECT_TRUE(exception->GetErrorMessage(message, 100));
        EXPECT_EQ(CString(message).Find(L"name.doc"), 0);
        exception->Delete();
    }
}

TEST(FrameworkArchive, OnlyAnEndedArchiveWritesWhatItHolds) {
    struct Ending {
        const char* what;
        UINT mode;
        void (*end)(CArchive&);
        ULONGLONG written;
    };
    for (const auto& [what, mode, end, written] : {
             Ending{"closed", CArchive::store, [](CArchive& archive) { archive.Close(); }, 1},
             Ending{"destroyed", CArchive::store, [](CArchive&) {}, 1},
             Ending{"flushed", CArchive::store | CArchive::bNoFlushOnDelete,
                    [](CArchive& archive) { archive.Flush(); }, 1},
             Ending{"destroyed without", CArchive::store | CArchive::bNoFlushOnDelete, [](CArchive&) {}, 0},
             Ending{"given up", CArchive::store, [](CArchive& archive) { archive.Abort(); }, 0},
         }) {
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
    std::string data(60000, '\0');
    std::generate(data.begin(), data.end(), [&] { return static_cast<char>(random()); });
    const auto inPieces = [&](const std::function<void(const char*, UINT)>& move) {
        for (std::size_t done = 0; done < data.size();) {
            const std::size_t piece = std::min<std::size_t>(random() % 700, data.size() - done);
            move(data.data() + done, static_cast<UINT>(piece));
            done += piece;
        }
    };
    for (const int buffer : {0, 200, 4096}) {
        CMemFile file;
        CArchive storing(&file, CArchive::store, buffer);
        inPieces([&](const char* piece, UINT size) { storing.Write(piece, size); });
        storing.Close();
        EXPECT_TRUE(contentsOf(file) == data) << buffer;

        file.SeekToBegin();
        CArchive loading(&file, CArchive::load, buffer);
        std::string loaded;
        inPieces([&](const char*, UINT size) {
            loaded.resize(loaded.size() + size);
            EXPECT_EQ(loading.Read(loaded.data() + loaded.size() - size, size), size);
            if (random() % 8 == 0) {
                loading.Flush(); // gives back what was read ahead
                EXPECT_EQ(file.GetPosition(), loaded.size());
            }
        });
        EXPECT_TRUE(loaded == data) << buffer;
        BYTE more = 0;
        EXPECT_EQ(loading.Read(&more, 1), 0U);
    }
}

} // namespace
