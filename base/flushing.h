#pragma once

#include "base/platform.h"

namespace Vexel::Detail {

/// Has what was written to a file reach the disk. True also on a volume that knows no such thing: there is
/// nothing to wait for, and taken for a failure it would keep everything from being saved there.
inline bool flushed(HANDLE file) noexcept {
    if (platform().flushFile(file))
        return true;
    const DWORD error = GetLastError();
    return error == ERROR_INVALID_FUNCTION || error == ERROR_NOT_SUPPORTED;
}

} // namespace Vexel::Detail
