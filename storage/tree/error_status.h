#pragma once

#include "base/status.h"

#include <windows.h>

#include <objidl.h>
#include <wrl/client.h>

#include <system_error>

namespace Vexel::Detail {

/// The status of a failed file operation: an error of the system as HRESULT_FROM_WIN32, any other by the
/// condition it stands for.
HRESULT statusOf(const std::error_code& error) noexcept;

/// Whether a call failed for want of memory or file handles, so that it deserves a second attempt after a
/// clean-up.
bool isExhausted(HRESULT status) noexcept;

/// Sets `into` by `call(address)`. A failure, and a success that brings nothing, leave it as it is.
template <class Interface, class Call>
HRESULT fetch(Microsoft::WRL::ComPtr<Interface>& into, Call call) {
    Microsoft::WRL::ComPtr<Interface> made;
    const HRESULT status = outcomeOf(call(made.GetAddressOf()));
    if (FAILED(status))
        return status;
    if (!made)
        return STG_E_READFAULT;
    into = made;
    return S_OK;
}

} // namespace Vexel::Detail
