#pragma once

#include <windows.h>

#include <system_error>

namespace Vexel::Detail {

/// The status of a failed file operation: an error of the system as HRESULT_FROM_WIN32, any other by the
/// condition it stands for.
HRESULT statusOf(const std::error_code& error) noexcept;

} // namespace Vexel::Detail
