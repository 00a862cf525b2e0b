#pragma once

/// COM as far as the sources under test use it.

#include <windows.h>

typedef GUID IID;
typedef GUID FMTID;
#define REFFMTID const FMTID&

extern "C" void* CoTaskMemAlloc(SIZE_T size);
extern "C" void CoTaskMemFree(void* memory);

namespace Vexel::Fuzz {
/// The identifier of an interface.
template <class Interface>
struct IdOf;
} // namespace Vexel::Fuzz
#define __uuidof(Interface) (::Vexel::Fuzz::IdOf<Interface>::value)
#define VEXEL_FUZZ_INTERFACE(Interface, number)                                                              \
    namespace Vexel::Fuzz {                                                                                  \
    template <>                                                                                              \
    struct IdOf<::Interface> {                                                                               \
        static constexpr GUID value{number, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};                           \
    };                                                                                                       \
    }
#define IID_PPV_ARGS(pointer) __uuidof(**(pointer)), reinterpret_cast<void**>(pointer)

struct IUnknown {
    virtual HRESULT QueryInterface(REFIID iid, void** object) = 0;
    virtual ULONG AddRef() = 0;
    virtual ULONG Release() = 0;
};
extern "C" const GUID IID_IUnknown;
inline constexpr CLSID CLSID_NULL{};
VEXEL_FUZZ_INTERFACE(IUnknown, 0)
