// Telling formats apart, and roots for callers without handles.

#include "support/handles.h"
#include "support/log_capture.h"
#include "support/streams.h"

#include <vexel/storage.h>

#include <gmock/gmock.h>
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

namespace {

const std::string kPackageStart("7z\xBC\xAF\x27\x1C");
const std::string kCompoundStart("\xD0\xCF\x11\xE0\xA1\xB1");

TEST(StorageFormat, IsToldByTheFirstSixBytes) {
    const Support::TempFolder folder;
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
    const LogCapture quiet;
    const std::wstring path = folder.file(L"f");
    for (const auto& [bytes, format, fromFile, fromStream] : cases) {
        SCOPED_TRACE(bytes);
        Support::writeFile(path, bytes);
        const auto stream = streamOf(bytes);
        EXPECT_EQ(StorageRef::getFormat(path.c_str()), format);
        EXPECT_EQ(StorageRef::getFormat(stream.Get()), format);
        EXPECT_EQ(stream->position(), (std::min)(bytes.size(), std::size_t{6}));
        EXPECT_EQ(StorageRef::isStorage(path.c_str()), format != StorageFormat::None);
        IStorage* results[] = {reinterpret_cast<IStorage*>(1), reinterpret_cast<IStorage*>(1)};
        EXPECT_EQ(OpenVexelPackage(&results[0], path.c_str()), fromFile);
        EXPECT_EQ(OpenVexelPackageStream(&results[1], stream.Get()), fromStream);
        EXPECT_THAT(results, testing::Each(nullptr));
    }
}

TEST(StorageFormat, HasNoValueWhereNothingCanBeRead) {
    const Support::TempFolder folder;
    const std::wstring none = folder.file(L"none"), directory = folder.file(L"");
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
    EXPECT_EQ(OpenVexelPackage(nullptr, Support::samplePath(L"copy.7z").c_str()), STG_E_INVALIDPOINTER);
}

TEST(StorageFormat, IsKeptForPathNamesWithinABlock) {
    const Support::TempFolder folder;
    const std::wstring path = folder.file(L"kept");
    const SharedPathName name(path, false, false);
    EXPECT_EQ(SharedPathName().isStorage(), false);
    {
        const SharedPathNameFlagsCacheBlock block;
        EXPECT_EQ(name.isStorage(), std::nullopt); // not kept
        Support::writeFile(path, kPackageStart);
        EXPECT_EQ(name.isStorage(), true);
        std::filesystem::remove(path);
        EXPECT_EQ(name.isStorage(), true);
        EXPECT_TRUE(name.fileExists());
    }
    for (const bool exists : {true, false}) {
        std::filesystem::remove(path);
        if (exists)
            Support::writeFile(path, "text");
        EXPECT_EQ(name.isStorage(), exists ? std::optional(false) : std::nullopt);
    }
}

TEST(OpenPackage, OpensPackagesForReading) {
    for (const wchar_t* file : {L"empty.7z", L"copy.7z"}) {
        const std::wstring path = Support::samplePath(file);
        ComPtr<IStorage> byPath, fromStream;
        ComPtr<IStream> made;
        ASSERT_EQ(OpenVexelPackage(&byPath, path.c_str()), S_OK);
        EXPECT_EQ(byPath->CreateStream(L"New", STGM_CREATE | STGM_READWRITE, 0, 0, &made),
                  STG_E_ACCESSDENIED);
        ASSERT_EQ(OpenVexelPackageStream(&fromStream, streamOf(readFile(path)).Get()), S_OK);
        const std::wstring names = Support::children(StorageRef::fromPtr(byPath.Get()));
        EXPECT_EQ(names.empty(), *file == L'e');
        EXPECT_EQ(Support::children(StorageRef::fromPtr(fromStream.Get())), names);
    }
}

// A pipe whose other side goes away opens, but cannot be read.
TEST(StorageFormat, RaisesAReadThatFails) {
    const LogCapture quiet;
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
        *info = {};
        info->cbSize.QuadPart = 10'000;
        return S_OK;
    }
};

TEST(OpenPackage, LeavesLockBytesThatCannotBeReadToTheSystem) {
    const LogCapture log;
    const auto stream = adopt(new ClosedBytes(readFile(Support::samplePath(L"namesdemo.xls"))));
    ComPtr<IStorage> root;
    EXPECT_EQ(OpenVexelPackageStream(&root, stream.Get()), STG_E_LOCKVIOLATION);
    EXPECT_EQ(log.count(L"damaged"), 0);
}

} // namespace
