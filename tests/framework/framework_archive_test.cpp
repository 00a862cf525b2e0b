#include <vexel/framework.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<BYTE>;

Bytes contents(CFile& file) {
    Bytes bytes(static_cast<std::size_t>(file.GetLength()));
    file.SeekToBegin();
    EXPECT_EQ(file.Read(bytes.data(), static_cast<UINT>(bytes.size())), bytes.size());
    return bytes;
}

Bytes stored(const std::function<void(CArchive&)>& store) {
    CMemFile file;
    CArchive archive(&file, CArchive::store);
    store(archive);
    archive.Close();
    return contents(file);
}

/// What `load` does on an archive over these bytes.
void loadFrom(Bytes bytes, const std::function<void(CArchive&)>& load) {
    CMemFile file(bytes.data(), static_cast<UINT>(bytes.size()));
    CArchive archive(&file, CArchive::load);
    load(archive);
}

int causeOf(const std::function<void()>& action) {
    try {
        action();
    } catch (CArchiveException* exception) {
        const int cause = exception->m_cause;
        exception->Delete();
        return cause;
    }
    return CArchiveException::none;
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST(FrameworkArchive, StoresStringLengthsInTheShortestForm) {
    struct Case {
        UINT_PTR length;
        Bytes narrow;
    };
    const Case cases[] = {
        {0, {0}},
        {0xFE, {0xFE}},
        {0xFF, {0xFF, 0xFF, 0x00}},
        {0x12C, {0xFF, 0x2C, 0x01}},
        {0xFFFD, {0xFF, 0xFD, 0xFF}},
        {0xFFFE, {0xFF, 0xFF, 0xFF, 0xFE, 0xFF, 0, 0}},
        {0x12345678, {0xFF, 0xFF, 0xFF, 0x78, 0x56, 0x34, 0x12}},
        {0xFFFFFFFF, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0}},
        {0x123456789A, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x9A, 0x78, 0x56, 0x34, 0x12, 0, 0, 0}},
    };
    for (const Case& test : cases) {
        for (const int size : {1, 2}) {
            const Bytes bytes = size == 2 ? Bytes{0xFF, 0xFE, 0xFF} + test.narrow : test.narrow;
            EXPECT_EQ(
                stored([&](CArchive& archive) { AfxWriteStringLength(archive, test.length, size == 2); }),
                bytes);
            loadFrom(bytes, [&](CArchive& archive) {
                int readSize = 0;
                EXPECT_EQ(AfxReadStringLength(archive, readSize), test.length);
                EXPECT_EQ(readSize, size);
            });
        }
    }
}

TEST(FrameworkArchive, StringsAndNumbersRoundTrip) {
    EXPECT_EQ(stored([](CArchive& archive) { archive << CString(L"a\u0416") << 1 << BYTE{2} << true; }),
              (Bytes{0xFF, 0xFE, 0xFF, 2, 0x61, 0, 0x16, 0x04, 1, 0, 0, 0, 2, 1}));
    for (const int length : {0, 1, 254, 255, 4095, 4097, 65533, 65534, 65535, 200000}) {
        CString text;
        wchar_t* characters = text.GetBufferSetLength(length);
        for (int i = 0; i < length; ++i)
            characters[i] = static_cast<wchar_t>(i + 1);
        const Bytes bytes =
            stored([&](CArchive& archive) { archive << text << WORD{0xABCD} << -2LL << 1.5; });
        loadFrom(bytes, [&](CArchive& archive) {
            CString loaded = L"before";
            WORD word = 0;
            LONGLONG number = 0;
            double real = 0;
            archive >> loaded >> word >> number >> real;
            EXPECT_TRUE(loaded == text && word == 0xABCD && number == -2 && real == 1.5) << length;
            EXPECT_EQ(causeOf([&] { archive >> word; }), CArchiveException::endOfFile);
        });
    }
}

TEST(FrameworkArchive, LoadsNarrowStrings) {
    loadFrom({3, 'a', 'b', 'c', 0}, [](CArchive& archive) {
        CString text;
        EXPECT_EQ((archive >> text, text), L"abc");
        EXPECT_EQ((archive >> text, text), L"");
    });
    loadFrom(Bytes{0xFF, 0x2C, 0x01} + Bytes(300, 'x'), [](CArchive& archive) {
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
    struct Case {
        Bytes header;
        int cause;
    };
    const Case cases[] = {
        {{0xFF, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F}, CArchiveException::endOfFile},
        {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F}, CArchiveException::endOfFile},
        {{0xFF, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0x80}, CArchiveException::genericException},
        {{0xFF, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 1, 0, 0, 0, 1, 0, 0, 0},
         CArchiveException::genericException},
        {{0xFF, 0xFE, 0xFF, 0xFF}, CArchiveException::endOfFile},
        {{}, CArchiveException::endOfFile},
    };
    for (const auto& [header, cause] : cases) {
        Bytes bytes = header + Bytes(header.size() < 5 ? 0 : 20000, 'x');
        WatchedFile file(bytes.data(), static_cast<UINT>(bytes.size()));
        CArchive archive(&file, CArchive::load);
        CString text = L"before";
        EXPECT_EQ(causeOf([&] { archive >> text; }), cause);
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
    EXPECT_EQ(causeOf([&] { storing >> number; }), CArchiveException::writeOnly);
    EXPECT_EQ(causeOf([&] { storing >> text; }), CArchiveException::writeOnly);
    EXPECT_EQ(causeOf([&] { loading << number; }), CArchiveException::readOnly);
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

TEST(FrameworkArchive, PiecesOfAnySizePassThroughAnyBuffer) {
    std::mt19937 random(1);
    Bytes data(60000);
    std::generate(data.begin(), data.end(), [&] { return static_cast<BYTE>(random()); });
    const auto inPieces = [&](const std::function<void(BYTE*, UINT)>& move) {
        for (std::size_t done = 0; done < data.size();) {
            const std::size_t piece = std::min<std::size_t>(random() % 700, data.size() - done);
            move(data.data() + done, static_cast<UINT>(piece));
            done += piece;
        }
    };
    for (const int buffer : {0, 200, 4096}) {
        CMemFile file;
        CArchive storing(&file, CArchive::store, buffer);
        inPieces([&](BYTE* piece, UINT size) { storing.Write(piece, size); });
        storing.Close();
        EXPECT_EQ(contents(file), data) << buffer;

        file.SeekToBegin();
        CArchive loading(&file, CArchive::load, buffer);
        Bytes loaded;
        inPieces([&](const BYTE*, UINT size) {
            loaded.resize(loaded.size() + size);
            EXPECT_EQ(loading.Read(loaded.data() + loaded.size() - size, size), size);
            if (random() % 8 == 0) {
                loading.Flush(); // gives back what was read ahead
                EXPECT_EQ(file.GetPosition(), loaded.size());
            }
        });
        EXPECT_EQ(loaded, data) << buffer;
        BYTE more = 0;
        EXPECT_EQ(loading.Read(&more, 1), 0U);
    }
}

} // namespace
