// The one instance of the COM base that clients take out of the DLL. Compilers that export all members of an
// instance need the last line only; the others have to be told of each member.

#include <vexel/com.h>

namespace Vexel {

#if VEXEL_EXPORTS_BY_MEMBER
template VEXEL_API HRESULT STDMETHODCALLTYPE IUnknownImpl<::IStream>::QueryInterface(const GUID&,
                                                                                     void**) noexcept;
template VEXEL_API ULONG STDMETHODCALLTYPE IUnknownImpl<::IStream>::AddRef() noexcept;
template VEXEL_API ULONG STDMETHODCALLTYPE IUnknownImpl<::IStream>::Release() noexcept;
template VEXEL_API ULONG IUnknownImpl<::IStream>::numRefs() const noexcept;
#endif
template class VEXEL_API IUnknownImpl<::IStream>;

} // namespace Vexel
