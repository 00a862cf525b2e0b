// The adapters between the library and the engine, and how archives are written through them.

#include "archive/database.h"
#include "archive/engine.h"
#include "archive/update_step.h"
#include "base/handles.h"
#include "support/archive_bytes.h"
#include "support/compound_file.h"
#include "support/log_capture.h"
#include "support/platform_guard.h"
#include "support/streams.h"

#include <utility>

using namespace Vexel::Storage;
using namespace Vexel::Storage::Engine;
using namespace Support;
using namespace Vexel::Detail;

namespace {

class Engine7z : public testing::Test {
protected:
    static void SetUpTestSuite() { start(); }

    void write(const std::vector<UpdateEntry>& entries) const {
        const auto file = adopt(new TemporaryFile(path_.c_str()));
        ASSERT_EQ(file->create(), S_OK);
        ASSERT_EQ(writeArchive(entries, nullptr, file.Get(), path_.c_str()), S_OK);
        ASSERT_EQ(file->finish(), S_OK);
        file->keep();
    }
    std::shared_ptr<DatabaseStream> read() const {
        std::shared_ptr<DatabaseStream> archive;
        EXPECT_EQ(openFile(path_.c_str(), archive), S_OK);
        EXPECT_EQ(archive->read(path_.c_str()), S_OK);
        return archive;
    }

    PlatformGuard platform_;
    Support::TempFolder folder_;
    std::wstring path_ = folder_.file(L"a.7z");
    LogCapture log_;
};

// --- Files

TEST_F(Engine7z, TemporaryFileHoldsWhatIsWritten) {
    platform().writeFile = [](HANDLE to, const void* data, DWORD size, DWORD* done, OVERLAPPED* at) -> BOOL {
        return WriteFile(to, data, (std::min)(size, DWORD{4999}), done, at);
    };
    const std::string large = noise(2'000'000);
    const auto file = adopt(new TemporaryFile(path_.c_str()));
    ASSERT_EQ(file->create(), S_OK);
    EXPECT_EQ(file->Write("0123456789", 10, nullptr), S_OK);
    EXPECT_EQ(file->Write(large.data(), 2'000'000, nullptr), S_OK);
    EXPECT_EQ(file->SetSize(1'000'000), S_OK); // which the engine never does
    EXPECT_EQ(file->Write("ab", 2, nullptr), S_OK);
    EXPECT_EQ(file->Seek(-1, STREAM_SEEK_SET, nullptr), STG_E_INVALIDFUNCTION);
    EXPECT_EQ(file->Seek(-2'000'010, STREAM_SEEK_END, nullptr), S_OK);
    EXPECT_EQ(file->Write("cd", 2, nullptr), S_OK);
    EXPECT_EQ(file->finish(), S_OK);
    const std::string expected =
        "01cd456789" + large.substr(0, 999'990) + std::string(1'000'010, '\0') + "ab";
    EXPECT_TRUE(Support::readFile(path_) == expected);
}

// --- Archives

std::vector<UpdateEntry> manyEntries(unsigned count, std::size_t size) {
    std::vector<UpdateEntry> entries(count);
    const std::string bytes = noise(size + count);
    for (unsigned i = 0; i < count; ++i) {
        entries[i].name = (L"item " + std::to_wstring(i)).c_str();
        entries[i].size = size;
        entries[i].hasNewData = true;
        entries[i].contents = adopt<::IStream>(new FaultyStream(std::string_view(bytes).substr(i, size)));
    }
    return entries;
}

TEST_F(Engine7z, PacksContentsInSmallBlocksAndHeadersThatAreLargeBesideThem) {
    for (const auto& [count, size, isPacked] :
         {std::tuple{10U, 5U, false}, {1000U, 5U, true}, {300U, 5000U, false}, {1U, 2'000'000U, false}}) {
        std::vector<UpdateEntry> entries = manyEntries(count, size);
        write(entries);
        const std::string file = Support::readFile(path_);
        EXPECT_EQ(file.at(ArchiveBytes::headerOf(file)), isPacked ? '\x17' : '\x01') << count;
        EXPECT_EQ(read()->count(), count);
    }
    NArchive::N7z::CFolder folder;
    const auto archive = read();
    archive->database().ParseFolderInfo(0, folder);
    EXPECT_EQ(folder.Coders[0].MethodID, 0x21U);
    EXPECT_EQ(folder.Coders[0].Props[0], 16) << "1 MiB";
    UInt64 time = 0;
    EXPECT_FALSE(archive->database().CTime.GetItem(0, time)) << "none was given";
}

} // namespace
