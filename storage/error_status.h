#pragma once

#include <windows.h>

#include <system_error>

namespace Vexel::Detail {

/// The status of a failed file operation: an error of the system as HRESULT_FROM_WIN32, any other by the
/// condition it stands for.
HRESULT statusOf(const std::error_code& error) noexcept;

/// Whether a call failed for want of memory or file handles, so that it deserves a second attempt after a
/// clean-up.
bool isExhausted(HRESULT status) noexcept;

} // namespace Vexel::Detail
