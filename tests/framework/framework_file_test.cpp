#include "support/compound_file.h"
#include "support/framework_files.h"

#include <vexel/framework.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

using namespace Support;

namespace {

class FrameworkFile : public testing::Test {
protected:
    Support::TempFolder folder_;
    std::wstring path_ = folder_.file(L"file.tmp");
    CString name_ = path_.c_str();
};

int causeOf(const std::function<void()>& action) { return raised<CFileException>(action); }

TEST_F(FrameworkFile, WritesWhatOthersRead) {
    CFile file(name_, CFile::modeCreate | CFile::modeReadWrite | CFile::shareDenyNone);
    file.Write("0123456789", 10);
    EXPECT_EQ(file.Seek(-3, CFile::current), 7U);
    char last[8] = {};
    EXPECT_EQ(file.Read(last, 8), 3U);
    EXPECT_STREQ(last, "789");
    file.SetLength(4);
    EXPECT_EQ(file.SeekToEnd(), 4U);
    file.Flush();
    EXPECT_EQ(readFile(path_), "0123");
    EXPECT_EQ(file.GetFilePath(), name_);
    EXPECT_EQ(file.GetFileName(), L"file.tmp");
    file.Close();
    EXPECT_EQ(causeOf([&] { file.GetLength(); }), CFileException::invalidFile);

    // An existing file is kept or emptied as the flags say.
    CFile(name_, CFile::modeCreate | CFile::modeNoTruncate | CFile::modeWrite).Close();
    EXPECT_EQ(readFile(path_), "0123");
    CFile(name_, CFile::modeCreate | CFile::modeWrite).Close();
    EXPECT_EQ(readFile(path_), "");
}

TEST_F(FrameworkFile, FailuresCarryCauseCodeAndName) {
    CFileException error;
    CFile file;
    EXPECT_FALSE(file.Open(name_, CFile::modeRead, &error));
    EXPECT_EQ(error.m_cause, CFileException::fileNotFound);
    EXPECT_EQ(error.m_lOsError, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(error.m_strFileName, name_);
    EXPECT_EQ(causeOf([&] { CFile(name_ + L"\\x", CFile::modeRead); }), CFileException::badPath);

    CFile holder(name_, CFile::modeCreate | CFile::modeWrite | CFile::shareExclusive);
    char byte = 0;
    EXPECT_EQ(causeOf([&] { holder.Read(&byte, 1); }), CFileException::accessDenied);
    EXPECT_EQ(causeOf([&] { holder.Seek(-1, CFile::begin); }), CFileException::badSeek);
}

TEST_F(FrameworkFile, SharesWhatItsFlagsSay) {
    CFile(name_, CFile::modeCreate | CFile::modeWrite).Close();
    constexpr int kOpens = -1, kRefused = CFileException::sharingViolation;
    const struct {
        UINT share;
        int reading, writing;
    } cases[] = {{CFile::shareCompat, kRefused, kRefused},
                 {CFile::shareExclusive, kRefused, kRefused},
                 {CFile::shareDenyWrite, kOpens, kRefused},
                 {CFile::shareDenyRead, kRefused, kOpens},
                 {CFile::shareDenyNone, kOpens, kOpens}};
    const auto openAs = [this](UINT mode) {
        return causeOf([&] { CFile(name_, mode | CFile::shareDenyNone); });
    };
    for (const auto& [share, reading, writing] : cases) {
        CFile holder(name_, CFile::modeReadWrite | share);
        DWORD flags = 0;
        EXPECT_TRUE(GetHandleInformation(holder.m_hFile, &flags));
        EXPECT_EQ(flags & HANDLE_FLAG_INHERIT, DWORD{HANDLE_FLAG_INHERIT});
        EXPECT_EQ(openAs(CFile::modeRead), reading) << share;
        EXPECT_EQ(openAs(CFile::modeWrite), writing) << share;
        holder.Abort();
        EXPECT_EQ(holder.m_hFile, INVALID_HANDLE_VALUE);
        holder.Abort(); // nothing is open
    }
    const CFile alone(name_, CFile::modeRead | CFile::modeNoInherit);
    DWORD flags = HANDLE_FLAG_INHERIT;
    EXPECT_TRUE(GetHandleInformation(alone.m_hFile, &flags));
    EXPECT_EQ(flags & HANDLE_FLAG_INHERIT, 0U);
}

TEST(FrameworkException, PlatformErrorsHaveCauses) {
    const std::pair<LONG, int> cases[] = {
        {ERROR_SUCCESS, CFileException::none},
        {ERROR_LOCK_VIOLATION, CFileException::lockViolation},
        {ERROR_DISK_FULL, CFileException::diskFull},
        {0x7FFFFFFF, CFileException::genericException},
    };
    for (const auto& [error, cause] : cases)
        EXPECT_EQ(CFileException::OsErrorToException(error), cause) << error;
    // Throwing always throws, even when the system gave no code.
    EXPECT_EQ(causeOf([] { CFileException::ThrowOsError(0); }), CFileException::genericException);
    try {
        AfxThrowMemoryException();
    } catch (CException* exception) {
        exception->Delete();
        exception->Delete(); // made ahead: it is never really freed
        EXPECT_NE(dynamic_cast<CMemoryException*>(exception), nullptr);
    }
}

/// One random row of operations, and everything they answered.
std::vector<ULONGLONG> exercise(CFile& file, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<ULONGLONG> answers;
    std::vector<BYTE> data(3000);
    for (int i = 0; i < 200; ++i) {
        const UINT count = static_cast<UINT>(random() % data.size());
        const unsigned operation = random() % 5;
        if (operation == 0) {
            file.Seek(count, CFile::begin);
        } else if (operation == 1) {
            file.Seek(-static_cast<LONGLONG>(count % (file.GetLength() + 1)), CFile::end);
        } else if (operation == 2) {
            std::fill(data.begin(), data.end(), static_cast<BYTE>(random()));
            file.Write(data.data(), count);
        } else if (operation == 3) {
            answers.push_back(file.Read(data.data(), count));
            answers.insert(answers.end(), data.begin(), data.begin() + static_cast<int>(answers.back()));
        } else {
            file.SetLength(file.GetLength() * (count % 4) / 2);
            file.SeekToEnd();
        }
        answers.push_back(file.GetPosition());
        answers.push_back(file.GetLength());
    }
    return answers;
}

TEST_F(FrameworkFile, MemoryFilesBehaveAsFilesOnDisk) {
    for (unsigned seed = 0; seed < 8; ++seed) {
        CFile onDisk(name_, CFile::modeCreate | CFile::modeReadWrite);
        CMemFile inMemory(100);
        EXPECT_EQ(exercise(inMemory, seed), exercise(onDisk, seed)) << seed;
    }
}

TEST(FrameworkMemFile, UsesTheCallersMemory) {
    BYTE memory[4] = {1, 2, 3, 4};
    CMemFile file(memory, 4);
    BYTE byte = 0;
    EXPECT_EQ(file.Read(&byte, 1), 1U);
    file.Write("x", 1);
    EXPECT_EQ(memory[1], 'x');
    EXPECT_EQ(file.SeekToEnd(), 4U);
    EXPECT_THROW(file.Write("y", 1), CMemoryException*);
    EXPECT_EQ(file.Detach(), memory);
    EXPECT_EQ(file.GetLength(), 0U);

    // With room to grow the memory moves, and comes back through Detach.
    file.Attach(static_cast<BYTE*>(std::malloc(2)), 2, 16);
    file.Write("0123456789", 10);
    BYTE* grown = file.Detach();
    EXPECT_EQ(std::string(reinterpret_cast<char*>(grown), 10), "0123456789");
    std::free(grown);
}

TEST(FrameworkMemFile, RefusesPositionsOutsideAndSizesBeyondMemory) {
    CMemFile file;
    file.Write("abc", 3);
    EXPECT_EQ(causeOf([&] { file.Seek(-4, CFile::end); }), CFileException::badSeek);
    EXPECT_EQ(causeOf([&] { file.Seek(MINLONGLONG, CFile::current); }), CFileException::badSeek);
    EXPECT_EQ(causeOf([&] { file.Seek(MAXLONGLONG, CFile::current); }), CFileException::badSeek);
    EXPECT_EQ(file.Seek(MAXLONGLONG, CFile::begin), ULONGLONG{MAXLONGLONG});
    EXPECT_THROW(file.Write("x", 1), CMemoryException*);
    EXPECT_EQ(file.Read(nullptr, 1), 0U);
    EXPECT_THROW(file.SetLength(~0ULL), CMemoryException*);
    EXPECT_EQ(file.GetLength(), 3U);
}

} // namespace
