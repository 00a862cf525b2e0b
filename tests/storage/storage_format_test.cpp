// Telling formats apart, and roots for callers without handles.

#include "support/compound_file.h"
#include "support/log_capture.h"
#include "support/streams.h"

#include <vexel/storage.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <system_error>
#include <thread>

using Microsoft::WRL::ComPtr;
using Support::readFile;
using Support::streamOf;
using Vexel::Detail::adopt;
using Vexel::Storage::InMemoryIStream;

namespace {

const std::string packageStart("7z\xBC\xAF\x27\x1C");
const std::string compoundStart("\xD0\xCF\x11\xE0\xA1\xB1");
constexpr auto workbook = L"Workbook \5SummaryInformation \5DocumentSummaryInformation ";

std::wstring namesOf(IStorage* storage) {
    std::wstring names;
    ComPtr<IEnumSTATSTG> children;
    EXPECT_EQ(storage->EnumElements(0, nullptr, 0, &children), S_OK);
    for (STATSTG child{}; children->Next(1, &child, nullptr) == S_OK; child = {}) {
        names += std::wstring(child.pwcsName) + L" ";
        CoTaskMemFree(child.pwcsName);
    }
    return names;
}

TEST(StorageFormat, IsToldByTheFirstSixBytes) {
    const Support::TempFolder folder;
    const struct {
        std::string bytes;
        StorageFormat format;
    } cases[] = {
        {"", StorageFormat::None},
        {packageStart.substr(0, 5), StorageFormat::None},
        {packageStart, StorageFormat::Package},
        {compoundStart, StorageFormat::CompoundFile},
        {compoundStart + "??", StorageFormat::CompoundFile},
        {"plain text", StorageFormat::None},
        {" " + packageStart, StorageFormat::None},
    };
    const std::wstring path = folder.file(L"f");
    for (const auto& [bytes, format] : cases) {
        SCOPED_TRACE(bytes);
        Support::writeFile(path, bytes);
        const auto stream = streamOf(bytes);
        EXPECT_EQ(StorageRef::getFormat(path.c_str()), format);
        EXPECT_EQ(StorageRef::getFormat(stream.Get()), format);
        EXPECT_EQ(stream->position(), (std::min)(bytes.size(), std::size_t{6}));
        EXPECT_EQ(StorageRef::isStorage(path.c_str()), format != StorageFormat::None);
    }
}

TEST(StorageFormat, HasNoValueWhereNothingCanBeRead) {
    const Support::TempFolder folder;
    const wchar_t* const none = nullptr;
    EXPECT_EQ(StorageRef::getFormat(none), std::nullopt);
    EXPECT_EQ(StorageRef::getFormat(L""), std::nullopt);
    EXPECT_EQ(StorageRef::getFormat(folder.file(L"none").c_str()), std::nullopt);
    EXPECT_EQ(StorageRef::getFormat(folder.file(L"").c_str()), std::nullopt); // a directory
    EXPECT_EQ(StorageRef::getFormat(static_cast<IStream*>(nullptr)), std::nullopt);
    EXPECT_EQ(StorageRef::isStorage(SharedPathName()), std::nullopt);
}

TEST(StorageFormat, IsKeptForPathNamesWithinABlock) {
    const Support::TempFolder folder;
    const std::wstring path = folder.file(L"kept");
    const SharedPathName name(path, false, false);
    EXPECT_EQ(SharedPathName().isStorage(), false);
    {
        const SharedPathNameFlagsCacheBlock block;
        EXPECT_EQ(name.isStorage(), std::nullopt); // not kept
        Support::writeFile(path, packageStart);
        EXPECT_EQ(name.isStorage(), true);
        std::filesystem::remove(path);
        EXPECT_EQ(name.isStorage(), true);
        EXPECT_TRUE(name.fileExists());
    }
    EXPECT_EQ(name.isStorage(), std::nullopt);
    Support::writeFile(path, "text");
    EXPECT_EQ(name.isStorage(), false);
    std::filesystem::remove(path);
    EXPECT_EQ(name.isStorage(), std::nullopt); // outside a block each call asks
}

TEST(OpenPackage, OpensBothFormatsByPathAndPackagesFromStreams) {
    ComPtr<IStorage> compound;
    ASSERT_EQ(OpenVexelPackage(&compound, Support::samplePath(L"namesdemo.xls").c_str()), S_OK);
    EXPECT_EQ(namesOf(compound.Get()), workbook);
    for (const wchar_t* file : {L"empty.7z", L"copy.7z"}) {
        const std::wstring path = Support::samplePath(file);
        ComPtr<IStorage> byPath, fromStream;
        ComPtr<IStream> made;
        ASSERT_EQ(OpenVexelPackage(&byPath, path.c_str()), S_OK);
        EXPECT_EQ(
            byPath->CreateStream(L"New", STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0, 0, &made),
            STG_E_ACCESSDENIED);
        const auto stream = streamOf(readFile(path));
        ASSERT_EQ(OpenVexelPackageStream(&fromStream, stream.Get()), S_OK);
        EXPECT_EQ(namesOf(fromStream.Get()), namesOf(byPath.Get()));
        EXPECT_EQ(namesOf(byPath.Get()).empty(), *file == L'e');
    }
}

TEST(OpenPackage, OpensCompoundFilesInStreamsThatAreLockBytes) {
    const LogCapture log;
    std::string bytes = readFile(Support::samplePath(L"namesdemo.xls"));
    const auto open = [&] {
        const auto stream = adopt(new Support::StreamOfLockedBytes(bytes));
        ComPtr<IStorage> root;
        const HRESULT status = OpenVexelPackageStream(&root, stream.Get());
        EXPECT_EQ(status == S_OK, root != nullptr);
        if (root) {
            EXPECT_EQ(namesOf(root.Get()), workbook);
        }
        return status;
    };
    EXPECT_EQ(open(), S_OK);
    bytes[50] = 1; // the directory's first sector lies beyond the end
    EXPECT_EQ(open(), STG_E_DOCFILECORRUPT);
    EXPECT_EQ(log.count(VxLog_Minor, L"the compound file in a stream is damaged"), 1);
}

// A pipe whose other side goes away opens, but cannot be read.
TEST(StorageFormat, RaisesAReadThatFails) {
    const LogCapture quiet;
    constexpr auto name = L"\\\\.\\pipe\\vexel-format-test";
    const auto withPipe = [&](const auto& read) {
        const HANDLE pipe = CreateNamedPipeW(name, PIPE_ACCESS_OUTBOUND, PIPE_TYPE_BYTE, 1, 0, 0, 0, nullptr);
        std::thread server([pipe] {
            ConnectNamedPipe(pipe, nullptr);
            CloseHandle(pipe);
        });
        read();
        server.join();
    };
    withPipe([&] { EXPECT_THROW(StorageRef::getFormat(name), std::system_error); });
    withPipe([&] {
        ComPtr<IStorage> root;
        EXPECT_EQ(OpenVexelPackage(&root, name), HRESULT_FROM_WIN32(ERROR_BROKEN_PIPE));
    });
}

/// Lock bytes of which nothing is known but what they are asked for.
class ClosedBytes final : public Support::StreamOfLockedBytes, public ILockBytes {
public:
    using StreamOfLockedBytes::StreamOfLockedBytes;
    STDMETHODIMP QueryInterface(const GUID& iid, void** ppv) noexcept override {
        if (iid != IID_ILockBytes)
            return StreamOfLockedBytes::QueryInterface(iid, ppv);
        *ppv = static_cast<ILockBytes*>(this);
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() noexcept override { return StreamOfLockedBytes::AddRef(); }
    STDMETHODIMP_(ULONG) Release() noexcept override { return StreamOfLockedBytes::Release(); }
    STDMETHODIMP ReadAt(ULARGE_INTEGER, void*, ULONG, ULONG*) noexcept override {
        return STG_E_LOCKVIOLATION;
    }
    STDMETHODIMP WriteAt(ULARGE_INTEGER, const void*, ULONG, ULONG*) noexcept override { return E_NOTIMPL; }
    STDMETHODIMP Flush() noexcept override { return E_NOTIMPL; }
    STDMETHODIMP SetSize(ULARGE_INTEGER) noexcept override { return E_NOTIMPL; }
    STDMETHODIMP LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) noexcept override { return E_NOTIMPL; }
    STDMETHODIMP UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) noexcept override { return E_NOTIMPL; }
    STDMETHODIMP Stat(STATSTG* info, DWORD) noexcept override {
        info->cbSize.QuadPart = 10'000;
        return knowsSize ? S_OK : STG_E_LOCKVIOLATION;
    }
    bool knowsSize = false;
};

TEST(OpenPackage, LeavesLockBytesThatCannotBeReadToTheSystem) {
    const LogCapture log;
    for (const bool knowsSize : {false, true}) {
        const auto stream = adopt(new ClosedBytes(readFile(Support::samplePath(L"namesdemo.xls"))));
        stream->knowsSize = knowsSize;
        ComPtr<IStorage> root;
        EXPECT_EQ(OpenVexelPackageStream(&root, stream.Get()), STG_E_LOCKVIOLATION);
    }
    EXPECT_EQ(log.count(L"damaged"), 0);
}

TEST(OpenPackage, RefusesWhatIsNoStructuredFile) {
    const LogCapture quiet;
    const Support::TempFolder folder;
    const auto refused = [](const auto& open) {
        auto* result = reinterpret_cast<IStorage*>(1);
        const HRESULT status = open(&result);
        EXPECT_EQ(result, nullptr);
        return status;
    };
    const auto byPath = [&](const wchar_t* path) {
        return refused([&](IStorage** result) { return OpenVexelPackage(result, path); });
    };
    const auto fromStream = [&](IStream* stream) {
        return refused([&](IStorage** result) { return OpenVexelPackageStream(result, stream); });
    };
    const std::wstring path = folder.file(L"file");
    EXPECT_EQ(byPath(nullptr), E_FAIL);
    EXPECT_EQ(byPath(path.c_str()), E_FAIL);
    EXPECT_EQ(fromStream(nullptr), E_INVALIDARG);
    EXPECT_EQ(OpenVexelPackage(nullptr, Support::samplePath(L"copy.7z").c_str()), STG_E_INVALIDPOINTER);
    EXPECT_EQ(OpenVexelPackageStream(nullptr, streamOf("text").Get()), E_INVALIDARG);
    const struct {
        std::string bytes;
        HRESULT fromFile, fromStream;
    } cases[] = {
        {"plain text", E_FAIL, E_FAIL},
        {"7z", E_FAIL, E_FAIL},
        {packageStart, STG_E_INVALIDHEADER, STG_E_INVALIDHEADER},
        {compoundStart, STG_E_INVALIDHEADER, E_NOINTERFACE},
    };
    for (const auto& test : cases) {
        Support::writeFile(path, test.bytes);
        EXPECT_EQ(byPath(path.c_str()), test.fromFile) << test.bytes;
        EXPECT_EQ(fromStream(streamOf(test.bytes).Get()), test.fromStream) << test.bytes;
    }
}

} // namespace
