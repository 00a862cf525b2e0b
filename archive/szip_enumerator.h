#pragma once

#include <vexel/archive.h>
#include <vexel/com.h>

#include <windows.h>

#include <objidl.h>

#include <cstddef>
#include <vector>

namespace Vexel::Storage {

/// Lists the children of a storage as they were when the listing began, in the order of their names.
class SZipEnumerator final : public IUnknownImpl<IEnumSTATSTG> {
public:
    /// Of the storage at `path`. Throws std::bad_alloc, CMemoryException*.
    SZipEnumerator(const SZipArchive& archive, const CString& path);
    SZipEnumerator(const SZipEnumerator& other);
    SZipEnumerator& operator=(const SZipEnumerator&) = delete;

    HRESULT STDMETHODCALLTYPE QueryInterface(const GUID& iid, void** ppv) noexcept override;

    /// Entries beyond those delivered are zero. The caller frees the names.
    ///  - S_FALSE: fewer than asked for, or, asked for none, at the end.
    ///  - STG_E_INVALIDPOINTER. STG_E_INSUFFICIENTMEMORY, with nothing delivered.
    HRESULT STDMETHODCALLTYPE Next(ULONG celt, STATSTG* rgelt, ULONG* pceltFetched) noexcept override;
    /// S_FALSE when there were not so many.
    HRESULT STDMETHODCALLTYPE Skip(ULONG celt) noexcept override;
    HRESULT STDMETHODCALLTYPE Reset() noexcept override;
    /// An enumerator that goes on where this one stands. STG_E_INVALIDPOINTER, STG_E_INSUFFICIENTMEMORY.
    HRESULT STDMETHODCALLTYPE Clone(IEnumSTATSTG** ppenum) noexcept override;

private:
    struct Entry {
        CString name;
        STATSTG description; ///< without a name
    };
    using Entries = std::vector<Entry>;

    ~SZipEnumerator() override;

    Entries entries_;
    std::size_t next_ = 0;
};

} // namespace Vexel::Storage
