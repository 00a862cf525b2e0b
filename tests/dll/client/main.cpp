// Derives from the exported base classes and calls, of every exported class, members that are inline and
// members that are not. That the functions of no class are exported, the list of all exports shows.

#include <vexel/archive.h>
#include <vexel/cipher.h>
#include <vexel/com.h>
#include <vexel/compressed_stream.h>
#include <vexel/diagnostics.h>
#include <vexel/files.h>
#include <vexel/framework.h>
#include <vexel/ini.h>
#include <vexel/memory_streams.h>
#include <vexel/properties.h>
#include <vexel/storage.h>
#include <vexel/strings.h>
#include <vexel/sub_stream.h>
#include <vexel/temp_files.h>

#include <wrl/client.h>

#include <cstdio>
#include <functional>
#include <new>
#include <string>
#include <utility>

using Microsoft::WRL::ComPtr;
using Vexel::Storage::InMemoryIStream;
using Vexel::Storage::SubStream;

namespace {

int failures = 0;

void check(bool holds, const char* what) {
    if (holds)
        return;
    ++failures;
    std::printf("failed: %s\n", what);
}

#define CHECK(condition) check(condition, #condition)

template <class Object>
ComPtr<Object> adopt(Object* object) {
    ComPtr<Object> pointer;
    *pointer.GetAddressOf() = object; // not Attach, which with mingw-w64 takes a reference
    return pointer;
}

/// A COM object that takes nothing from the library but its references.
class OwnStream : public Vexel::IUnknownImpl<::IStream> {
public:
    STDMETHODIMP Read(void* /*to*/, ULONG /*cb*/, ULONG* /*done*/) noexcept override { return E_NOTIMPL; }
    STDMETHODIMP Write(const void* /*pv*/, ULONG /*cb*/, ULONG* /*done*/) noexcept override { return S_OK; }
    STDMETHODIMP Seek(LARGE_INTEGER, DWORD, ULARGE_INTEGER*) noexcept override { return E_NOTIMPL; }
    STDMETHODIMP SetSize(ULARGE_INTEGER /*size*/) noexcept override { return E_NOTIMPL; }
    STDMETHODIMP CopyTo(::IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) noexcept override {
        return E_NOTIMPL;
    }
    STDMETHODIMP Commit(DWORD /*flags*/) noexcept override { return E_NOTIMPL; }
    STDMETHODIMP Revert() noexcept override { return E_NOTIMPL; }
    STDMETHODIMP LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) noexcept override { return E_NOTIMPL; }
    STDMETHODIMP UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) noexcept override { return E_NOTIMPL; }
    STDMETHODIMP Stat(STATSTG* /*entry*/, DWORD /*flags*/) noexcept override { return E_NOTIMPL; }
    STDMETHODIMP Clone(::IStream** /*result*/) noexcept override { return E_NOTIMPL; }

    static inline int alive = 1;

protected:
    ~OwnStream() override { --alive; }
};

/// Shares the memory of another of its kind, as the library's own derived streams do.
class OwnMemoryStream : public InMemoryIStream {
public:
    OwnMemoryStream() : InMemoryIStream(std::make_shared<Private>()) {}
    STDMETHODIMP Clone(::IStream** result) noexcept override {
        *result = new (std::nothrow) OwnMemoryStream(*this);
        return *result ? S_OK : E_OUTOFMEMORY;
    }
    bool ownsMemory() const { return contents()->ownsMemory; }
};

class OwnSubStream : public SubStream {
public:
    using SubStream::SubStream;
    STDMETHODIMP Commit(DWORD /*flags*/) noexcept override { return S_FALSE; }
};

void derivedStreams() {
    {
        const auto own = adopt(new OwnStream);
        ComPtr<IUnknown> unknown;
        CHECK(own->QueryInterface(IID_PPV_ARGS(&unknown)) == S_OK && own->numRefs() == 2);
    }
    CHECK(OwnStream::alive == 0);

    const auto memory = adopt(new OwnMemoryStream);
    ULONG done = 0;
    CHECK(memory->Write("0123456789", 10, &done) == S_OK && memory->size() == 10 && memory->numRefs() == 1);
    ComPtr<::IStream> clone;
    CHECK(memory->Clone(&clone) == S_OK && memory->numInstances() == 2);
    CHECK(static_cast<OwnMemoryStream*>(clone.Get())->ownsMemory());

    const auto part = adopt(new OwnSubStream(memory.Get(), 2, 5));
    char text[8] = {};
    CHECK(part->Seek({}, STREAM_SEEK_SET, nullptr) == S_OK && part->Read(text, 8, &done) == S_OK);
    CHECK(std::string(text) == "23456" && part->Commit(0) == S_FALSE && part->detach());
}

void memory() {
    Vexel::Storage::DynamicBuffer buffer;
    const auto plain = adopt(new InMemoryIStream(std::move(buffer)));
    CHECK(plain->write("x", 1) == 1 && plain->capacity() == 1024 && plain->AddRef() == 2);
    plain->Release();
    BigBuffer big;
    CHECK(big.init() == big.data() && big.reallocate(0x90000) != nullptr);
}

void names() {
    const SharedPathNameFlagsCacheBlock block;
    SharedPathName name(L"C:\\folder\\name.txt", false, false);
    const SharedPathName same = name;
    CHECK(SharedPathNameFlagsCacheBlock::IsActive() && same == name && !name.empty());
    CHECK(name.changeExtension(L".x", false).asStringView().ends_with(L"name.x"));
    CHECK(SharedPathName::null.empty() && SharedPathName::ConvertVersion == 3655);
    TempLocalFileContainer files;
    CHECK(TempFileContainer::Instance().contains(files.Add(L"client", L"tmp", false, false)));

    wchar_t password[] = L"p";
    SECCryptoBlackBox cipher(password);
    cipher.SetDir(SECCryptoBlackBox::DirDecrypt);
    cipher.Reset();
    CHECK(cipher.GetMode() == SECCryptoBlackBox::ModeStream);
    VxLog_WriteW(VxLog_Trace, L"%d", 1);
    VxLog_Write(VxLog_Trace, "%d", VxHResultToVexelError(S_OK));
}

template <class Exception>
bool raises(const std::function<void()>& call) {
    try {
        call();
    } catch (Exception* failure) {
        failure->Delete();
        return true;
    }
    return false;
}

void texts() {
    CStringW text(L"text");
    text += L'!';
    CHECK(text.GetLength() == 5 && text.Left(4) == L"text" && (text + L"?").Find(L'?') == 5);
    CMemFile memory;
    CArchive to(&memory, CArchive::store);
    to << text << 7;
    to.Close();
    memory.SeekToBegin();
    CArchive from(&memory, CArchive::load);
    CStringW read;
    int number = 0;
    from >> read >> number;
    CHECK(from.IsLoading() && read == text && number == 7);
    CHECK(raises<CArchiveException>([&] { from >> number; }));
    CHECK(raises<CInvalidArgException>([&] { text.SetAt(100, L'x'); }));
    CHECK(raises<CException>([] { AfxThrowMemoryException(); }));
    CFileException error;
    CFile file;
    CHECK(!file.Open(L"Z:\\none\\none", CFile::modeRead, &error) && error.m_cause != CFileException::none);
}

void files(const SharedPathName& path) {
    vxio::FileWriteStream out;
    vxio::WriteStreamOpenArgs args;
    args.path = path.asString();
    CHECK(out.Open(args) && out.IsOpen() && out.WriteBytes("a", 1) == 1);
    out.Close();
    vxio::FileReadStream in;
    CHECK(in.Open(path.asString(), vxio::ProtectWriting) && in.GetLength() == 1 && in.IsOpen());
    in.Close();
    vxio::SimpleFile file;
    CHECK(file.Open(path.asString(), vxio::FileAccess::Read, vxio::FileCreation::OpenExisting,
                    vxio::ProtectNothing));
    CHECK(file.GetLength() == 1 && file.IsOpen());
    file.Close();

    vxio::TextFileWriteStream writer;
    CHECK(writer.Open(args, vxio::TextEncoding::Utf8, false) && writer.IsOpen());
    CHECK(writer.WriteString(L"[s]\r\nk=v\r\n") && writer.Close());
    vxio::TextFileReadStream reader;
    CStringW line;
    CHECK(reader.Open(path.asString(), vxio::ProtectWriting, vxio::TextEncoding::Detect, false));
    CHECK(reader.ReadString(line) && reader.GetEncoding() == vxio::TextEncoding::Utf8);
    reader.Close();
    vxio::IniFile settings;
    CHECK(settings.Load(path.asString()) && !settings.IsEmpty());
    const vxio::IniFileSection* const section = settings.GetSection(L"s");
    CHECK(section && !section->IsEmpty() && section->GetString(L"k", L"") == L"v");
}

void documents(const SharedPathName& path) {
    StorageRef root;
    StreamRef stream;
    CHECK(root.create(path) == S_OK && root.notNull() && stream.create(L"stream", root) == S_OK);
    VxwWriteString(stream, CString(L"text"));
    const Vexel::PropertyVariant variant(7);
    CHECK(variant.asInteger() == 7 && variant.type() == VT_I4);
    CHECK(root.commit() == S_OK && !stream.null());
    StorageEnumerator elements;
    CHECK(elements.reset(root) == S_OK && elements.moveNext() && elements.status() == S_OK);
    vxio::IStreamStream adapter(stream.stream());
    CHECK(adapter && adapter.GetLength() > 0);
    COleStreamCompressFile compressed(true, stream);
    CHECK(compressed.GetLength() > 0 && compressed.GetAutoOpenCompression());
    compressed.Close();
    adapter.Close();
    stream.close();
    root.close();
    StorageContainer& container = StorageContainer::Instance();
    CHECK(container.deleteUnusedObjects() && !container.createOnDisk());

    Vexel::Storage::SZipArchive archive(path.asStringView(), true, true);
    CHECK(archive.reload() == S_OK && archive.items().size() == 1);
    const Vexel::Storage::SZipArchiveItem* const item = archive.item(CString(L"stream"));
    CHECK(item && !item->isDirectory() && item->size() > 0);
}

} // namespace

int main() {
    derivedStreams();
    memory();
    names();
    texts();
    TempLocalFileContainer made;
    files(made.Add(L"client", L"ini", false, false));
    documents(made.Add(L"client", L"7z", false, false));
    std::printf(failures == 0 ? "every class works\n" : "%d failures\n", failures);
    return failures;
}
