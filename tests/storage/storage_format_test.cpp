// Telling formats apart, and roots for callers without handles.

#include "support/storage_test.h"
#include "support/streams.h"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <thread>

using namespace Support;
using Microsoft::WRL::ComPtr;

namespace {

using Formats = StorageTest<>;

const std::string kPackageStart("7z\xBC\xAF\x27\x1C");
const std::string kCompoundStart("\xD0\xCF\x11\xE0\xA1\xB1");

TEST_F(Formats, IsToldByTheFirstSixBytes) {
    const struct {
        std::string bytes;
        StorageFormat format;
        HRESULT fromFile, fromStream; ///< statuses of opening it as a package
    } cases[] = {
        {"", StorageFormat::None, E_FAIL, E_FAIL},
        {kPackageStart.substr(0, 5), StorageFormat::None, E_FAIL, E_FAIL},
        {kPackageStart, StorageFormat::Package, STG_E_INVALIDHEADER, STG_E_INVALIDHEADER},
        {kCompoundStart, StorageFormat::CompoundFile, STG_E_INVALIDHEADER, E_NOINTERFACE},
        {kCompoundStart + "??", StorageFormat::CompoundFile, STG_E_INVALIDHEADER, E_NOINTERFACE},
        {"\xD0 is text", StorageFormat::None, E_FAIL, E_FAIL},
        {" " + kPackageStart, StorageFormat::None, E_FAIL, E_FAIL},
    };
    for (const auto& [bytes, format, fromFile, fromStream] : cases) {
        SCOPED_TRACE(bytes);
        writeFile(file_, bytes);
        const auto stream = streamOf(bytes);
        EXPECT_EQ(StorageRef::getFormat(file_.c_str()), format);
        EXPECT_EQ(StorageRef::getFormat(stream.Get()), format);
        EXPECT_EQ(stream->position(), (std::min)(bytes.size(), std::size_t{6}));
        EXPECT_EQ(StorageRef::isStorage(file_.c_str()), format != StorageFormat::None);
        IStorage* results[] = {reinterpret_cast<IStorage*>(1), reinterpret_cast<IStorage*>(1)};
        EXPECT_EQ(OpenVexelPackage(&results[0], file_.c_str()), fromFile);
        EXPECT_EQ(OpenVexelPackageStream(&results[1], stream.Get()), fromStream);
        EXPECT_THAT(results, testing::Each(nullptr));
    }
}

TEST_F(Formats, HasNoValueWhereNothingCanBeRead) {
    const std::wstring none = folder_.file(L"none"), directory = folder_.file(L"");
    for (const wchar_t* const path :
         {static_cast<const wchar_t*>(nullptr), L"", none.c_str(), directory.c_str()}) {
        ComPtr<IStorage> root;
        EXPECT_EQ(StorageRef::getFormat(path), std::nullopt);
        EXPECT_EQ(StorageRef::isStorage(path), std::nullopt);
        EXPECT_EQ(OpenVexelPackage(&root, path), E_FAIL);
    }
    ComPtr<IStorage> root;
    EXPECT_EQ(StorageRef::getFormat(static_cast<IStream*>(nullptr)), std::nullopt);
    EXPECT_EQ(OpenVexelPackageStream(&root, nullptr), E_INVALIDARG);
    EXPECT_EQ(OpenVexelPackageStream(nullptr, streamOf("text").Get()), E_INVALIDARG);
    EXPECT_EQ(OpenVexelPackage(nullptr, samplePath(L"copy.7z").c_str()), STG_E_INVALIDPOINTER);
}

TEST_F(Formats, IsKeptForPathNamesWithinABlock) {
    EXPECT_EQ(SharedPathName().isStorage(), false);
    {
        const SharedPathNameFlagsCacheBlock block;
        EXPECT_EQ(path_.isStorage(), std::nullopt); // not kept
        writeFile(file_, kPackageStart);
        EXPECT_EQ(path_.isStorage(), true);
        std::filesystem::remove(file_);
        EXPECT_EQ(path_.isStorage(), true);
        EXPECT_TRUE(path_.fileExists());
    }
    EXPECT_EQ(path_.isStorage(), std::nullopt);
    writeFile(file_, "text");
    EXPECT_EQ(path_.isStorage(), false);
}

TEST_F(Formats, OpensPackagesForReading) {
    const std::wstring path = samplePath(L"copy.7z");
    ComPtr<IStorage> byPath, fromStream;
    ComPtr<IStream> made;
    ASSERT_EQ(OpenVexelPackage(&byPath, path.c_str()), S_OK);
    EXPECT_EQ(byPath->CreateStream(L"New", STGM_CREATE | STGM_READWRITE, 0, 0, &made), STG_E_ACCESSDENIED);
    ASSERT_EQ(OpenVexelPackageStream(&fromStream, streamOf(readFile(path)).Get()), S_OK);
    const std::wstring names = children(StorageRef::fromPtr(byPath.Get()));
    EXPECT_FALSE(names.empty());
    EXPECT_EQ(children(StorageRef::fromPtr(fromStream.Get())), names);
}

// A pipe whose other side goes away opens, but cannot be read.
TEST_F(Formats, RaisesAReadThatFails) {
    constexpr auto kName = L"\\\\.\\pipe\\vexel-format-test";
    const auto withPipe = [&](const auto& read) {
        const HANDLE pipe =
            CreateNamedPipeW(kName, PIPE_ACCESS_OUTBOUND, PIPE_TYPE_BYTE, 1, 0, 0, 0, nullptr);
        std::thread server([pipe] {
            ConnectNamedPipe(pipe, nullptr);
            CloseHandle(pipe);
        });
        read();
        server.join();
    };
    withPipe([&] { EXPECT_THROW(StorageRef::getFormat(kName), std::system_error); });
    withPipe([&] {
        ComPtr<IStorage> root;
        EXPECT_EQ(OpenVexelPackage(&root, kName), HRESULT_FROM_WIN32(ERROR_BROKEN_PIPE));
    });
}

/// Lock bytes of which nothing is known but what they are asked for.
class ClosedBytes final : public Vexel::IUnknownImpl<ILockBytes> {
public:
    STDMETHODIMP ReadAt(ULARGE_INTEGER, void*, ULONG, ULONG*) noexcept override {
        return STG_E_LOCKVIOLATION;
    }
    STDMETHODIMP WriteAt(ULARGE_INTEGER, const void*, ULONG, ULONG*) noexcept override { return E_NOTIMPL; }
    STDMETHODIMP Flush() noexcept override { return E_NOTIMPL; }
    STDMETHODIMP SetSize(ULARGE_INTEGER) noexcept override { return E_NOTIMPL; }
    STDMETHODIMP LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) noexcept override { return E_NOTIMPL; }
    STDMETHODIMP UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) noexcept override { return E_NOTIMPL; }
    STDMETHODIMP Stat(STATSTG* info, DWORD) noexcept override {
        *info = {};
        info->cbSize.QuadPart = 10'000;
        return S_OK;
    }
};

TEST_F(Formats, LeavesLockBytesThatCannotBeReadToTheSystem) {
    const auto bytes = Vexel::Detail::make<ClosedBytes>();
    const auto stream =
        Vexel::Detail::make<StreamOfLockedBytes>(readFile(samplePath(L"namesdemo.xls")), bytes.Get());
    ComPtr<IStorage> root;
    EXPECT_EQ(OpenVexelPackageStream(&root, stream.Get()), STG_E_LOCKVIOLATION);
    EXPECT_EQ(log_.count(L"damaged"), 0);
}

} // namespace
