#pragma once

/// Reference counting for the COM objects that the library implements.

#include <vexel/export.h>

#include <windows.h>

#include <objidl.h>

#include <atomic>

namespace Vexel {

/// The base of a COM object: derives from the COM interface `I` and gives it `IUnknown`. The creator holds
/// the first reference; the object deletes itself when the last one goes.
///
/// Threads: references may be taken and released on any thread, and so may `numRefs` be asked.
template <class I>
class IUnknownImpl : public I {
public:
    IUnknownImpl& operator=(const IUnknownImpl&) = delete;

    /// Answers only `IID_IUnknown`; classes that stand for more interfaces override it. `*ppv` is null
    /// whenever the status is not `S_OK`.
    ///  - `E_POINTER`: `ppv` is null.
    ///  - `E_NOINTERFACE`: any other interface was asked for.
    HRESULT STDMETHODCALLTYPE QueryInterface(const GUID& iid, void** ppv) noexcept override {
        if (!ppv)
            return E_POINTER;
        *ppv = nullptr;
        return iid == __uuidof(IUnknown) ? hand(ppv) : E_NOINTERFACE;
    }

    /// AddRef and Release return the new count.
    ULONG STDMETHODCALLTYPE AddRef() noexcept override {
        return references_.fetch_add(1, std::memory_order_relaxed) + 1;
    }
    ULONG STDMETHODCALLTYPE Release() noexcept override {
        const ULONG left = references_.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (left == 0)
            delete this;
        return left;
    }

    /// The current count. It is of use only to a caller who knows that no other thread changes it.
    ULONG numRefs() const noexcept { return references_.load(std::memory_order_acquire); }

protected:
    IUnknownImpl() noexcept = default;
    /// A copy is an object of its own, with one reference.
    IUnknownImpl(const IUnknownImpl& /*other*/) noexcept : I() {}

    /// The first virtual function after those of `I`: `Release` deletes through it, in the module that made
    /// the object. One slot with Visual C++; with compilers of the Itanium C++ ABI (GCC, Clang) two, for the
    /// destructor itself and then for the one that also frees the memory.
    virtual ~IUnknownImpl() = default;

    /// Ends a successful `QueryInterface`: hands this object out with one more reference and returns `S_OK`.
    HRESULT hand(void** ppv) noexcept {
        *ppv = static_cast<I*>(this);
        AddRef();
        return S_OK;
    }

private:
    std::atomic<ULONG> references_{1};
};

// The one instance that the library exports.
#if VEXEL_SHARES_INSTANCES
extern template class VEXEL_API IUnknownImpl<::IStream>;
#endif

} // namespace Vexel
