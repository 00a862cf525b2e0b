#pragma once

#include <wrl/client.h>

namespace Vexel::Detail {

/// A pointer that takes the caller's reference over. Not `ComPtr::Attach`: with mingw-w64 that takes another
/// one.
template <class Interface>
Microsoft::WRL::ComPtr<Interface> adopt(Interface* object) noexcept {
    Microsoft::WRL::ComPtr<Interface> pointer;
    *pointer.GetAddressOf() = object;
    return pointer;
}

} // namespace Vexel::Detail
