// Telling formats apart, and roots for callers without handles.

#include "support/compound_file.h"
#include "support/log_capture.h"

#include <vexel/memory_streams.h>
#include <vexel/storage.h>

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

using Microsoft::WRL::ComPtr;
using Vexel::Storage::InMemoryIStream;

namespace {

constexpr std::string_view packageStart("7z\xBC\xAF\x27\x1C");
constexpr std::string_view compoundStart("\xD0\xCF\x11\xE0\xA1\xB1");

ComPtr<InMemoryIStream> streamOf(std::string_view bytes) {
    ComPtr<InMemoryIStream> stream;
    *stream.GetAddressOf() = new InMemoryIStream;
    EXPECT_EQ(stream->write(bytes.data(), bytes.size()), bytes.size());
    return stream;
}

std::string fileBytes(const std::wstring& path) {
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

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
        {std::string(packageStart.substr(0, 5)), StorageFormat::None},
        {std::string(packageStart), StorageFormat::Package},
        {std::string(compoundStart), StorageFormat::CompoundFile},
        {std::string(compoundStart) + "??", StorageFormat::CompoundFile},
        {"plain text", StorageFormat::None},
        {" " + std::string(packageStart), StorageFormat::None},
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
        EXPECT_EQ(StorageRef::isStorage(CString(path.c_str())), format != StorageFormat::None);
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

TEST(OpenPackage, OpensBothFormatsByPathAndFromStreams) {
    const struct {
        const wchar_t* file;
        const wchar_t* names;
    } cases[] = {{L"namesdemo.xls", L"Workbook \5SummaryInformation \5DocumentSummaryInformation "},
                 {L"empty.7z", L""},
                 {L"copy.7z", nullptr}};
    for (const auto& [file, names] : cases) {
        const std::wstring path = Support::samplePath(file);
        ComPtr<IStorage> byPath;
        ASSERT_EQ(OpenVexelPackage(&byPath, path.c_str()), S_OK);
        if (names) {
            EXPECT_EQ(namesOf(byPath.Get()), names);
        }
        if (StorageRef::getFormat(path.c_str()) != StorageFormat::Package)
            continue; // memory streams are no ILockBytes
        ComPtr<IStream> made;
        EXPECT_EQ(
            byPath->CreateStream(L"New", STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0, 0, &made),
            STG_E_ACCESSDENIED);
        const auto stream = streamOf(fileBytes(path));
        ComPtr<IStorage> fromStream;
        ASSERT_EQ(OpenVexelPackageStream(&fromStream, stream.Get()), S_OK);
        EXPECT_EQ(namesOf(fromStream.Get()), namesOf(byPath.Get()));
    }
}

/// A stream that is an ILockBytes too, as those of the system's are.
class LockedBytes final : public Vexel::IUnknownImpl<ILockBytes> {
public:
    explicit LockedBytes(std::string bytes) : bytes_(std::move(bytes)) {}
    STDMETHODIMP ReadAt(ULARGE_INTEGER at, void* to, ULONG count, ULONG* read) noexcept override {
        const auto start = (std::min)(static_cast<std::size_t>(at.QuadPart), bytes_.size());
        const auto done = (std::min)(static_cast<std::size_t>(count), bytes_.size() - start);
        std::copy_n(bytes_.data() + start, done, static_cast<char*>(to));
        if (read)
            *read = static_cast<ULONG>(done);
        return S_OK;
    }
    STDMETHODIMP WriteAt(ULARGE_INTEGER, const void*, ULONG, ULONG*) noexcept override { return E_FAIL; }
    STDMETHODIMP Flush() noexcept override { return S_OK; }
    STDMETHODIMP SetSize(ULARGE_INTEGER) noexcept override { return E_FAIL; }
    STDMETHODIMP LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) noexcept override { return S_OK; }
    STDMETHODIMP UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) noexcept override { return S_OK; }
    STDMETHODIMP Stat(STATSTG* info, DWORD) noexcept override {
        *info = {};
        info->type = STGTY_LOCKBYTES;
        info->cbSize.QuadPart = bytes_.size();
        return S_OK;
    }

private:
    std::string bytes_;
};

class StreamOfLockedBytes final : public InMemoryIStream {
public:
    explicit StreamOfLockedBytes(const std::string& bytes) {
        *bytes_.GetAddressOf() = new LockedBytes(bytes);
        write(bytes.data(), bytes.size());
    }
    STDMETHODIMP QueryInterface(const GUID& iid, void** ppv) noexcept override {
        return iid == IID_ILockBytes ? bytes_.CopyTo(reinterpret_cast<ILockBytes**>(ppv))
                                     : InMemoryIStream::QueryInterface(iid, ppv);
    }

private:
    ComPtr<ILockBytes> bytes_;
};

TEST(OpenPackage, OpensCompoundFilesInStreamsThatAreLockBytes) {
    const LogCapture log;
    std::string bytes = fileBytes(Support::samplePath(L"namesdemo.xls"));
    const auto open = [&] {
        ComPtr<IStream> stream;
        *stream.GetAddressOf() = new StreamOfLockedBytes(bytes);
        ComPtr<IStorage> root;
        const HRESULT status = OpenVexelPackageStream(&root, stream.Get());
        EXPECT_EQ(status == S_OK, root != nullptr);
        if (root) {
            EXPECT_EQ(namesOf(root.Get()), L"Workbook \5SummaryInformation \5DocumentSummaryInformation ");
        }
        return status;
    };
    EXPECT_EQ(open(), S_OK);
    bytes[50] = 1; // the directory's first sector lies beyond the end
    EXPECT_EQ(open(), STG_E_DOCFILECORRUPT);
    EXPECT_EQ(log.count(VxLog_Minor, L"the compound file in a stream is damaged"), 1);
}

TEST(OpenPackage, RefusesWhatIsNoStructuredFile) {
    const LogCapture quiet;
    const Support::TempFolder folder;
    auto* const untouched = reinterpret_cast<IStorage*>(1);
    const auto byPath = [&](const wchar_t* path) {
        IStorage* result = untouched;
        const HRESULT status = OpenVexelPackage(&result, path);
        EXPECT_EQ(result, nullptr);
        return status;
    };
    const auto fromStream = [&](std::string_view bytes) {
        IStorage* result = untouched;
        const HRESULT status = OpenVexelPackageStream(&result, streamOf(bytes).Get());
        EXPECT_EQ(result, nullptr);
        return status;
    };
    EXPECT_EQ(byPath(nullptr), E_FAIL);
    EXPECT_EQ(byPath(folder.file(L"none").c_str()), E_FAIL);
    Support::writeFile(folder.file(L"text"), "plain text");
    EXPECT_EQ(byPath(folder.file(L"text").c_str()), E_FAIL);
    Support::writeFile(folder.file(L"cut"), packageStart);
    EXPECT_EQ(byPath(folder.file(L"cut").c_str()), STG_E_INVALIDHEADER);
    Support::writeFile(folder.file(L"cut"), compoundStart);
    EXPECT_TRUE(FAILED(byPath(folder.file(L"cut").c_str())));
    EXPECT_EQ(fromStream("plain text"), E_FAIL);
    EXPECT_EQ(fromStream("7z"), E_FAIL);
    EXPECT_EQ(fromStream(packageStart), STG_E_INVALIDHEADER);
    EXPECT_EQ(fromStream(compoundStart), E_NOINTERFACE);
    EXPECT_EQ(OpenVexelPackage(nullptr, Support::samplePath(L"copy.7z").c_str()), STG_E_INVALIDPOINTER);
    EXPECT_EQ(OpenVexelPackageStream(nullptr, streamOf("text").Get()), E_INVALIDARG);
    IStorage* result = untouched;
    EXPECT_EQ(OpenVexelPackageStream(&result, nullptr), E_INVALIDARG);
    EXPECT_EQ(result, nullptr);
}

} // namespace
