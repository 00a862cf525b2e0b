#pragma once

#include <vexel/framework.h>

#include <array>

namespace Vexel::Detail {

/// What the names of this process's temporary files are made of. Fixed once it has been computed.
struct TempNaming {
    std::array<wchar_t, 512> directory{}; ///< put before a file name as it stands, no separator in between
    std::array<wchar_t, 64> processTag{}; ///< tells the names of different processes apart
};

/// Asks the system; what it does not tell is logged and done without.
TempNaming computeTempNaming() noexcept;

/// The process's naming data, computed by the first caller while others wait.
const TempNaming& getTempNaming() noexcept;

/// The next unique file name, without directory.
CString makeTempFileName(const wchar_t* prefix, const wchar_t* extension);

} // namespace Vexel::Detail
