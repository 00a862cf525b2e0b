#pragma once

#include <wrl/client.h>

#include <utility>

namespace Vexel::Detail {

/// A pointer that takes the caller's reference over. Not `ComPtr::Attach`: with mingw-w64 that takes another
/// one.
template <class Interface>
Microsoft::WRL::ComPtr<Interface> adopt(Interface* object) noexcept {
    Microsoft::WRL::ComPtr<Interface> pointer;
    *pointer.GetAddressOf() = object;
    return pointer;
}

/// A new object. Throws std::bad_alloc, and what its constructor does.
template <class Object, class... Arguments>
Microsoft::WRL::ComPtr<Object> make(Arguments&&... arguments) {
    return adopt(new Object(std::forward<Arguments>(arguments)...));
}

} // namespace Vexel::Detail
