// Saves of archives that other programs made: folders that several files share, anti-items, attributes. And
// streams of callers that fail, on either side of a save.

#include "archive/database.h"
#include "archive_fixture.h"
#include "support/fault_sweep.h"

#include <filesystem>

using namespace std::string_view_literals;
using Microsoft::WRL::ComPtr;
using namespace Support;
using Vexel::Storage::SZipArchive;
using Vexel::Storage::Engine::DatabaseStream;

namespace {

std::string numbers() {
    std::string lines;
    for (int i = 1; i <= 400; ++i)
        lines += std::to_string(i) + "\n";
    return lines;
}
const Contents kSolidContents{{L"d", directoryMark},   {L"d/a.txt", "first member, which stays"},
                              {L"d/b.txt", numbers()}, {L"d/e", directoryMark},
                              {L"d/e/c.txt", "last"},  {L"empty", ""},
                              {L"link", "d/a.txt"},    {L"top", "x"}};
constexpr auto* kSolid = L"solid-without-directories.7z";

class ForeignSaves : public ArchiveTest {
protected:
    void use(const wchar_t* sample) const {
        DeleteFileW(archivePath.c_str());
        std::filesystem::copy_file(samplePath(sample), archivePath);
    }
    std::shared_ptr<DatabaseStream> database() const {
        std::shared_ptr<DatabaseStream> database;
        EXPECT_EQ(Vexel::Storage::Engine::openFile(archivePath.c_str(), database), S_OK);
        EXPECT_EQ(database->read(archivePath.c_str()), S_OK);
        return database;
    }
    std::map<std::wstring, std::optional<std::uint32_t>> attributes() const {
        std::map<std::wstring, std::optional<std::uint32_t>> attributes;
        const auto archive = database();
        for (unsigned i = 0; i < archive->count(); ++i)
            attributes[std::wstring(archive->path(i))] = archive->attributes(i);
        return attributes;
    }
    /// Flips a bit in the middle of a solid folder's packed bytes.
    void damage() const {
        std::string bytes = readFile(archivePath);
        std::shared_ptr<DatabaseStream> whole = database();
        const std::uint64_t start = whole->database().GetFolderStreamPos(0, 0);
        bytes[start + whole->database().GetFolderFullPackSize(0) / 2] ^= 0x10;
        whole.reset(); // it holds the file
        writeFile(archivePath, bytes);
    }
};

HRESULT removeAll(SZipArchive& archive, std::initializer_list<std::wstring_view> paths) {
    for (const std::wstring_view path : paths)
        if (const HRESULT status = archive.remove(path); status != S_OK)
            return status;
    return S_OK;
}

enum class Folders { Shared, TakenApart };

// What comes of a change is what comes of it in an archive of ours with the same contents.
TEST_F(ForeignSaves, TakeASharedFolderApartThatIsNotKeptWhole) {
    const struct {
        const char* name;
        Folders folders;
        HRESULT (*apply)(SZipArchive& archive);
    } changes[] = {
        {"remove the first", Folders::TakenApart, [](SZipArchive& a) { return a.remove(L"d/a.txt"sv); }},
        {"put over the last", Folders::TakenApart,
         [](SZipArchive& a) { return writeItem(a, L"top", "another"); }},
        {"remove the last and move", Folders::TakenApart,
         [](SZipArchive& a) {
             const HRESULT status = a.remove(L"top"sv);
             return status == S_OK ? a.move(L"d/b.txt"sv, L"moved"sv) : status;
         }},
        {"keep one", Folders::TakenApart,
         [](SZipArchive& a) {
             return removeAll(a, {L"d/a.txt", L"d/b.txt", L"d/e/c.txt", L"link"});
         }},
        {"only move", Folders::Shared, [](SZipArchive& a) { return a.move(L"d/b.txt"sv, L"moved"sv); }},
    };
    for (const auto& [name, folders, apply] : changes) {
        SCOPED_TRACE(name);
        use(kSolid);
        SZipArchive twin = inMemory(kSolidContents);
        EXPECT_EQ(apply(twin), S_OK);
        Contents expected = statesOf(twin);
        for (auto& [path, bytes] : expected)
            if (folders == Folders::Shared && !bytes.empty() && bytes != kDirectory)
                bytes = failed(STG_E_INVALIDFUNCTION);
        {
            SZipArchive archive = open();
            EXPECT_EQ(apply(archive), S_OK);
            const auto copy = streamOf("");
            EXPECT_EQ(archive.save(copy.Get()), S_OK);
            EXPECT_EQ(saved(archive), expected);
            EXPECT_EQ(bytesOf(copy.Get()), readFile(archivePath));
        }
        EXPECT_EQ(database()->hasSharedFolders(), folders == Folders::Shared);
    }
}

// Two copies of one packed item, of which the engine takes over only one.
TEST_F(ForeignSaves, CopyItemsOfASharedFolderTwice) {
    use(kSolid);
    const SZipArchive source = open();
    SZipArchive target(folder_.file(L"copy.7z"), false, true);
    EXPECT_EQ(target.borrowPackedData(source), S_OK);
    for (const wchar_t* path : {L"b1", L"b2", L"b3"})
        EXPECT_EQ(target.addItem(source, L"d/b.txt"sv, path), S_OK);
    EXPECT_EQ(target.addItem(source, L"top"sv, L"t"), S_OK);
    EXPECT_EQ(target.save(false), S_OK);
    EXPECT_EQ(statesOf(target),
              (Contents{{L"b1", numbers()}, {L"b2", numbers()}, {L"b3", numbers()}, {L"t", "x"}}));
}

TEST_F(ForeignSaves, LeaveAFileAloneWhoseFolderIsDamaged) {
    use(kSolid);
    damage();
    const std::string before = readFile(archivePath);
    SZipArchive archive = open();
    EXPECT_EQ(archive.remove(L"d/a.txt"sv), S_OK);
    EXPECT_TRUE(FAILED(archive.save(false)));
    EXPECT_GE(log_.count(VxLog_Error, L"in archive \"" + archivePath + L"\""), 1);
    EXPECT_EQ(readFile(archivePath), before);
    EXPECT_FALSE(std::filesystem::exists(archivePath + L".7ztmp"));
    // What does not need the damaged contents goes on: the folder is kept whole, or nothing of it.
    EXPECT_EQ(archive.reload(), S_OK);
    fill(archive, {{L"empty", "new"}});
    EXPECT_EQ(archive.save(false), S_OK);
    // Nor does damage behind the last of the contents that are needed matter.
    EXPECT_EQ(removeAll(archive, {L"d/b.txt", L"d/e/c.txt", L"link", L"top"}), S_OK);
    EXPECT_EQ(saved(archive), (Contents{{L"d", kDirectory},
                                        {L"d/a.txt", "first member, which stays"},
                                        {L"d/e", kDirectory},
                                        {L"empty", "new"}}));
}

TEST_F(ForeignSaves, KeepTheAttributesOfUnchangedItems) {
    use(kSolid);
    auto before = attributes();
    ASSERT_EQ(before[L"link"].value_or(0) >> 16, 0120777U); // a symbolic link
    for (int round = 0; round < 2; ++round) {
        SZipArchive archive = open();
        fill(archive, {{L"top", "changed"}});
        EXPECT_EQ(archive.save(false), S_OK);
    }
    auto after = attributes();
    EXPECT_EQ(std::exchange(after[L"top"], before[L"top"]), std::nullopt);
    EXPECT_EQ(after.erase(L"d") + after.erase(L"d/e"), 2U); // the archive had no items for them
    EXPECT_EQ(after, before);
}

TEST_F(ForeignSaves, KeepWhatIsWrittenIntoAnAntiItem) {
    for (const auto& [creates, text] : {std::pair(true, "back"sv), {false, "back"sv}, {true, ""sv}}) {
        use(L"solid-with-anti-items.7z");
        SZipArchive archive = open();
        ASSERT_TRUE(archive.item(L"d/e/c.txt"sv)->isAnti());
        ComPtr<IStream> stream;
        EXPECT_EQ(creates ? archive.createFile(&stream, L"d/e/c.txt", false, true)
                          : archive.extractFile(&stream, L"d/e/c.txt"sv),
                  S_OK);
        EXPECT_EQ(stream->Write(text.data(), static_cast<ULONG>(text.size()), nullptr), S_OK);
        stream.Reset();
        EXPECT_EQ(archive.save(true), S_OK);
        EXPECT_EQ(stateOf(archive, L"d/e/c.txt"), text);
        EXPECT_FALSE(archive.item(L"d/e/c.txt"sv)->isAnti());
        EXPECT_TRUE(archive.item(L"d/e"sv)->isAnti());
        SZipArchive copy = inMemory();
        EXPECT_EQ(copy.addItem(archive, L"d/e"sv, L"e"), S_OK);
        EXPECT_TRUE(copy.item(L"e"sv)->isAnti());
    }
}

TEST_F(ForeignSaves, TellWhatAStreamFailedWith) {
    const std::string bytes = readFile(samplePath(L"plain-lzma2.7z"));
    std::ptrdiff_t updates = 0, headers = 0;
    for (const auto call :
         {FaultyStream::Reading, FaultyStream::Writing, FaultyStream::Seeking, FaultyStream::Cloning})
        for (const HRESULT status : {STG_E_WRITEFAULT, STG_E_ACCESSDENIED, HRESULT(0x8003000D), E_ABORT,
                                     E_INVALIDARG, E_OUTOFMEMORY, E_NOTIMPL, E_FAIL, HRESULT(0x80030000),
                                     S_OK, S_FALSE, HRESULT(5), HRESULT(13), HRESULT(0x20000002)}) {
            // Some streams' word for their end, and for reading alone a success with an impossible count.
            if (status == (call == FaultyStream::Reading ? S_FALSE : S_OK))
                continue;
            sweepFaults([&](unsigned n) {
                const auto plan = std::make_shared<FaultyStream::Plan>();
                const auto source = Vexel::Detail::adopt(new FaultyStream(bytes, plan)),
                           target = Vexel::Detail::adopt(new FaultyStream("", plan));
                SZipArchive archive(source.Get());
                plan->status = status;
                plan->skipped = n;
                plan->call = call == FaultyStream::Reading ? call : FaultyStream::Nothing;
                if (const HRESULT opened = archive.reload(); plan->hit) {
                    EXPECT_TRUE(status < 0 ? opened == status : FAILED(opened))
                        << n << std::hex << ' ' << status << ' ' << opened;
                    return true;
                }
                plan->call = call;
                log_.clear();
                const HRESULT saved = archive.save(target.Get());
                if (plan->hit && status == STG_E_WRITEFAULT && call == FaultyStream::Writing) {
                    updates += log_.count(7, L"Failed to create or update archive \"");
                    headers += log_.count(7, L"Failed to write archive header to \"");
                    EXPECT_EQ(updates + headers, n + 1);
                    EXPECT_EQ(log_.count(7, L":\": 0x8003001d"), 1);
                }
                EXPECT_TRUE(!plan->hit   ? saved == S_OK
                            : status < 0 ? saved == status
                                         : FAILED(saved))
                    << call << ' ' << n << std::hex << ' ' << status << ' ' << saved;
                return plan->hit;
            });
        }
    EXPECT_GE(updates, 1);
    EXPECT_GE(headers, 1);
}

} // namespace
