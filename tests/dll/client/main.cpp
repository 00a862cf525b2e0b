// Includes every exported header and derives from the exported base classes, so that this program only links
// when all that the inline members call comes out of the DLLs, and only runs when what they raise is caught
// here. That the functions of no class are exported, the list of all exports shows.

#include <vexel/archive.h>
#include <vexel/cipher.h>
#include <vexel/com.h>
#include <vexel/compressed_stream.h>
#include <vexel/copying.h>
#include <vexel/diagnostics.h>
#include <vexel/files.h>
#include <vexel/framework.h>
#include <vexel/hash.h>
#include <vexel/ini.h>
#include <vexel/memory_streams.h>
#include <vexel/open_package.h>
#include <vexel/paths.h>
#include <vexel/properties.h>
#include <vexel/storage.h>
#include <vexel/strings.h>
#include <vexel/sub_stream.h>
#include <vexel/temp_files.h>

#include <cstdio>
#include <new>

namespace {

/// A COM object that takes nothing from the library but its references.
struct OwnStream : Vexel::IUnknownImpl<::IStream> {
    OwnStream() {} // NOLINT(modernize-use-equals-default): kept, unlike a default one, without an object
};

/// Shares the memory of another of its kind, as the library's own derived streams do.
struct OwnMemoryStream : Vexel::Storage::InMemoryIStream {
    OwnMemoryStream() : InMemoryIStream(std::make_shared<Private>()) {}
    STDMETHODIMP Clone(::IStream** result) noexcept override {
        *result = new (std::nothrow) OwnMemoryStream(*this);
        return *result && contents()->ownsMemory ? S_OK : E_OUTOFMEMORY;
    }
};

struct OwnSubStream : Vexel::Storage::SubStream {
    using SubStream::SubStream;
    STDMETHODIMP Commit(DWORD /*flags*/) noexcept override { return S_FALSE; }
};

bool holds(bool condition, const char* what) {
    if (!condition)
        std::printf("failed: %s\n", what);
    return condition;
}

template <class Exception, class Call>
bool raises(Call call) {
    try {
        call();
    } catch (Exception* failure) {
        failure->Delete();
        return true;
    }
    return false;
}

} // namespace

int main() {
    auto* const memory = new OwnMemoryStream;
    ::IStream* clone = nullptr;
    bool works = holds(memory->Clone(&clone) == S_OK, "a derived stream has a clone");
    auto* const part = new OwnSubStream(clone, 0, 5);
    works &= holds(memory->numInstances() == 2, "the clone shares its memory");
    part->Release();
    works &= holds(clone->Release() == 0, "a part gives its reference back");
    works &= holds(memory->Release() == 0, "a clone gives its reference back");

    CMemFile file;
    CArchive archive(&file, CArchive::load);
    int number = 0;
    works &= holds(raises<CArchiveException>([&] { archive >> number; }), "an archive's end");
    works &= holds(raises<CInvalidArgException>([] { CStringW().SetAt(1, L'x'); }), "a bad index");
    works &= holds(raises<CException>([] { CFile(L"Z:\\none\\none", CFile::modeRead); }), "a missing file");
    if (works)
        std::puts("every class works");
    return works ? 0 : 1;
}
