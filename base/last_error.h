#pragma once

#include <windows.h>

namespace Vexel::Detail {

/// The system's code for a call that has just failed, and never 0: where the system names no error, file
/// systems of third parties do so, the failure would pass for a success.
inline DWORD lastError() noexcept {
    const DWORD error = GetLastError();
    return error != ERROR_SUCCESS ? error : ERROR_GEN_FAILURE;
}

} // namespace Vexel::Detail
