// Saves of archives that other programs made: folders that several files share, anti-items, attributes. And
// streams of callers that fail, on either side of a save.

#include "archive/database.h"
#include "archive_fixture.h"

#include <filesystem>
#include <new>

using namespace std::string_view_literals;
using Microsoft::WRL::ComPtr;
using Support::Contents;
using Support::fill;
using Support::inMemory;
using Support::stateOf;
using Support::statesOf;
using Support::writeItem;
using Vexel::Storage::SZipArchive;
using Vexel::Storage::Engine::DatabaseStream;

namespace {

std::string numbers() {
    std::string lines;
    for (int i = 1; i <= 400; ++i)
        lines += std::to_string(i) + "\n";
    return lines;
}
const Contents kSolidContents{{L"d", Support::directoryMark}, {L"d/a.txt", "first member, which stays"},
                              {L"d/b.txt", numbers()},        {L"d/e", Support::directoryMark},
                              {L"d/e/c.txt", "last"},         {L"empty", ""},
                              {L"link", "d/a.txt"},           {L"top", "x"}};
constexpr auto* kSolid = L"solid-without-directories.7z";

class ForeignSaves : public Support::ArchiveTest {
protected:
    void use(const wchar_t* sample) const {
        DeleteFileW(archivePath.c_str());
        std::filesystem::copy_file(Support::samplePath(sample), archivePath);
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
        std::string bytes = Support::readFile(archivePath);
        std::shared_ptr<DatabaseStream> whole = database();
        const std::uint64_t start = whole->database().GetFolderStreamPos(0, 0);
        bytes[start + whole->database().GetFolderFullPackSize(0) / 2] ^= 0x10;
        whole.reset(); // it holds the file
        Support::writeFile(archivePath, bytes);
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
                bytes = Support::failed(STG_E_INVALIDFUNCTION);
        {
            SZipArchive archive = open();
            EXPECT_EQ(apply(archive), S_OK);
            const auto copy = Support::streamOf("");
            EXPECT_EQ(archive.save(copy.Get()), S_OK);
            EXPECT_EQ(saved(archive), expected);
            EXPECT_EQ(Support::bytesOf(copy.Get()), Support::readFile(archivePath));
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
    const std::string before = Support::readFile(archivePath);
    SZipArchive archive = open();
    EXPECT_EQ(archive.remove(L"d/a.txt"sv), S_OK);
    EXPECT_TRUE(FAILED(archive.save(false)));
    EXPECT_GE(log_.count(VxLog_Error, L"in archive \"" + archivePath + L"\""), 1);
    EXPECT_EQ(Support::readFile(archivePath), before);
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

/// A stream whose n-th call of a kind fails with a status of all sorts; its clones count with it.
class SickStream final : public Vexel::Storage::InMemoryIStream {
public:
    enum Call { Nothing, Reading, Writing, Seeking, Cloning };
    struct Plan {
        Call call = Nothing;
        unsigned skipped = 0;
        HRESULT status = S_OK;
        bool hit = false;

        bool strikes(Call made) {
            if (made != call || skipped-- != 0)
                return false;
            return hit = true;
        }
    };

    SickStream(Plan& plan, const InMemoryIStream& contents) : InMemoryIStream(contents), plan_(plan) {}

    HRESULT STDMETHODCALLTYPE Read(void* data, ULONG size, ULONG* done) noexcept override {
        return plan_.strikes(Reading) ? plan_.status : InMemoryIStream::Read(data, size, done);
    }
    HRESULT STDMETHODCALLTYPE Write(const void* data, ULONG size, ULONG* done) noexcept override {
        return plan_.strikes(Writing) ? plan_.status : InMemoryIStream::Write(data, size, done);
    }
    HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER to, DWORD origin,
                                   ULARGE_INTEGER* reached) noexcept override {
        return plan_.strikes(Seeking) ? plan_.status : InMemoryIStream::Seek(to, origin, reached);
    }
    HRESULT STDMETHODCALLTYPE Clone(::IStream** clone) noexcept override {
        *clone = nullptr;
        if (plan_.strikes(Cloning))
            return plan_.status;
        *clone = new (std::nothrow) SickStream(plan_, *this);
        return S_OK;
    }

private:
    Plan& plan_;
};

TEST_F(ForeignSaves, TellWhatAStreamFailedWith) {
    const auto bytes = Support::streamOf(Support::readFile(Support::samplePath(L"plain-lzma2.7z")));
    std::ptrdiff_t updates = 0, headers = 0;
    for (const auto call :
         {SickStream::Reading, SickStream::Writing, SickStream::Seeking, SickStream::Cloning})
        for (const HRESULT status :
             {STG_E_WRITEFAULT, STG_E_ACCESSDENIED, HRESULT(0x8003000D), E_ABORT, E_INVALIDARG, E_OUTOFMEMORY,
              E_NOTIMPL, E_FAIL, HRESULT(0x80030000), S_FALSE, HRESULT(5), HRESULT(13), HRESULT(0x20000002)})
            for (unsigned n = 0;; ++n) {
                if (status == S_FALSE && call == SickStream::Reading)
                    break; // some streams' word for their end
                SickStream::Plan plan;
                const auto source = Vexel::Detail::adopt(new SickStream(plan, *bytes.Get()));
                SZipArchive archive(source.Get());
                EXPECT_EQ(archive.reload(), S_OK);
                const auto empty = Support::streamOf({});
                const auto target = Vexel::Detail::adopt(new SickStream(plan, *empty.Get()));
                plan = {call, n, status, false};
                log_.clear();
                const HRESULT saved = archive.save(target.Get());
                if (plan.hit && status == STG_E_WRITEFAULT && call == SickStream::Writing) {
                    updates += log_.count(7, L"Failed to create or update archive \"");
                    headers += log_.count(7, L"Failed to write archive header to \"");
                    EXPECT_EQ(updates + headers, n + 1);
                    EXPECT_EQ(log_.count(7, L":\": 0x8003001d"), 1);
                }
                EXPECT_EQ(saved == S_OK, !plan.hit) << call << ' ' << n << std::hex << ' ' << status;
                EXPECT_TRUE(!plan.hit || saved == status || (status > 0 && FAILED(saved)))
                    << call << ' ' << n << std::hex << ' ' << status << ' ' << saved;
                if (!plan.hit || HasFailure())
                    break;
            }
    EXPECT_GE(updates, 1);
    EXPECT_GE(headers, 1);
}

} // namespace
