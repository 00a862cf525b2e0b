// How an archive in memory and its file stand to each other: what may be replaced, and what can still be had
// when the file could not be read, has gone, or is another one.

#include "archive/database.h"
#include "archive_fixture.h"

#include <optional>

using namespace std::string_view_literals;
using namespace Support;

namespace {

class State : public ArchiveTest {
protected:
    /// How often the log has said that the archive's file is not replaced.
    std::ptrdiff_t refusals() const {
        return log_.count(VxLog_Error, L"Not replacing \"" + archivePath + L"\"");
    }
};

// A file that could not be read must not be replaced as long as that is so; then what it has is kept.
TEST_F(State, NeverReplacesAFileThatItCouldNotRead) {
    const auto* open = L"Failed to open file \"";
    const auto* read = L"Failed to open \"";
    const auto* size = L"Failed to get the size of the file \"";
    const struct {
        const char* name;
        ArchiveFaults::Call call;
        DWORD error;
        HRESULT reloaded;
        int level;
        const wchar_t* message;
    } cases[] = {{"in use", ArchiveFaults::Create, ERROR_SHARING_VIOLATION, S_OK, VxLog_Error, open},
                 {"no right", ArchiveFaults::Create, ERROR_ACCESS_DENIED, S_OK, VxLog_Error, open},
                 {"not ready", ArchiveFaults::Create, ERROR_NOT_READY, S_OK, VxLog_Minor, open},
                 {"no share", ArchiveFaults::Create, ERROR_BAD_NET_NAME, S_OK, VxLog_Minor, open},
                 {"no error", ArchiveFaults::Create, ERROR_SUCCESS, S_OK, VxLog_Error, open},
                 {"bad sector", ArchiveFaults::Read, ERROR_CRC, HRESULT(0x80030017), VxLog_Error, read},
                 {"no size", ArchiveFaults::Size, ERROR_CRC, STG_E_INVALIDHEADER, VxLog_Error, size}};
    for (const auto& fault : cases) {
        SCOPED_TRACE(fault.name);
        make({{L"old", "precious"}});
        const std::string before = readFile(archivePath);
        SZipArchive archive(archivePath, false, true);
        ArchiveFaults::arm(fault.call, fault.error, 0, true);
        log_.clear();
        EXPECT_EQ(archive.reload(), fault.reloaded);
        EXPECT_EQ(log_.messages().front().first, fault.level);
        EXPECT_EQ(log_.count(fault.message), 1);
        EXPECT_TRUE(archive.isEmpty());
        fill(archive, {{L"new", "x"}});
        // The save itself would find nothing in its way.
        EXPECT_TRUE(FAILED(saveFailing(archive, fault.call, fault.error)));
        EXPECT_EQ(refusals(), 1);
        EXPECT_EQ(readFile(archivePath), before);
        EXPECT_EQ(saved(archive), (Contents{{L"old", "precious"}, {L"new", "x"}}));
    }
}

// Two programs begin the same document.
TEST_F(State, TakesInAFileThatAppearsLater) {
    SZipArchive archive = open();
    EXPECT_EQ(archive.openingStatus(), STG_E_FILENOTFOUND);
    fill(archive, {{L"new", kDirectory}});
    make({{L"old", "precious"}});
    EXPECT_EQ(saveFailing(archive, ArchiveFaults::Move, ERROR_ACCESS_DENIED), STG_E_ACCESSDENIED);
    EXPECT_EQ(saved(archive), (Contents{{L"old", "precious"}, {L"new", kDirectory}}));
    // Made anew is made anew: who never reads a file wants it replaced.
    archive = SZipArchive(L"", true, true); // which lets go of the file
    make({{L"other", "y"}});
    EXPECT_EQ(onDisk(), (Contents{{L"other", "y"}}));
}

// The file goes while it is replaced or opened again: nothing is left of it, but all is in memory.
TEST_F(State, WhatIsInMemoryOutlivesTheFile) {
    const struct {
        const char* name;
        ArchiveFaults::Call call;
        unsigned skipped;
    } losses[] = {{"replacing", ArchiveFaults::Move, 0}, {"opening again", ArchiveFaults::Create, 3}};
    for (const auto& loss : losses) {
        SCOPED_TRACE(loss.name);
        SZipArchive archive = made({{L"cached", "1"}, {L"packed", "2"}});
        EXPECT_EQ(stateOf(archive, L"cached"), "1");
        fill(archive, {{L"new", "3"}});
        ArchiveFaults::alongside = [] { DeleteFileW(archivePath.c_str()); };
        EXPECT_EQ(saveFailing(archive, loss.call, ERROR_PATH_NOT_FOUND, loss.skipped), STG_E_PATHNOTFOUND);
        EXPECT_EQ(statesOf(archive),
                  (Contents{{L"cached", "1"}, {L"new", "3"}, {L"packed", failed(STG_E_FILENOTFOUND)}}))
            << "what was never read has gone with the file";
        fill(archive, {{L"more", "4"}, {L"d", kDirectory}});
        EXPECT_EQ(archive.move(L"cached"sv, L"moved"sv), S_OK);
        EXPECT_EQ(inMemory().addItem(archive, L"moved"sv, L"copy"), S_OK);

        const auto target = streamOf("");
        EXPECT_EQ(archive.save(target.Get()), STG_E_FILENOTFOUND);
        EXPECT_EQ(archive.save(false), STG_E_FILENOTFOUND);
        EXPECT_EQ(archive.remove(L"packed"sv), S_OK);
        EXPECT_EQ(archive.save(target.Get()), S_OK);
        const Contents expected{{L"d", kDirectory}, {L"moved", "1"}, {L"more", "4"}, {L"new", "3"}};
        EXPECT_EQ(saved(archive), expected);
        SZipArchive streamed(target.Get());
        EXPECT_EQ(streamed.reload(), S_OK);
        EXPECT_EQ(statesOf(streamed), expected);
    }
}

// The file goes, and another program puts one of its own there.
TEST_F(State, NeverReplacesAFileThatIsNotTheOneItRead) {
    SZipArchive archive = made({{L"a", "1"}});
    fill(archive, {{L"a", "mine"}});
    ArchiveFaults::alongside = [] { writeFile(archivePath, "theirs, which is no archive at all"); };
    EXPECT_EQ(saveFailing(archive, ArchiveFaults::Move, ERROR_SHARING_VIOLATION), STG_E_SHAREVIOLATION);
    EXPECT_EQ(archive.save(false), STG_E_INVALIDHEADER);
    EXPECT_EQ(readFile(archivePath).substr(0, 6), "theirs");
    EXPECT_EQ(statesOf(archive), (Contents{{L"a", "mine"}}));
}

// Not everywhere does an open file keep others from putting another one in its place.
TEST_F(State, NeverReplacesAFileThatCameInPlaceOfTheOpenOne) {
    make({{L"a", "1"}});
    Vexel::Detail::platform().createFile = [](auto name, auto access, auto share, auto... others) {
        return CreateFileW(name, access, share | FILE_SHARE_DELETE, others...);
    };
    SZipArchive archive = open();
    fill(archive, {{L"b", "2"}});
    EXPECT_TRUE(MoveFileW(archivePath.c_str(), folder_.file(L"old.7z").c_str()));
    make({{L"a", "9"}});
    EXPECT_EQ(archive.save(false), STG_E_INVALIDHEADER);
    EXPECT_EQ(refusals(), 1);
    EXPECT_EQ(onDisk(), (Contents{{L"a", "9"}}));
    // With nothing in its place all can still be had.
    EXPECT_TRUE(DeleteFileW(archivePath.c_str()));
    EXPECT_EQ(saved(archive), (Contents{{L"a", "1"}, {L"b", "2"}}));
}

TEST_F(State, ReplacesNoOtherFileThanItsOwn) {
    SZipArchive archive = made({{L"a", "1"}});
    fill(archive, {{L"b", "2"}});
    const std::wstring elsewhere = folder_.file(L"b.7z");
    writeFile(elsewhere, "somebody else's");
    archive.setFileName(elsewhere.c_str());
    EXPECT_EQ(archive.save(false), STG_E_FILEALREADYEXISTS);
    EXPECT_EQ(log_.count(VxLog_Error, L"Not replacing \"" + elsewhere + L"\", which is not the file"), 1);
    EXPECT_EQ(readFile(elsewhere), "somebody else's");
    EXPECT_TRUE(DeleteFileW(elsewhere.c_str()));
    EXPECT_EQ(saved(archive, elsewhere), (Contents{{L"a", "1"}, {L"b", "2"}}));
    EXPECT_EQ(onDisk(), (Contents{{L"a", "1"}}));
}

enum class Target { MadeAnew, Missing, ReadAndCleared };
enum class Source { Open, Gone, NeverSaved };

// The packed data come from a file that is not the one that is written, and does not become the target's own.
TEST_F(State, BorrowedDataOutliveAFailedSave) {
    const Contents contents{{L"a", "1"}, {L"b", "2"}};
    const std::wstring sourcePath = folder_.file(L"source.7z");
    make(contents, sourcePath);
    for (const Target kind : {Target::MadeAnew, Target::Missing, Target::ReadAndCleared})
        for (const Source from : {Source::Open, Source::Gone, Source::NeverSaved}) {
            SCOPED_TRACE(testing::Message() << static_cast<int>(kind) << static_cast<int>(from));
            std::optional<SZipArchive> source(from == Source::NeverSaved ? inMemory(contents)
                                                                         : open(sourcePath));
            DeleteFileW(archivePath.c_str());
            if (kind == Target::ReadAndCleared)
                make({{L"old", "0"}});
            SZipArchive target = kind == Target::MadeAnew ? SZipArchive(archivePath, false, true) : open();
            if (kind == Target::ReadAndCleared) {
                EXPECT_EQ(target.clear(L""sv), S_OK);
            }
            EXPECT_EQ(target.borrowPackedData(*source), S_OK);
            EXPECT_EQ(target.addItems(*source, L""), S_OK);
            if (from == Source::Gone)
                source.reset();
            EXPECT_EQ(saveFailing(target, ArchiveFaults::Move, ERROR_ACCESS_DENIED), STG_E_ACCESSDENIED);
            EXPECT_EQ(statesOf(target), contents);
            EXPECT_EQ(saved(target), contents);
        }
}

// What one has as a file, the other has as a directory: neither can be kept without losing the other.
TEST_F(State, RefusesAFileThatAppearsLaterWithOtherKindsOfItems) {
    const Contents asDirectory{{L"x", kDirectory}, {L"x/y", "below"}}, asFile{{L"x", "file"}};
    for (const bool isDirectory : {false, true}) {
        SCOPED_TRACE(isDirectory);
        DeleteFileW(archivePath.c_str());
        const Contents& mine = isDirectory ? asDirectory : asFile;
        SZipArchive archive = open();
        fill(archive, mine);
        make(isDirectory ? asFile : asDirectory);
        const std::string theirs = readFile(archivePath);
        log_.clear();
        EXPECT_EQ(archive.save(false), STG_E_FILEALREADYEXISTS);
        EXPECT_EQ(refusals(), 1);
        EXPECT_EQ(statesOf(archive), mine);
        EXPECT_TRUE(archive.isChanged());
        EXPECT_EQ(readFile(archivePath), theirs);
        EXPECT_TRUE(DeleteFileW(archivePath.c_str()));
        EXPECT_EQ(saved(archive), mine);
    }
}

TEST_F(State, AReloadKeepsChangedContentsForTheNextSave) {
    SZipArchive archive = made({{L"a", "1"}, {L"b", "2"}});
    EXPECT_EQ(archive.remove(L"b"sv), S_OK);
    EXPECT_EQ(archive.reload(), S_OK);
    EXPECT_FALSE(archive.isChanged());
    fill(archive, {{L"a", "changed"}, {L"c", "new"}});
    EXPECT_EQ(archive.reload(), S_OK);
    EXPECT_TRUE(archive.isChanged());
    EXPECT_EQ(saved(archive), (Contents{{L"a", "changed"}, {L"b", "2"}, {L"c", "new"}}));
}

TEST_F(State, AFailedReloadLosesNothing) {
    SZipArchive archive = made({{L"a", "0123"}, {L"b", "4567"}});
    fill(archive, {{L"c", "new"}});
    EXPECT_EQ(archive.remove(L"b"sv), S_OK);
    archive.setFileName(L"");
    EXPECT_EQ(archive.reload(), S_OK); // cannot be opened: taken for a new archive
    archive.setFileName(archivePath.c_str());
    EXPECT_EQ(statesOf(archive), (Contents{{L"a", failed(STG_E_FILENOTFOUND)}, {L"c", "new"}}));
    EXPECT_EQ(archive.save(true), S_OK);
    EXPECT_EQ(statesOf(archive), (Contents{{L"a", "0123"}, {L"c", "new"}}));
}

} // namespace
