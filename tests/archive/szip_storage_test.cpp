// Packages as IStorage, held against the system's own storage.

#include "archive/szip_storage.h"
#include "archive_fixture.h"
#include "support/com_storage.h"
#include "support/fake_storage.h"

#include <array>
#include <filesystem>
#include <regex>
#include <utility>
#include <vector>

using Microsoft::WRL::ComPtr;
using namespace Support;
using Vexel::Storage::SZipStorage;

namespace {

using PackageStorages = ArchiveTest;

constexpr DWORD kReading = STGM_READ | STGM_SHARE_EXCLUSIVE;
constexpr DWORD kWriting = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

ComPtr<SZipStorage> newPackage() {
    ComPtr<SZipStorage> root;
    EXPECT_EQ(Vexel::Storage::createMemoryPackage(root.GetAddressOf()), S_OK);
    return root;
}

ComPtr<SZipStorage> package(const std::wstring& file, DWORD mode) {
    ComPtr<SZipStorage> root;
    EXPECT_EQ(Vexel::Storage::openPackage(file.c_str(), mode, true, root.GetAddressOf()), S_OK);
    return root;
}

ComPtr<IStorage> compound(const std::wstring& file) {
    ComPtr<IStorage> root;
    EXPECT_EQ(StgCreateDocfile(file.c_str(), STGM_CREATE | kWriting, 0, &root), S_OK);
    return root;
}

ComPtr<IStorage> newStorage(IStorage* parent, const wchar_t* name) {
    ComPtr<IStorage> storage;
    EXPECT_EQ(parent->CreateStorage(name, kWriting, 0, 0, &storage), S_OK);
    return storage;
}
ComPtr<IStorage> openStorage(IStorage* parent, const wchar_t* name, DWORD mode) {
    ComPtr<IStorage> storage;
    EXPECT_EQ(parent->OpenStorage(name, nullptr, mode, nullptr, 0, &storage), S_OK);
    return storage;
}

HRESULT write(IStorage* storage, const wchar_t* name, std::string_view bytes, DWORD flags = STGM_CREATE) {
    ComPtr<IStream> stream;
    const HRESULT status = storage->CreateStream(name, flags | kWriting, 0, 0, &stream);
    return FAILED(status) ? status : stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr);
}

std::string read(IStorage* storage, const wchar_t* name) {
    ComPtr<IStream> stream;
    const HRESULT status = storage->OpenStream(name, nullptr, kReading, 0, &stream);
    return stream ? bytesOf(stream.Get()) : "status " + std::to_string(status);
}

/// The name of a storage or stream, and its mode behind a space.
template <class Node>
std::wstring nameAndMode(Node* node) {
    STATSTG info{};
    EXPECT_EQ(node->Stat(&info, STATFLAG_DEFAULT), S_OK);
    const std::wstring name = info.pwcsName ? info.pwcsName : L"none";
    CoTaskMemFree(info.pwcsName);
    return name + L' ' + std::to_wstring(info.grfMode);
}

TEST_F(PackageStorages, GivesTheStatusesItPromises) {
    const ComPtr<SZipStorage> root = newPackage();
    SZipStorage* const s = root.Get();
    ASSERT_EQ(write(s, L"a", "1"), S_OK);
    const ComPtr<IStorage> d = newStorage(s, L"d");
    ComPtr<IStorage> storage;
    ComPtr<IStream> stream;
    expectEach(STG_E_INVALIDPARAMETER,
               {s->CreateStream(L"n", kWriting, 0, 1, &stream), s->OpenStream(L"a", s, kWriting, 0, &stream),
                s->CreateStorage(L"n", kWriting, 1, 0, &storage),
                s->OpenStorage(L"d", s, kWriting, nullptr, 0, &storage)});
    expectEach(STG_E_INVALIDPOINTER,
               {s->OpenStorage(L"d", nullptr, kWriting, nullptr, 0, nullptr),
                s->EnumElements(0, nullptr, 0, nullptr), s->CopyTo(0, nullptr, nullptr, nullptr)});
    for (const wchar_t* const none : {L"", static_cast<const wchar_t*>(nullptr)})
        expectEach(STG_E_INVALIDNAME,
                   {s->OpenStream(none, nullptr, kWriting, 0, &stream), s->DestroyElement(none),
                    s->RenameElement(none, L"x"), s->RenameElement(L"a", none),
                    s->MoveElementTo(none, s, L"b", STGMOVE_MOVE),
                    s->MoveElementTo(L"a", s, none, STGMOVE_MOVE)});
    EXPECT_EQ(s->OpenStorage(L"a", nullptr, kWriting, nullptr, 0, &storage), STG_E_FILENOTFOUND);
    EXPECT_EQ(s->Revert(), E_NOTIMPL);
    EXPECT_EQ(s->SetElementTimes(L"nix", nullptr, nullptr, nullptr), S_OK);
    const struct {
        const wchar_t* name;
        IStorage* target;
        const wchar_t* newName;
        DWORD flags;
        HRESULT status;
    } moves[] = {
        {L"a", s, L"b", STGMOVE_SHALLOWCOPY, E_NOTIMPL},
        {L"a", s, L"b", 3, STG_E_INVALIDFLAG},
        {L"a", nullptr, L"b", STGMOVE_MOVE, STG_E_INVALIDPOINTER},
        {L"a", s, L"a", STGMOVE_COPY, STG_E_ACCESSDENIED},
        {L"a", s, L"moved", STGMOVE_MOVE, S_OK},
        {L"moved", s, L"copied", STGMOVE_COPY, S_OK},
        {L"nix", s, L"n", STGMOVE_COPY, STG_E_FILENOTFOUND},
        {L"d", d.Get(), L"into itself", STGMOVE_COPY, STG_E_ACCESSDENIED},
    };
    for (const auto& [name, target, newName, flags, status] : moves)
        EXPECT_EQ(s->MoveElementTo(name, target, newName, flags), status) << newName;
    EXPECT_EQ(s->CopyTo(0, nullptr, nullptr, d.Get()), STG_E_ACCESSDENIED);
    EXPECT_EQ(describe(s), "copied=1 d/= moved=1 ");
}

TEST_F(PackageStorages, ReadsAndKeepsWhatTheModesSay) {
    std::filesystem::copy_file(samplePath(L"plain-lzma2.7z"), archivePath);
    EXPECT_TRUE(package(archivePath, STGM_WRITE)->archive()->isEmpty());
    EXPECT_TRUE(package(archivePath, STGM_CREATE | kWriting)->archive()->isEmpty());
    const ComPtr<SZipStorage> root = package(archivePath, STGM_CREATE | STGM_CONVERT | kWriting);
    STATSTG info{};
    const ComPtr<IStorage> directory = openStorage(root.Get(), L"d", kReading);
    ASSERT_EQ(directory->Stat(&info, STATFLAG_NONAME), S_OK);
    EXPECT_NE(info.mtime.dwHighDateTime, 0U);
    EXPECT_EQ(info.ctime.dwHighDateTime, 0U) << "which is not stored";
    EXPECT_EQ(CompareFileTime(&info.atime, &info.mtime), 0);
    EXPECT_EQ(write(root.Get(), L"pct%name", "X", STGM_CONVERT), S_OK);
    EXPECT_EQ(read(root.Get(), L"pct%name").size(), 3U);
    EXPECT_EQ(write(directory.Get(), L".clsid", "short"), STG_E_ACCESSDENIED);
    EXPECT_EQ(write(root.Get(), L".clsid", "short"), S_OK);
    ComPtr<IStream> stream;
    ASSERT_EQ(root->OpenStream(L".clsid", nullptr, kReading, 0, &stream), S_OK);
    EXPECT_EQ(stream->Write("x", 1, nullptr), STG_E_ACCESSDENIED);
    ASSERT_EQ(root->Stat(&info, STATFLAG_NONAME), S_OK);
    EXPECT_EQ(info.clsid, CLSID_NULL);
    package(folder_.file(L"no\\p"), kWriting);
}

TEST_F(PackageStorages, CopiesWhatIsAskedFor) {
    const ComPtr<SZipStorage> root = newPackage();
    ASSERT_EQ(write(root.Get(), L"a", "1"), S_OK);
    const ComPtr<IStorage> box = newStorage(root.Get(), L"box");
    ASSERT_EQ(write(box.Get(), L"a", "2"), S_OK);
    ASSERT_EQ(root->SetClass(CLSID{7, 0, 0, {}}), S_OK);
    ASSERT_EQ(root->SetStateBits(5, 7), S_OK);
    wchar_t name[] = L"a";
    wchar_t* names[] = {name, nullptr};
    const IID storages = __uuidof(IStorage), streams = __uuidof(IStream);
    const struct {
        const IID* iid;
        SNB names;
        const char* expected;
    } wanted[] = {{nullptr, names, "class=7 box/= box/a=2 "},
                  {&storages, nullptr, "class=7 a=1 "},
                  {&streams, nullptr, "class=7 box/= box/a=2 "}};
    for (const auto& [iid, excluded, expected] : wanted) {
        const ComPtr<IStorage> ours = newPackage(), system = compound(folder_.file(L"copy"));
        // And once more into what is there then.
        for (IStorage* const target : {ours.Get(), system.Get(), ours.Get(), system.Get()}) {
            STATSTG info{};
            EXPECT_EQ(root->CopyTo(iid ? 1 : 0, iid, excluded, target), S_OK);
            EXPECT_EQ(describe(target), expected);
            EXPECT_EQ(target->Stat(&info, STATFLAG_NONAME), S_OK);
            EXPECT_EQ(info.grfStateBits, 5U);
        }
        EXPECT_EQ(read(system.Get(), L".clsid"), "status " + std::to_string(STG_E_FILENOTFOUND));
    }
    // Storages that take nothing, or nothing any more.
    const ComPtr<SZipStorage> other = newPackage();
    const ComPtr<IStorage> gone = newStorage(other.Get(), L"d"),
                           reader = openStorage(other.Get(), L"d", kReading);
    EXPECT_EQ(newPackage()->CopyTo(0, nullptr, nullptr, reader.Get()), STG_E_ACCESSDENIED)
        << "even of nothing";
    EXPECT_EQ(write(gone.Get(), L"x", "x"), S_OK);
    EXPECT_EQ(reader->RenameElement(L"x", L"y"), S_OK) << "for which the archive's mode counts alone";
    EXPECT_EQ(reader->DestroyElement(L"y"), S_OK);
    EXPECT_EQ(other->DestroyElement(L"d"), S_OK);
    EXPECT_EQ(root->CopyTo(0, nullptr, nullptr, gone.Get()), STG_E_INVALIDNAME);
    EXPECT_EQ(gone->Commit(STGC_DEFAULT), S_OK);
    EXPECT_EQ(describe(other.Get()), "");
    EXPECT_EQ(root->MoveElementTo(L"a", box.Get(), L"b", STGMOVE_MOVE), S_OK);
    EXPECT_EQ(describe(root.Get()), "class=7 box/= box/a=2 box/b=1 ");
}

// Far deeper than a stack would be.
TEST_F(PackageStorages, CopiesStoragesHoweverDeep) {
    const ComPtr<SZipStorage> root = newPackage(), copy = newPackage();
    ComPtr<IStorage> storage = root;
    for (int depth = 0; depth < 3000; ++depth)
        storage = newStorage(storage.Get(), L"n");
    EXPECT_EQ(root->CopyTo(0, nullptr, nullptr, copy.Get()), S_OK);
    EXPECT_EQ(copy->archive()->items().size(), 3000U);
}

// Not before all of it is in the other package, and not what cannot be read.
TEST_F(PackageStorages, MovesElementsToOtherPackages) {
    make({{L"outer", kDirectory},
          {L"outer/inner", kDirectory},
          {L"outer/inner/first", "1"},
          {L"outer/second", "2"}});
    std::string bytes = readFile(archivePath);
    for (const bool isDamaged : {false, true}) {
        bytes[34] ^= isDamaged; // the size of the first contents: there are more than there should be
        writeFile(archivePath, bytes);
        const HRESULT status = isDamaged ? STG_E_READFAULT : S_OK;
        const auto* const expected = isDamaged ? "outer/= outer/inner/= outer/second=2 "
                                               : "outer/= outer/inner/= outer/inner/first=1 outer/second=2 ";
        const ComPtr<SZipStorage> copied = newPackage(), moved = newPackage();
        ComPtr<SZipStorage> root = package(archivePath, kReading);
        EXPECT_EQ(root->MoveElementTo(L"outer", copied.Get(), L"x", STGMOVE_MOVE), STG_E_ACCESSDENIED);
        EXPECT_EQ(root->CopyTo(0, nullptr, nullptr, copied.Get()), status);
        EXPECT_EQ(describe(copied.Get()), expected);
        root = package(archivePath, kWriting);
        EXPECT_EQ(root->MoveElementTo(L"outer", moved.Get(), L"outer", STGMOVE_MOVE), status);
        EXPECT_EQ(describe(moved.Get()), expected);
        EXPECT_EQ(root->archive()->items().size(), isDamaged ? 4U : 0U);
    }
    EXPECT_EQ(
        log_.count(VxLog_Minor, L"Swallowing error 0x8003001e that occured during copying of storage \"" +
                                    archivePath + L"|outer/inner\""),
        2);
}

TEST_F(PackageStorages, ReadOnlyStoragesGiveStreamsThatRefuseWrites) {
    ComPtr<SZipStorage> root = package(archivePath, kWriting);
    ASSERT_EQ(write(root.Get(), L"a/b\x05", "bytes"), S_OK);
    ASSERT_EQ(root->Commit(STGC_DEFAULT), S_OK);
    root = package(archivePath, kReading);
    ComPtr<IStream> opened, stream;
    ComPtr<IStorage> storage;
    expectEach(STG_E_ACCESSDENIED,
               {root->OpenStream(L"a/b\x05", nullptr, STGM_WRITE, 0, &stream), write(root.Get(), L"n", ""),
                root->CreateStorage(L"d", kWriting, 0, 0, &storage), root->SetClass(CLSID_NULL),
                root->DestroyElement(L"a/b\x05")});
    EXPECT_EQ(root->Commit(STGC_DEFAULT), S_OK);
    ASSERT_EQ(root->OpenStream(L"a/b\x05", nullptr, kWriting, 0, &opened), S_OK);
    ASSERT_EQ(opened->Clone(&stream), S_OK);
    opened.Reset();
    root.Reset();
    EXPECT_EQ(stream->Write("x", 1, nullptr), STG_E_ACCESSDENIED);

    // A stream keeps its archive; its name is not decoded, while listings decode, and cut at a "/".
    EXPECT_EQ(nameAndMode(stream.Get()), L"a%2fb%05 0");
    EXPECT_FALSE(DeleteFileW(archivePath.c_str()));
    stream.Reset();
    EXPECT_TRUE(DeleteFileW(archivePath.c_str()));
}

TEST_F(PackageStorages, ListsDecodedNames) {
    const ComPtr<SZipStorage> root = newPackage();
    const ComPtr<IStorage> directory = newStorage(root.Get(), L"50%/x");
    ASSERT_EQ(write(directory.Get(), L"\x05in", "1"), S_OK);
    ASSERT_EQ(write(root.Get(), L"50%", "22"), S_OK);
    EXPECT_EQ(describe(directory.Get()), "\x05in=1 ");
    EXPECT_EQ(nameAndMode(directory.Get()), L"50%/x " + std::to_wstring(STGM_READWRITE));

    ComPtr<IEnumSTATSTG> list, clone;
    std::array<STATSTG, 3> entries;
    ULONG count = 0;
    ASSERT_EQ(root->EnumElements(0, nullptr, 0, &list), S_OK);
    EXPECT_EQ(list->Next(3, entries.data(), &count), S_FALSE);
    EXPECT_EQ(count, 1U); // "50%" and, cut at its "/", "50%/x"
    EXPECT_STREQ(entries[0].pwcsName, L"50%");
    EXPECT_EQ(entries[1].pwcsName, nullptr);
    CoTaskMemFree(entries[0].pwcsName);
    EXPECT_EQ(list->Next(0, nullptr, nullptr), S_FALSE);
    EXPECT_EQ(list->Skip(1), S_FALSE);
    EXPECT_EQ(list->Clone(&clone), S_OK);
    EXPECT_EQ(clone->Skip(1), S_FALSE) << "goes on from here";
    EXPECT_EQ(list->Reset(), S_OK);
    EXPECT_EQ(list->Next(1, nullptr, nullptr), STG_E_INVALIDPOINTER);
}

TEST_F(PackageStorages, OpensPackagesInStreams) {
    ComPtr<SZipStorage> root;
    ComPtr<IStream> writeOnly;
    ASSERT_EQ(SHCreateStreamOnFileW(folder_.file(L"s").c_str(), STGM_CREATE | STGM_WRITE, &writeOnly), S_OK);
    EXPECT_EQ(Vexel::Storage::openPackage(writeOnly.Get(), root.GetAddressOf()), STG_E_ACCESSDENIED);
    EXPECT_EQ(Vexel::Storage::openPackage(static_cast<IStream*>(nullptr), root.GetAddressOf()),
              STG_E_INVALIDPOINTER);
    EXPECT_EQ(Vexel::Storage::openPackage(L"", kReading, true, root.GetAddressOf()), STG_E_INVALIDNAME);
    const auto stream = streamOf(readFile(samplePath(L"copy.7z")));
    ASSERT_EQ(Vexel::Storage::openPackage(stream.Get(), root.GetAddressOf()), S_OK);
    const std::wstring name = nameAndMode(root.Get());
    EXPECT_TRUE(std::regex_match(name, std::wregex(L":szip[0-9a-f]{16}@(0x)?[0-9A-Fa-f]+: 0")))
        << name << ", readable only";
}

TEST_F(PackageStorages, AnswerForTheInterfacesTheyHave) {
    const ComPtr<SZipStorage> root = newPackage();
    ComPtr<IEnumSTATSTG> list;
    ASSERT_EQ(root->EnumElements(0, nullptr, 0, &list), S_OK);
    expectInterfaces(root.Get(), {IID_IUnknown, IID_IStorage, Vexel::Storage::IID_SZipStorage}, IID_IStream);
    expectInterfaces(list.Get(), {IID_IUnknown, IID_IEnumSTATSTG}, IID_IStorage);
}

TEST_F(PackageStorages, TellWhatCouldNotBeMadeForACopy) {
    make({{L"box", kDirectory}, {L"note", "n"}});
    FakeCalls calls;
    calls.mode = STGM_READWRITE;
    const ComPtr<IStorage> full = fakeStorage(calls);
    for (std::size_t call = 0; call < 20; ++call)
        calls.failures[call] = STG_E_MEDIUMFULL;
    EXPECT_EQ(package(archivePath, kReading)->CopyTo(0, nullptr, nullptr, full.Get()), STG_E_MEDIUMFULL);
    for (const std::wstring& message : {L"storage for copying \"" + archivePath + L"|box",
                                        L"stream for copying \"" + archivePath + L"|note"})
        EXPECT_EQ(log_.count(VxLog_Error, L"Failed to create destination " + message + L"\": 0x80030070"), 1);
}

} // namespace
