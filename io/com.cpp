#include <vexel/com.h>

namespace Vexel {

// Member by member: of an instance as a whole some compilers export only the tables, even of functions that
// are not inline.
template VEXEL_API HRESULT STDMETHODCALLTYPE IUnknownImpl<::IStream>::QueryInterface(const GUID&,
                                                                                     void**) noexcept;
template VEXEL_API ULONG STDMETHODCALLTYPE IUnknownImpl<::IStream>::AddRef() noexcept;
template VEXEL_API ULONG STDMETHODCALLTYPE IUnknownImpl<::IStream>::Release() noexcept;
template VEXEL_API ULONG IUnknownImpl<::IStream>::numRefs() const noexcept;
template class IUnknownImpl<::IStream>;

} // namespace Vexel
