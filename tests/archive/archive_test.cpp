#include "archive/name_pool.h"
#include "archive_fixture.h"
#include "base/text.h"

#include <vexel/memory_streams.h>

#include <filesystem>

using namespace std::string_view_literals;
using Microsoft::WRL::ComPtr;
using namespace Support;
using Vexel::Storage::SZipArchive;

namespace {

TEST(PathElements, AreEncodedAndDecoded) {
    const std::pair<CString, CString> namesAndElements[] = {
        {L"a/b%c", L"a%2fb%25c"},
        {L"\x05Summary\x1fx", L"%05Summary%1fx"},
        {L"a\\b:\x44f\xd83d\xde00 ", L"a\\b:\x44f\xd83d\xde00 "},
    };
    for (const auto& [name, element] : namesAndElements) {
        EXPECT_EQ(SZipArchive::decodePathElement(element), name);
        EXPECT_EQ(SZipArchive::encodePathElement(name), element);
    }
    const std::pair<CString, CString> onlyDecodedSo[] = {
        {L"%", L"%"},    {L"//A", L"%2F%2f%41"}, {L"\x04", L"%4"}, {L"\x04g", L"%4g"},
        {L"%%", L"%zA"}, {L"%\x0b", L"%zAB"},    {L"a%", L"a%"},
    };
    for (const auto& [name, element] : onlyDecodedSo)
        EXPECT_EQ(SZipArchive::decodePathElement(element), name);
}

using Archive = ArchiveTest;

TEST(NamePool, NamesAndCopiesOutliveIt) {
    std::vector<CString> names, copies;
    const auto textOf = [](unsigned i) {
        return std::wstring(i % 50 + (i % 100 == 7 ? 3000 : 0), static_cast<wchar_t>(L'a' + i % 26));
    };
    {
        Vexel::Storage::NamePool pool;
        for (unsigned i = 0; i < 3000; ++i)
            names.push_back(pool.make(textOf(i)));
    }
    for (unsigned i = 0; i < names.size(); ++i)
        if (i % 700 < 20)
            copies.push_back(names[i]);
    names.clear();
    const std::vector<std::byte> elsewhere(0x100000, std::byte{0xEE}); // what was freed is used again
    for (unsigned i = 0, next = 0; i < 3000; ++i) {
        if (i % 700 >= 20)
            continue;
        CString& copy = copies[next++];
        EXPECT_TRUE(Vexel::Detail::viewOf(copy) == textOf(i));
        EXPECT_TRUE(Vexel::Detail::viewOf(copy += L"/end") == textOf(i) + L"/end");
    }
}

TEST_F(Archive, KeepsTheTimesOfItems) {
    const FILETIME set{0x12345678, 0x01D00000};
    {
        SZipArchive archive = made({{L"A", "upper"}, {L"a", "lower"}});
        archive.item(L"A"sv)->setCreationTime(set);
        archive.item(L"A"sv)->touch();
        EXPECT_EQ(archive.save(true), S_OK);
        EXPECT_FALSE(archive.isChanged());
        archive.item(L"a"sv)->setModificationTime(set); // and nothing else
        EXPECT_EQ(archive.save(false), S_OK);
    }
    const SZipArchive archive = open();
    const auto *const upper = archive.item(L"A"sv), *const lower = archive.item(L"a"sv);
    const FILETIME creation = upper->creationFileTime(), modification = lower->modificationFileTime();
    EXPECT_EQ(CompareFileTime(&set, &creation), 0);
    EXPECT_EQ(CompareFileTime(&set, &modification), 0);
    EXPECT_NE(upper->modificationFileTime().dwHighDateTime, 0U);
    EXPECT_EQ(lower->creationFileTime().dwHighDateTime, 0U);
}

TEST_F(Archive, TellsWhatItemsTakeInTheFile) {
    writeFile(archivePath, readFile(samplePath(L"solid.7z")));
    SZipArchive archive = open();
    for (const auto& [path, size] : {std::pair(L"d/e/deep"sv, 2307U * 5000 / 11811),
                                     {L"d/x"sv, 2307U * 800 / 11811},
                                     {L"d/e"sv, 0U}}) // of one folder
        EXPECT_NEAR(static_cast<double>(archive.item(path)->packedSize()), size, 1) << size;
    fill(archive, {{L"new", "not in the file"}});
    EXPECT_EQ(archive.item(L"new"sv)->packedSize(), 0U);
}

TEST_F(Archive, WarnsOfLostChangesOnly) {
    for (const auto& [path, silent] :
         {std::pair(archivePath, false), std::pair(archivePath, true), std::pair(std::wstring(), false)}) {
        SZipArchive archive(path, false, silent);
        writeItem(archive, L"a", "x");
    }
    EXPECT_EQ(log_.count(VxLog_Warning, L"Destroying unsaved archive \"" + archivePath + L"\""), 1);
    EXPECT_FALSE(std::filesystem::exists(archivePath));
}

TEST_F(Archive, OpeningReportsWhatIsThere) {
    SZipArchive missing(archivePath, true, false);
    EXPECT_EQ(missing.reload(), STG_E_FILENOTFOUND);
    EXPECT_EQ(log_.count(VxLog_Minor, L"Failed to open file \"" + archivePath + L"\": 0x00000002"), 1);
    EXPECT_FALSE(missing.fileTimes(nullptr, nullptr, nullptr));
    writeFile(archivePath, "7z");
    EXPECT_EQ(missing.reload(), STG_E_INVALIDHEADER);
    EXPECT_EQ(log_.count(VxLog_Trace, L"Failed to open \"" + archivePath + L"\" as an archive: 0x00000001"),
              1);
}

TEST_F(Archive, ReadOnlyRefusesEveryChange) {
    make({{L"d", kDirectory}, {L"a", "x"}});
    SZipArchive archive = open(archivePath, true);
    const SZipArchive other = inMemory();
    ComPtr<IStream> stream, made;
    EXPECT_EQ(archive.extractFile(&stream, L"a"sv), S_OK);
    expectEach(STG_E_ACCESSDENIED,
               {stream->Write("y", 1, nullptr), stream->SetSize({}),
                archive.createFile(&made, L"b", false, false), archive.createDirectory(L"b", false, false),
                archive.remove(L"a"sv), archive.move(L"a"sv, L"b"sv), archive.clear(L"d"sv),
                archive.addItem(other, L"a"sv, L"b"), archive.addItems(other, L""), archive.save(false)});
    EXPECT_FALSE(archive.isChanged());
}

TEST_F(Archive, ChangesReportWhatStandsInTheWay) {
    SZipArchive archive =
        made({{L"d", kDirectory}, {L"d/x", "1"}, {L"d/e", kDirectory}, {L"d/e/y", "2"}, {L"d-e", "3"}});
    ComPtr<IStream> stream;
    expectEach(STG_E_INVALIDPOINTER,
               {archive.createFile(nullptr, L"b", false, false), archive.extractFile(nullptr, L"d/x"sv)});
    expectEach(STG_E_FILEALREADYEXISTS,
               {archive.createFile(&stream, L"d", false, true),
                archive.createFile(&stream, L"d/x", true, true), archive.createDirectory(L"d", true, true),
                archive.move(L"d"sv, L"d-e"sv)});
    expectEach(STG_E_FILENOTFOUND,
               {archive.remove(L"nix"sv), archive.move(L"nix"sv, L"b"sv), archive.clear(L"nix"sv),
                archive.flush(L"nix"sv), archive.extractFile(&stream, L"d"sv)});
    expectEach(STG_E_INVALIDFUNCTION,
               {archive.createDirectory(L"d/x", false, true), archive.clear(L"d/x"sv)});
    expectEach(STG_E_INVALIDNAME, {archive.flush(L"/d"sv), archive.extractFile(&stream, L"/d"sv)});
    EXPECT_EQ(archive.move(L"d"sv, L"d/e/d"sv), STG_E_ACCESSDENIED);
    EXPECT_EQ(archive.createDirectory(L"d", false, false), S_OK);
    EXPECT_FALSE(archive.isChanged());

    EXPECT_EQ(archive.move(L"d"sv, L"f"sv), S_OK);
    EXPECT_EQ(archive.createDirectory(L"f/e", false, true), S_OK);
    EXPECT_EQ(saved(archive),
              (Contents{{L"f", kDirectory}, {L"f/x", "1"}, {L"f/e", kDirectory}, {L"d-e", "3"}}));
    EXPECT_EQ(archive.clear(L""sv), S_OK);
    EXPECT_TRUE(archive.isEmpty());
    EXPECT_TRUE(archive.isChanged());
}

TEST_F(Archive, StreamsOfAnItemShareItsContents) {
    SZipArchive archive = made({{L"a", "0123"}});
    ComPtr<IStream> first, second, third;
    ASSERT_EQ(archive.extractFile(&first, L"a"sv), S_OK);
    ASSERT_EQ(archive.createFile(&second, L"a", false, false), S_OK);
    EXPECT_FALSE(archive.isChanged());
    EXPECT_EQ(first->Write("ab", 2, nullptr), S_OK);
    EXPECT_EQ(bytesOf(second.Get()), "ab23");
    char beginning = 0;
    ASSERT_EQ(archive.extractFile(&third, L"a"sv), S_OK);
    EXPECT_EQ(third->Read(&beginning, 1, nullptr), S_OK);
    EXPECT_EQ(beginning, 'a') << "each begins at the beginning";
    EXPECT_TRUE(archive.isChanged());
    EXPECT_EQ(archive.createFile(&third, L"a", false, true), S_OK);
    EXPECT_EQ(stateOf(archive, L"a"), "");
    EXPECT_EQ(archive.move(L"a"sv, L"b"sv), S_OK);
    STATSTG entry{};
    ASSERT_EQ(third->Stat(&entry, STATFLAG_DEFAULT), S_OK);
    EXPECT_STREQ(entry.pwcsName, L"b");
    CoTaskMemFree(entry.pwcsName);
    EXPECT_EQ(saved(archive), (Contents{{L"b", ""}})) << "replaced, although nothing was written";
}

TEST_F(Archive, FlushGivesBackOnlyWhatTheFileHasAndNobodyHolds) {
    SZipArchive archive = made({{L"d", kDirectory}, {L"d/a", "0123"}, {L"b", "4567"}});
    fill(archive, {{L"b", "changed"}});
    for (const bool hold : {true, false}) {
        ComPtr<IStream> stream, again;
        ASSERT_EQ(archive.extractFile(&stream, L"d/a"sv), S_OK);
        if (!hold)
            stream.Reset();
        EXPECT_EQ(archive.flush(L"d"sv), S_OK);
        ASSERT_EQ(archive.extractFile(&again, L"d/a"sv), S_OK);
        EXPECT_EQ(static_cast<Vexel::Storage::InMemoryIStream*>(again.Get())->numInstances(), hold ? 2 : 1);
    }
    EXPECT_EQ(archive.flush(L""sv), S_OK);
    EXPECT_EQ(stateOf(archive, L"b"), "changed");
}

TEST_F(Archive, CopiesPackedDataOfASharedFile) {
    SZipArchive source = made({{L"d", kDirectory}, {L"d/a", "0123"}, {L"d/b", "4567"}, {L"c", "89"}});
    fill(source, {{L"d/b", "changed"}});
    for (const bool borrow : {true, false}) {
        SZipArchive target(folder_.file(L"b.7z"), false, true);
        EXPECT_EQ(borrow ? target.borrowPackedData(source) : S_OK, S_OK);
        EXPECT_EQ(target.addItem(source, L"d"sv, L"copy"), S_OK);
        EXPECT_EQ(target.addItem(source, L"c"sv, L"copy/a"), STG_E_FILEALREADYEXISTS);
        EXPECT_EQ(target.addItem(source, L"d"sv, L"copy"), STG_E_FILEALREADYEXISTS) << "for what is below";
        EXPECT_EQ(target.addItem(source, L"nix"sv, L"n"), STG_E_FILENOTFOUND);
        EXPECT_EQ(target.addItem(target, L"copy"sv, L"n"), STG_E_INVALIDFUNCTION);
        EXPECT_EQ(target.addItems(source, L""), S_OK);
        EXPECT_EQ(target.borrowPackedData(source), borrow ? STG_E_INVALIDFUNCTION : S_OK);
        EXPECT_EQ(target.flush(L""sv), S_OK); // gives back nothing that no file has
        Contents expected = statesOf(source);
        expected.insert({{L"copy", kDirectory}, {L"copy/a", "0123"}, {L"copy/b", "changed"}});
        EXPECT_EQ(saved(target, folder_.file(L"b.7z")), expected);
        EXPECT_EQ(target.borrowPackedData(source), STG_E_INVALIDFUNCTION);
    }
}

TEST_F(Archive, ReadsFromAndSavesToStreams) {
    SZipArchive file = made({{L"d", kDirectory}, {L"d/a", "0123"}});
    fill(file, {{L"b", "new"}});
    const auto stream = streamOf("");
    EXPECT_EQ(file.save(stream.Get()), S_OK);
    EXPECT_TRUE(file.isChanged());

    SZipArchive archive(stream.Get());
    EXPECT_EQ(archive.reload(), S_OK);
    EXPECT_EQ(statesOf(archive), statesOf(file));
    EXPECT_FALSE(archive.fileTimes(nullptr, nullptr, nullptr));
    EXPECT_EQ(archive.remove(L"b"sv), STG_E_ACCESSDENIED);

    // Once its stream is something else, nothing of it can be had.
    EXPECT_EQ(stream->SetSize({}), S_OK);
    EXPECT_EQ(archive.reload(), STG_E_INVALIDHEADER);
    EXPECT_EQ(archive.flush(L""sv), S_OK);
    EXPECT_EQ(stateOf(archive, L"d/a"), failed(STG_E_FILENOTFOUND));
    EXPECT_EQ(archive.save(stream.Get()), STG_E_FILENOTFOUND);
}

// However an item is made, its path is one that leads to it.
TEST_F(Archive, PathsAreThoseThatStoragesLeadTo) {
    const Contents contents{{L"d", kDirectory}, {L"f", "f"}};
    SZipArchive source = inMemory(contents), archive = inMemory(contents);
    ComPtr<IStream> stream;
    const auto refuses = [&](const wchar_t* path, HRESULT status, HRESULT moved) {
        SCOPED_TRACE(testing::PrintToString(std::wstring(path)));
        EXPECT_EQ(archive.createFile(&stream, path, true, false), STG_E_INVALIDNAME);
        EXPECT_EQ(archive.createDirectory(path, true, false), status);
        EXPECT_EQ(archive.addItem(source, L"f"sv, path), status);
        EXPECT_EQ(archive.addItem(source, L"d"sv, path), status);
        EXPECT_EQ(archive.move(L"f"sv, path), moved);
        EXPECT_EQ(archive.items().size(), 2U);
    };
    for (const wchar_t* path : {L"x/", L"/x", L"/", L"d//x", L"d/x/", L""})
        refuses(path, STG_E_INVALIDNAME, STG_E_INVALIDNAME);
    refuses(L"d/no/x", STG_E_FILENOTFOUND, STG_E_FILENOTFOUND);
    refuses(L"f/x", STG_E_FILENOTFOUND, STG_E_ACCESSDENIED);
    fill(source, {{L"d/y", "y"}});
    EXPECT_EQ(archive.remove(L"d"sv), S_OK);
    EXPECT_EQ(archive.addItems(source, L"d/y"), STG_E_FILENOTFOUND);
    EXPECT_EQ(archive.addItems(source, L"d"), S_OK);
}

} // namespace
