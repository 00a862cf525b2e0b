#pragma once

#include <windows.h>

#include <string>

namespace Vexel::Tool {

/// How many bytes of a package are packed contents: what stands between its first 32 bytes and its header.
/// `label` names the file. Throws Failure.
unsigned long long packedSizeOf(HANDLE file, const std::wstring& label);

} // namespace Vexel::Tool
