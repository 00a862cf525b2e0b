#pragma once

#include <windows.h>

namespace Vexel::Detail {

using ProcessEndQuery = BOOLEAN(NTAPI*)();

/// The system's own query. By name: not every import library has it. Looked up while the module is loaded,
/// because making a local static object takes a lock of the runtime.
inline const ProcessEndQuery kProcessEndQuery = [] {
    const FARPROC address = GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlDllShutdownInProgress");
    return reinterpret_cast<ProcessEndQuery>(reinterpret_cast<void*>(address));
}();

/// Whether the process is past the point where the system has ended all threads but this one, wherever they
/// were: what they held, locks of the standard library and the runtime included, stays held. Code that runs
/// then, in destructors of static objects, must wait for nothing and nobody: it tries a lock and never takes
/// it, and makes no local static object.
inline bool queryProcessEnd() noexcept { return kProcessEndQuery && kProcessEndQuery(); }

} // namespace Vexel::Detail
