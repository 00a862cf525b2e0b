#pragma once

#include "support/archive_faults.h"
#include "support/archive_file.h"
#include "support/compound_file.h"
#include "support/log_capture.h"

namespace Support {

/// A folder with the path of an archive in it, whose system calls can be made to fail.
class ArchiveTest : public testing::Test {
protected:
    using SZipArchive = Vexel::Storage::SZipArchive;

    void SetUp() override { archivePath = folder_.file(L"a.7z"); }

    /// Makes the file anew.
    static void make(const Contents& contents, const std::wstring& path = archivePath) {
        SZipArchive archive(path, false, true);
        fill(archive, contents);
        EXPECT_EQ(archive.save(false), S_OK);
    }
    static SZipArchive open(const std::wstring& path = archivePath, bool readOnly = false) {
        SZipArchive archive(path, readOnly, true);
        EXPECT_EQ(archive.reload(), S_OK);
        return archive;
    }
    static SZipArchive made(const Contents& contents) {
        make(contents);
        return open();
    }
    /// What is in the file.
    static Contents onDisk(const std::wstring& path = archivePath) {
        SZipArchive archive = open(path, true);
        return statesOf(archive);
    }
    /// A save that ends well, and what is in the file then.
    static Contents saved(SZipArchive& archive, const std::wstring& path = archivePath) {
        EXPECT_EQ(archive.save(false), S_OK);
        return onDisk(path);
    }
    /// A save during which one call fails, the first or a later one.
    static HRESULT saveFailing(SZipArchive& archive, ArchiveFaults::Call call, DWORD error,
                               unsigned skipped = 0) {
        ArchiveFaults::arm(call, error, skipped, false);
        const HRESULT status = archive.save(false);
        EXPECT_TRUE(ArchiveFaults::disarm());
        return status;
    }

    static constexpr const char* kDirectory = directoryMark;
    ArchiveFaults faults_;
    TempFolder folder_;
    LogCapture log_;
    static inline std::wstring archivePath; // for what happens alongside a fault, too
};

} // namespace Support
