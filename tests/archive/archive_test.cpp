#include "archive/database.h"
#include "io/com_pointer.h"
#include "paths/file_handle.h"
#include "support/archive_file.h"
#include "support/compound_file.h"
#include "support/log_capture.h"

#include <vexel/archive.h>
#include <vexel/memory_streams.h>

#include <windows.h>

#include <shlwapi.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

using namespace std::string_view_literals;
using Microsoft::WRL::ComPtr;
using Support::readItem;
using Support::writeItem;
using Vexel::Storage::SZipArchive;

namespace {

using Contents = std::map<std::wstring, std::string>;

struct Paths {
    const wchar_t* name;
    const wchar_t* element;
};

TEST(PathElements, AreEncodedAndDecoded) {
    for (const auto& [name, element] : std::initializer_list<Paths>{{L"a/b%c", L"a%2fb%25c"},
                                                                    {L"\x05Summary\tx", L"%05Summary%09x"},
                                                                    {L"a\\b:\x44f\xd83d\xde00", nullptr},
                                                                    {L"", nullptr}}) {
        EXPECT_EQ(SZipArchive::encodePathElement(CString(name)), CString(element ? element : name));
        EXPECT_EQ(SZipArchive::decodePathElement(CString(element ? element : name)), CString(name));
    }
    for (const auto& [name, element] : std::initializer_list<Paths>{{L"%", L"%"},
                                                                    {L"//", L"%2F%2f"},
                                                                    {L"A", L"%41"},
                                                                    {L"\x04", L"%4"},
                                                                    {L"\x04g", L"%4g"},
                                                                    {L"%%", L"%zA"},
                                                                    {L"%\x0b", L"%zAB"},
                                                                    {L"%", L"%z"},
                                                                    {L"a%", L"a%"}})
        EXPECT_EQ(SZipArchive::decodePathElement(CString(element)), CString(name)) << element;
}

class Archive : public testing::Test {
protected:
    SZipArchive open(bool readOnly = false) {
        SZipArchive archive(path_, readOnly, true);
        EXPECT_EQ(archive.reload(), S_OK);
        return archive;
    }
    void make(std::initializer_list<std::pair<const wchar_t*, const char*>> items) {
        SZipArchive archive(path_, false, true);
        for (const auto& [path, bytes] : items)
            EXPECT_EQ(bytes ? writeItem(archive, path, bytes) : archive.createDirectory(path, true, false),
                      S_OK);
        EXPECT_EQ(archive.save(false), S_OK);
    }

    Support::TempFolder folder_;
    std::wstring path_ = folder_.file(L"a.7z");
    LogCapture log_;
};

TEST_F(Archive, KeepsWhatIsSaved) {
    std::string large(3'000'000, 'x');
    for (std::size_t i = 0; i < large.size(); i += 7)
        large[i] = static_cast<char>(i * i >> 8);
    Contents expected{{L"d", Support::directoryMark},
                      {L"d/large", large},
                      {L"d/empty", ""},
                      {L"A", "upper"},
                      {L"a", "lower"},
                      {L"d-x", "between"},
                      {L"\x427\xd83d\xde00", "emoji"},
                      {L"d/e", Support::directoryMark},
                      {L".clsid", std::string(16, '\0')}};
    FILETIME created{0x12345678, 0x01D00000};
    {
        SZipArchive archive(path_, false, false);
        EXPECT_EQ(archive.reload(), S_OK);
        EXPECT_TRUE(archive.isEmpty());
        for (const auto& [path, bytes] : expected)
            EXPECT_EQ(bytes == Support::directoryMark ? archive.createDirectory(path.c_str(), true, false)
                                                      : writeItem(archive, path.c_str(), bytes),
                      S_OK);
        archive.item(L"A"sv)->setCreationTime(created);
        archive.item(L"A"sv)->touch();
        EXPECT_TRUE(archive.isChanged());
        EXPECT_EQ(Support::contentsOf(archive), expected);
        EXPECT_EQ(archive.save(true), S_OK);
        EXPECT_FALSE(archive.isChanged());
        EXPECT_EQ(Support::contentsOf(archive), expected);
    }
    SZipArchive archive = open(true);
    EXPECT_EQ(Support::contentsOf(archive), expected);
    EXPECT_EQ(archive.item(L"d/large"sv)->size(), large.size());
    const FILETIME creation = archive.item(L"A"sv)->creationFileTime();
    EXPECT_EQ(CompareFileTime(&created, &creation), 0);
    EXPECT_NE(archive.item(L"A"sv)->modificationFileTime().dwHighDateTime, 0U);
    EXPECT_EQ(archive.item(L""sv), nullptr);
    EXPECT_EQ(log_.count(VxLog_Warning, L""), 0);
    EXPECT_FALSE(std::filesystem::exists(path_ + L".7ztmp"));
}

TEST_F(Archive, TellsTheTimesOfItsFile) {
    make({{L"a", "x"}});
    const FILETIME created{1, 0x01D00000}, accessed{2, 0x01D10000}, written{3, 0x01D20000};
    {
        const Vexel::Detail::FileHandle file(
            CreateFileW(path_.c_str(), FILE_WRITE_ATTRIBUTES, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        ASSERT_TRUE(SetFileTime(file.get(), &created, &accessed, &written));
    }
    FILETIME system[3], times[3];
    const SZipArchive archive = open();
    {
        const Vexel::Detail::FileHandle file(CreateFileW(path_.c_str(), FILE_READ_ATTRIBUTES, FILE_SHARE_READ,
                                                         nullptr, OPEN_EXISTING, 0, nullptr));
        ASSERT_TRUE(GetFileTime(file.get(), &system[0], &system[1], &system[2]));
    }
    ASSERT_NE(CompareFileTime(&system[1], &system[2]), 0);
    // Unlike the system, the last write comes before the last access.
    EXPECT_TRUE(archive.fileTimes(&times[0], &times[1], &times[2]));
    EXPECT_EQ(CompareFileTime(&times[0], &system[0]), 0);
    EXPECT_EQ(CompareFileTime(&times[1], &system[2]), 0);
    EXPECT_EQ(CompareFileTime(&times[2], &system[1]), 0);
    EXPECT_TRUE(archive.fileTimes(nullptr, nullptr, nullptr));
}

TEST_F(Archive, WarnsOfLostChangesOnly) {
    for (const auto& [path, silent] :
         {std::pair(path_, false), std::pair(path_, true), std::pair(std::wstring(), false)}) {
        SZipArchive archive(path, false, silent);
        writeItem(archive, L"a", "x");
    }
    EXPECT_EQ(log_.count(VxLog_Warning, L"Destroying unsaved archive \"" + path_ + L"\""), 1);
    EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(Archive, OpeningReportsWhatIsThere) {
    SZipArchive missing(path_, true, false);
    EXPECT_EQ(missing.reload(), STG_E_FILENOTFOUND);
    EXPECT_EQ(log_.count(VxLog_Minor, L"Failed to open file \"" + path_ + L"\": 0x00000002"), 1);
    EXPECT_FALSE(missing.fileTimes(nullptr, nullptr, nullptr));

    Support::writeFile(path_, "This is text, and long enough to be looked at.");
    EXPECT_EQ(SZipArchive(path_, false, false).reload(), STG_E_INVALIDHEADER);
    EXPECT_EQ(log_.count(VxLog_Trace, L"Failed to open \"" + path_ + L"\" as an archive: 0x00000001"), 1);
    Support::writeFile(path_, "7z");
    EXPECT_EQ(SZipArchive(path_, false, false).reload(), STG_E_INVALIDHEADER);
}

TEST_F(Archive, ReadOnlyRefusesEveryChange) {
    make({{L"d", nullptr}, {L"a", "x"}});
    SZipArchive archive = open(true);
    SZipArchive other(L"", false, false);
    ComPtr<IStream> stream;
    EXPECT_EQ(archive.createFile(&stream, L"b", false, false), STG_E_ACCESSDENIED);
    EXPECT_EQ(archive.createDirectory(L"b", false, false), STG_E_ACCESSDENIED);
    EXPECT_EQ(archive.remove(L"a"sv), STG_E_ACCESSDENIED);
    EXPECT_EQ(archive.move(L"a"sv, L"b"sv), STG_E_ACCESSDENIED);
    EXPECT_EQ(archive.clear(L"d"sv), STG_E_ACCESSDENIED);
    EXPECT_EQ(archive.addItem(other, L"a"sv, L"b"), STG_E_ACCESSDENIED);
    EXPECT_EQ(archive.addItems(other, L""), STG_E_ACCESSDENIED);
    EXPECT_EQ(archive.save(false), STG_E_ACCESSDENIED);
    ASSERT_EQ(archive.extractFile(&stream, L"a"sv), S_OK);
    EXPECT_EQ(stream->Write("y", 1, nullptr), STG_E_ACCESSDENIED);
    EXPECT_EQ(stream->SetSize({}), STG_E_ACCESSDENIED);
    EXPECT_FALSE(archive.isChanged());
}

TEST_F(Archive, ChangesReportWhatStandsInTheWay) {
    make({{L"d", nullptr}, {L"d/x", "1"}, {L"d/e", nullptr}, {L"d/e/y", "2"}, {L"d-e", "3"}});
    SZipArchive archive = open();
    ComPtr<IStream> stream;
    EXPECT_EQ(archive.createFile(nullptr, L"b", false, false), STG_E_INVALIDPOINTER);
    for (const wchar_t* path : {L"", L"/b", L"b/", L"nix/b", L"d-e/b"})
        EXPECT_EQ(archive.createFile(&stream, path, false, false), STG_E_INVALIDNAME) << path;
    EXPECT_EQ(archive.createFile(&stream, L"d", false, true), STG_E_FILEALREADYEXISTS);
    EXPECT_EQ(archive.createFile(&stream, L"d/x", true, true), STG_E_FILEALREADYEXISTS);
    EXPECT_EQ(stream, nullptr);
    EXPECT_EQ(archive.createDirectory(L"nix/b", false, false), STG_E_FILENOTFOUND);
    EXPECT_EQ(archive.createDirectory(L"d/", false, false), STG_E_INVALIDNAME);
    EXPECT_EQ(archive.createDirectory(L"d/x", false, true), STG_E_INVALIDFUNCTION);
    EXPECT_EQ(archive.createDirectory(L"d", true, true), STG_E_FILEALREADYEXISTS);
    EXPECT_EQ(archive.createDirectory(L"d", false, false), S_OK);
    EXPECT_EQ(archive.remove(L"nix"sv), STG_E_FILENOTFOUND);
    EXPECT_EQ(archive.move(L"nix"sv, L"b"sv), STG_E_FILENOTFOUND);
    EXPECT_EQ(archive.move(L"d"sv, L"d-e"sv), STG_E_FILEALREADYEXISTS);
    EXPECT_EQ(archive.move(L"d"sv, L"d/e/d"sv), STG_E_ACCESSDENIED);
    EXPECT_EQ(archive.clear(L"nix"sv), STG_E_FILENOTFOUND);
    EXPECT_EQ(archive.clear(L"d/x"sv), STG_E_INVALIDFUNCTION);
    EXPECT_EQ(archive.flush(L"nix"sv), STG_E_FILENOTFOUND);
    EXPECT_EQ(archive.flush(L"/d"sv), STG_E_INVALIDNAME);
    EXPECT_EQ(archive.extractFile(nullptr, L"d/x"sv), STG_E_INVALIDPOINTER);
    EXPECT_EQ(archive.extractFile(&stream, L"/d"sv), STG_E_INVALIDNAME);
    EXPECT_EQ(archive.extractFile(&stream, L"d"sv), STG_E_FILENOTFOUND);
    EXPECT_FALSE(archive.isChanged());

    EXPECT_EQ(archive.move(L"d"sv, L"f"sv), S_OK);
    EXPECT_EQ(archive.createDirectory(L"f/e", false, true), S_OK);
    EXPECT_EQ(archive.save(false), S_OK);
    EXPECT_EQ(
        Support::contentsOf(archive),
        (Contents{
            {L"f", Support::directoryMark}, {L"f/x", "1"}, {L"f/e", Support::directoryMark}, {L"d-e", "3"}}));
    EXPECT_EQ(archive.clear(L""sv), S_OK);
    EXPECT_EQ(archive.save(false), S_OK);
    EXPECT_TRUE(open().isEmpty());
}

TEST_F(Archive, StreamsOfAnItemShareItsContents) {
    make({{L"a", "0123"}});
    SZipArchive archive = open();
    ComPtr<IStream> first, second, third;
    ASSERT_EQ(archive.extractFile(&first, L"a"sv), S_OK);
    ASSERT_EQ(archive.createFile(&second, L"a", false, false), S_OK);
    EXPECT_NE(first.Get(), second.Get());
    EXPECT_FALSE(archive.isChanged());
    EXPECT_EQ(first->Write("ab", 2, nullptr), S_OK);
    EXPECT_EQ(Support::bytesOf(second.Get()), "ab23");
    EXPECT_TRUE(archive.isChanged());
    EXPECT_EQ(archive.createFile(&third, L"a", false, true), S_OK);
    std::string now;
    EXPECT_EQ(readItem(archive, L"a", now), S_OK);
    EXPECT_EQ(now, "");
    EXPECT_EQ(archive.move(L"a"sv, L"b"sv), S_OK);
    STATSTG entry{};
    ASSERT_EQ(third->Stat(&entry, STATFLAG_DEFAULT), S_OK);
    EXPECT_STREQ(entry.pwcsName, L"b");
    CoTaskMemFree(entry.pwcsName);
}

TEST_F(Archive, FlushGivesBackOnlyWhatTheFileHasAndNobodyHolds) {
    make({{L"d", nullptr}, {L"d/a", "0123"}, {L"b", "4567"}});
    SZipArchive archive = open();
    for (const bool hold : {true, false}) {
        ComPtr<IStream> stream;
        ASSERT_EQ(archive.extractFile(&stream, L"d/a"sv), S_OK);
        if (!hold)
            stream.Reset();
        EXPECT_EQ(archive.flush(L"d"sv), S_OK);
        ComPtr<IStream> again;
        ASSERT_EQ(archive.extractFile(&again, L"d/a"sv), S_OK);
        EXPECT_EQ(static_cast<Vexel::Storage::InMemoryIStream*>(again.Get())->numInstances(), hold ? 2 : 1);
    }
    EXPECT_EQ(writeItem(archive, L"b", "changed"), S_OK);
    EXPECT_EQ(archive.flush(L""sv), S_OK);
    std::string now;
    EXPECT_EQ(readItem(archive, L"b", now), S_OK);
    EXPECT_EQ(now, "changed");
}

/// An item's bytes as they stand in the file.
std::string packedBytes(const std::wstring& file, std::wstring_view path) {
    std::shared_ptr<Vexel::Storage::Engine::DatabaseStream> archive;
    if (FAILED(Vexel::Storage::Engine::openFile(file.c_str(), archive)) ||
        FAILED(archive->read(file.c_str())))
        return {};
    unsigned index = 0;
    while (archive->path(index) != path)
        ++index;
    const unsigned folder = archive->folderOf(index).index;
    std::ifstream input{std::filesystem::path(file), std::ios::binary};
    input.seekg(static_cast<std::streamoff>(archive->database().GetFolderStreamPos(folder, 0)));
    std::string bytes(archive->database().GetFolderFullPackSize(folder), '\0');
    input.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return bytes;
}

TEST_F(Archive, PackedBytesOfUnchangedItemsStay) {
    // Another program's choice of method and dictionary tells its bytes from ours.
    std::filesystem::copy_file(Support::samplePath(L"plain-lzma-packed-header.7z"), path_);
    const std::string before = packedBytes(path_, L"d/e/deep");
    SZipArchive archive = open();
    EXPECT_EQ(writeItem(archive, L"aaa", "new"), S_OK);
    EXPECT_EQ(writeItem(archive, L"d/x", "changed"), S_OK);
    EXPECT_EQ(archive.move(L"d/e"sv, L"moved"sv), S_OK);
    EXPECT_EQ(archive.save(false), S_OK);
    EXPECT_FALSE(before.empty());
    EXPECT_EQ(packedBytes(path_, L"moved/deep"), before);
}

TEST_F(Archive, CopiesPackedDataOfASharedFile) {
    make({{L"d", nullptr}, {L"d/a", "0123"}, {L"d/b", "4567"}, {L"c", "89"}});
    SZipArchive source = open();
    EXPECT_EQ(writeItem(source, L"d/b", "changed"), S_OK);
    for (const bool borrow : {true, false}) {
        SZipArchive target(folder_.file(L"b.7z"), false, true);
        EXPECT_EQ(borrow ? target.borrowPackedData(source) : S_OK, S_OK);
        EXPECT_EQ(target.addItem(source, L"d"sv, L"copy"), S_OK);
        EXPECT_EQ(target.addItem(source, L"c"sv, L"copy/a"), STG_E_FILEALREADYEXISTS);
        EXPECT_EQ(target.addItem(source, L"nix"sv, L"n"), STG_E_FILENOTFOUND);
        EXPECT_EQ(target.addItem(target, L"copy"sv, L"n"), STG_E_INVALIDFUNCTION);
        EXPECT_EQ(target.addItems(source, L""), S_OK);
        EXPECT_EQ(target.borrowPackedData(source), borrow ? STG_E_INVALIDFUNCTION : S_OK);
        EXPECT_EQ(target.save(false), S_OK);
        EXPECT_EQ(Support::contentsOf(target), (Contents{{L"copy", Support::directoryMark},
                                                         {L"copy/a", "0123"},
                                                         {L"copy/b", "changed"},
                                                         {L"d", Support::directoryMark},
                                                         {L"d/a", "0123"},
                                                         {L"d/b", "changed"},
                                                         {L"c", "89"}}));
        EXPECT_EQ(target.borrowPackedData(source), STG_E_INVALIDFUNCTION);
    }
}

TEST_F(Archive, ReadsFromAndSavesToStreams) {
    make({{L"d", nullptr}, {L"d/a", "0123"}});
    SZipArchive file = open();
    EXPECT_EQ(writeItem(file, L"b", "new"), S_OK);
    ComPtr<IStream> stream;
    stream = Vexel::Detail::adopt<IStream>(new Vexel::Storage::InMemoryIStream());
    EXPECT_EQ(file.save(stream.Get()), S_OK);
    EXPECT_TRUE(file.isChanged());
    const Contents expected = Support::contentsOf(file);

    SZipArchive archive(stream.Get());
    EXPECT_EQ(archive.reload(), S_OK);
    EXPECT_EQ(Support::contentsOf(archive), expected);
    EXPECT_FALSE(archive.fileTimes(nullptr, nullptr, nullptr));
    EXPECT_EQ(archive.remove(L"b"sv), STG_E_ACCESSDENIED);

    // Once its stream is something else, nothing of it can be had.
    EXPECT_EQ(stream->SetSize({}), S_OK);
    EXPECT_EQ(archive.reload(), STG_E_INVALIDHEADER);
    EXPECT_EQ(archive.flush(L""sv), S_OK);
    std::string bytes;
    EXPECT_EQ(readItem(archive, L"d/a", bytes), STG_E_FILENOTFOUND);
    EXPECT_EQ(archive.save(stream.Get()), STG_E_FILENOTFOUND);
}

struct Foreign {
    const wchar_t* file;
    HRESULT opened;
    HRESULT read; // of "d/e/deep", or of "e" where that is all there is
};

TEST(ForeignArchives, OpenAndReadOrSayWhyNot) {
    const LogCapture quiet;
    const HRESULT unsupported = HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);
    for (const auto& [file, opened, read] :
         {Foreign{L"plain-lzma2.7z", S_OK, S_OK}, Foreign{L"plain-lzma-packed-header.7z", S_OK, S_OK},
          Foreign{L"copy.7z", S_OK, S_OK}, Foreign{L"empty.7z", S_OK, STG_E_FILENOTFOUND},
          Foreign{L"solid.7z", S_OK, STG_E_INVALIDFUNCTION}, Foreign{L"unsupported-ppmd.7z", S_OK, E_NOTIMPL},
          Foreign{L"unsupported-bcj.7z", S_OK, E_NOTIMPL}, Foreign{L"encrypted-data.7z", S_OK, E_NOTIMPL},
          Foreign{L"encrypted-header.7z", unsupported, STG_E_FILENOTFOUND}}) {
        SZipArchive archive(Support::samplePath(file), true, false);
        EXPECT_EQ(archive.reload(), opened) << std::hex << file;
        std::string bytes;
        const wchar_t* path = archive.item(L"d/e/deep"sv) ? L"d/e/deep" : L"e";
        EXPECT_EQ(readItem(archive, path, bytes), read) << std::hex << file;
        EXPECT_EQ(bytes.size(), read == S_OK ? 5000 : 0) << file;
        if (read == S_OK) {
            EXPECT_EQ(Support::contentsOf(archive).size(), archive.items().size());
        }
    }
}

// However an item is made, its path is one that leads to it.
TEST(ItemPaths, AreThoseThatStoragesLeadTo) {
    const LogCapture log;
    SZipArchive source(L"", false, true), archive(L"", false, true);
    ComPtr<IStream> stream;
    for (SZipArchive* each : {&source, &archive}) {
        ASSERT_EQ(each->createDirectory(L"d", true, false), S_OK);
        ASSERT_EQ(Support::writeItem(*each, L"f", "f"), S_OK);
    }
    struct Case {
        const wchar_t* path;
        HRESULT createFile, createDirectory, others;
    };
    constexpr HRESULT name = STG_E_INVALIDNAME, none = STG_E_FILENOTFOUND;
    for (const auto& [path, file, directory, others] :
         {Case{L"x/", name, name, name}, Case{L"/x", name, name, name}, Case{L"/", name, name, name},
          Case{L"d//x", name, name, name}, Case{L"d/x/", name, name, name}, Case{L"", name, name, name},
          Case{L"no/x", name, none, none}, Case{L"f/x", name, none, none}, Case{L"d/no/x", name, none, none},
          Case{L"d/x", S_OK, S_OK, S_OK}}) {
        SCOPED_TRACE(testing::PrintToString(std::wstring(path)));
        const auto undo = [&] {
            stream.Reset();
            archive.remove(std::wstring_view(L"d/x"));
        };
        EXPECT_EQ(archive.createFile(&stream, path, true, false), file);
        undo();
        EXPECT_EQ(archive.createDirectory(path, true, false), directory);
        undo();
        EXPECT_EQ(archive.addItem(source, L"f"sv, path), others);
        undo();
        EXPECT_EQ(archive.addItem(source, L"d"sv, path), others);
        undo();
        EXPECT_EQ(archive.move(L"f"sv, path),
                  path == std::wstring_view(L"f/x") ? STG_E_ACCESSDENIED : others);
        EXPECT_EQ(archive.items().size(), 2U);
    }
    ASSERT_EQ(Support::writeItem(source, L"d/y", "y"), S_OK);
    EXPECT_EQ(archive.remove(L"d"sv), S_OK);
    EXPECT_EQ(archive.addItems(source, L"d/y"), none);
    EXPECT_EQ(archive.addItems(source, L"d"), S_OK);
}

} // namespace
