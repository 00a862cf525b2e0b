// Derives from the exported base classes and calls, of every exported class, members that are inline and
// members that are not.

#include <vexel/archive.h>
#include <vexel/cipher.h>
#include <vexel/com.h>
#include <vexel/compressed_stream.h>
#include <vexel/diagnostics.h>
#include <vexel/files.h>
#include <vexel/framework.h>
#include <vexel/hash.h>
#include <vexel/ini.h>
#include <vexel/memory_streams.h>
#include <vexel/paths.h>
#include <vexel/properties.h>
#include <vexel/storage.h>
#include <vexel/strings.h>
#include <vexel/sub_stream.h>
#include <vexel/temp_files.h>

#include <wrl/client.h>

#include <cstdio>
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

/// Hands everything on to another stream.
class OwnStream : public Vexel::IUnknownImpl<::IStream> {
public:
    explicit OwnStream(::IStream* base) : base_(base) { ++alive; }
    HRESULT STDMETHODCALLTYPE Read(void* pv, ULONG cb, ULONG* done) noexcept override {
        return base_->Read(pv, cb, done);
    }
    HRESULT STDMETHODCALLTYPE Write(const void* pv, ULONG cb, ULONG* done) noexcept override {
        return base_->Write(pv, cb, done);
    }
    HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER move, DWORD origin,
                                   ULARGE_INTEGER* position) noexcept override {
        return base_->Seek(move, origin, position);
    }
    HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER size) noexcept override { return base_->SetSize(size); }
    HRESULT STDMETHODCALLTYPE CopyTo(::IStream* to, ULARGE_INTEGER cb, ULARGE_INTEGER* read,
                                     ULARGE_INTEGER* written) noexcept override {
        return base_->CopyTo(to, cb, read, written);
    }
    HRESULT STDMETHODCALLTYPE Commit(DWORD flags) noexcept override { return base_->Commit(flags); }
    HRESULT STDMETHODCALLTYPE Revert() noexcept override { return base_->Revert(); }
    HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER at, ULARGE_INTEGER cb, DWORD type) noexcept override {
        return base_->LockRegion(at, cb, type);
    }
    HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER at, ULARGE_INTEGER cb,
                                           DWORD type) noexcept override {
        return base_->UnlockRegion(at, cb, type);
    }
    HRESULT STDMETHODCALLTYPE Stat(STATSTG* stat, DWORD flags) noexcept override {
        return base_->Stat(stat, flags);
    }
    HRESULT STDMETHODCALLTYPE Clone(::IStream** result) noexcept override { return base_->Clone(result); }

    static inline int alive = 0;

protected:
    ~OwnStream() override { --alive; }

private:
    ComPtr<::IStream> base_;
};

/// Shares the memory of another of its kind, as the library's own derived streams do.
class OwnMemoryStream : public InMemoryIStream {
public:
    OwnMemoryStream() : InMemoryIStream(std::make_shared<Private>()) {}
    OwnMemoryStream(const OwnMemoryStream& other) : InMemoryIStream(other), cloned_(true) {}
    HRESULT STDMETHODCALLTYPE Clone(::IStream** result) noexcept override {
        *result = new (std::nothrow) OwnMemoryStream(*this);
        return *result ? S_OK : E_OUTOFMEMORY;
    }
    bool cloned() const { return cloned_ && contents()->ownsMemory; }

private:
    bool cloned_ = false;
};

class OwnSubStream : public SubStream {
public:
    using SubStream::SubStream;
    HRESULT STDMETHODCALLTYPE Commit(DWORD /*flags*/) noexcept override { return S_FALSE; }
};

void memoryStreams() {
    const auto memory = adopt(new OwnMemoryStream);
    ULONG done = 0;
    CHECK(memory->Write("0123456789", 10, &done) == S_OK && done == 10);
    CHECK(memory->size() == 10 && memory->position() == 10 && memory->numRefs() == 1);
    ComPtr<::IStream> clone;
    CHECK(memory->Clone(&clone) == S_OK);
    CHECK(static_cast<OwnMemoryStream*>(clone.Get())->cloned() && memory->numInstances() == 2);

    {
        const auto own = adopt(new OwnStream(memory.Get()));
        ComPtr<IUnknown> unknown;
        CHECK(own->QueryInterface(IID_PPV_ARGS(&unknown)) == S_OK && own->numRefs() == 2);
        const auto part = adopt(new OwnSubStream(own.Get(), 2, 5));
        char text[8] = {};
        CHECK(part->Seek({}, STREAM_SEEK_SET, nullptr) == S_OK);
        CHECK(part->Read(text, 8, &done) == S_OK && std::string(text) == "23456");
        CHECK(part->Commit(0) == S_FALSE && part->numRefs() == 1);
        CHECK(part->detach() && OwnStream::alive == 1);
    }
    CHECK(OwnStream::alive == 0);

    Vexel::Storage::DynamicBuffer buffer;
    Vexel::Storage::DynamicBuffer moved(std::move(buffer));
    const auto plain = adopt(new InMemoryIStream(std::move(moved)));
    CHECK(plain->write("x", 1) == 1 && plain->capacity() == 1024 && plain->AddRef() == 2);
    CHECK(plain->Release() == 1);

    BigBuffer big;
    CHECK(big.init() == big.data() && big.size() == 0x80000 && big.reallocate(0x90000) != nullptr);
}

void names() {
    const SharedPathNameFlagsCacheBlock block;
    SharedPathName name(L"C:\\folder\\name.txt", false, false);
    const SharedPathName same = name;
    CHECK(SharedPathNameFlagsCacheBlock::IsActive() && same == name && !name.empty());
    CHECK(name.getDirectoryPathName() == SharedPathName(L"C:\\folder", false, false));
    CHECK(name.changeExtension(L".x", false).asStringView().ends_with(L"name.x"));
    CHECK(SharedPathName::null.empty() && SharedPathName::ConvertVersion == 3655);
    CHECK(Vexel::FindFileName(L"C:\\a", false) == 3 && VxwIsThisAPath(CString(L"a")) == 1);

    TempFileContainer& registry = TempFileContainer::Instance();
    TempLocalFileContainer files;
    CHECK(registry.contains(files.Add(L"client", L"tmp", false, false)));

    unsigned long long first = 1;
    unsigned long long second = 2;
    Vexel::Hash::SpookyV2_128("", 0, first, second);
    CHECK(first != 1);
    wchar_t password[] = L"p";
    SECCryptoBlackBox cipher(password);
    unsigned char byte = 1;
    cipher.TransformBuf(&byte, 1);
    cipher.Reset();
    cipher.SetDir(SECCryptoBlackBox::DirDecrypt);
    cipher.TransformBuf(&byte, 1);
    CHECK(byte == 1 && cipher.GetMode() == SECCryptoBlackBox::ModeStream);
    CHECK(VxHResultToVexelError(S_OK) == VxError_None);
    VxLog_WriteW(VxLog_Trace, L"%d", 1);
    VxLog_Write(VxLog_Trace, "%d", 1);
}

void texts() {
    CStringW text(L"text");
    text += L'!';
    CHECK(text.GetLength() == 5 && text.Left(4) == L"text" && (text + L"?").Find(L'?') == 5);
    CMemFile memory;
    {
        CArchive archive(&memory, CArchive::store);
        archive << text << 7;
        CHECK(!archive.IsLoading());
        archive.Close();
    }
    memory.SeekToBegin();
    CArchive archive(&memory, CArchive::load);
    CStringW read;
    int number = 0;
    archive >> read >> number;
    CHECK(read == text && number == 7);
    try {
        archive >> number;
        CHECK(!"an exception");
    } catch (CArchiveException* failure) {
        CHECK(failure->m_cause == CArchiveException::endOfFile);
        failure->Delete();
    }
    CFileException error;
    CFile file;
    CHECK(!file.Open(L"Z:\\none\\none", CFile::modeRead, &error) && error.m_cause != CFileException::none);
    try {
        AfxThrowMemoryException();
    } catch (CException* failure) {
        failure->Delete();
    }
    try {
        text.SetAt(100, L'x');
        CHECK(!"an exception");
    } catch (CInvalidArgException* failure) {
        failure->Delete();
    }
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
    CHECK(reader.ReadString(line) && line == L"[s]" && reader.GetEncoding() == vxio::TextEncoding::Utf8);
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
    CHECK(!stream.null());
    PROPVARIANT value{};
    value.vt = VT_I4;
    const Vexel::PropertyVariant variant(value);
    CHECK(variant.asInteger() == 0 && variant.type() == VT_I4);
    CHECK(Vexel::WriteProperties(root, FMTID_SummaryInformation, {{PIDSI_TITLE, variant}}) == S_OK);
    CHECK(root.commit() == S_OK);
    StorageEnumerator elements;
    CHECK(elements.reset(root) == S_OK);
    int count = 0;
    while (elements.moveNext())
        ++count;
    CHECK(count == 2 && elements.status() == S_FALSE);
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
    CHECK(archive.reload() == S_OK && archive.items().size() == 2);
    const Vexel::Storage::SZipArchiveItem* const item = archive.item(CString(L"stream"));
    CHECK(item && !item->isDirectory() && item->size() > 0);
}

} // namespace

int main() {
    memoryStreams();
    names();
    texts();
    TempLocalFileContainer made;
    files(made.Add(L"client", L"ini", false, false));
    documents(made.Add(L"client", L"7z", false, false));
    std::printf(failures == 0 ? "every class works\n" : "%d failures\n", failures);
    return failures;
}
