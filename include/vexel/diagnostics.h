#pragma once

/// The diagnostics library: the log that the library and the application share, and the translation of
/// status codes into the application's error codes.
///
/// None of these functions throws, and none changes what `GetLastError` says: a failure can be logged before
/// it is looked at. All may be called from any thread at any time, also while the process ends.

#include <vexel/export.h>

#include <windows.h>

#include <cstdarg>

/// The levels of messages. They are plain numbers in the calls; other values in between are allowed.
enum VxLogLevel : int {
    VxLog_Trace = 1,
    VxLog_Notice = 2,
    VxLog_Warning = 4,
    VxLog_Minor = 6, ///< a minor or expected failure
    VxLog_Error = 7,
};

/// Receives every message: its level, its text without a line end, and the context given to `VxLog_SetSink`.
/// The text is valid during the call only. Called on the thread that logs, possibly on several at once. It
/// may log itself; it must not set the sink, and what it throws is dropped.
///
/// Not called any more once the process ends: when the system has ended all other threads and the DLLs are
/// let go of, a lock of the sink's own may be held for good. Messages go to the default sink then.
using VxLogSink = void (*)(int level, const wchar_t* message, void* context);

/// The application's error codes, as `VxHResultToVexelError` gives them.
enum VxErrorCode : int {
    VxError_None = 0,      ///< every success status
    VxError_General = 500, ///< any failure without a code of its own
    VxError_OutOfMemory = 501,
    VxError_InvalidArgument = 502, ///< also null pointers and handles of the wrong kind
    VxError_InvalidName = 503,  ///< a name the file system or the storage cannot hold, too long ones included
    VxError_AccessDenied = 504, ///< also write-protected media and changes to what was opened for reading
    VxError_InUse = 505,        ///< sharing violations, locks, elements that are open elsewhere
    VxError_AlreadyExists = 506,
    VxError_DiskFull = 507,
    VxError_ReadFault = 508, ///< also failing seeks and unexpected ends
    VxError_WriteFault = 509,
    VxError_Corrupt = 510, ///< damaged, or not of the expected format
    VxError_TooManyOpenFiles = 511,
    VxError_NotSupported = 512,
    VxError_Cancelled = 513,
    VxError_NotFound = 514, ///< no such file, directory, drive, share, storage or stream
};

extern "C" {

/// Logs a message given as a printf-style format and its arguments; format and narrow arguments are UTF-8. A
/// message of any length is kept whole as long as there is memory for it, else it is cut. Wide arguments
/// (`%ls`) are safe in plain ASCII only; text such as paths belongs into the wide functions.
VEXEL_DIAGNOSTICS_API void VxLog_Write(int level, const char* format, ...) noexcept VEXEL_PRINTF_FORMAT(2, 3);

/// `VxLog_Write` with the arguments as a list. The list is used up.
VEXEL_DIAGNOSTICS_API void VxLog_WriteV(int level, const char* format, va_list arguments) noexcept
    VEXEL_PRINTF_FORMAT(2, 0);

/// Logs a message given as a wide format. The format follows the platform's rule: `%s` and `%ls` are both
/// wide, `%hs` is narrow, `%llu` and `%lld` are 64 bits, `%p` is 16 hexadecimal digits. The list is used up.
VEXEL_DIAGNOSTICS_API void VxLog_WriteWV(int level, const wchar_t* format, va_list arguments) noexcept;

/// Sends all messages from now on to `sink`; null brings back the default sink, which writes messages from
/// `VxLog_Warning` up to the standard error stream, one line of UTF-8 each.
///
/// Waits until the calls that run in the old sink are over, so that its context may be freed when this
/// returns. At the end of the process it does not wait, for no call can be running then. Returns the old
/// sink (null stands for the default one), and stores its context in `*oldContext` if that is given.
VEXEL_DIAGNOSTICS_API VxLogSink VxLog_SetSink(VxLogSink sink, void* context,
                                              void** oldContext = nullptr) noexcept;

/// The application's error code (one of `VxErrorCode`) for a status. Platform errors are understood in both
/// of their forms: as `HRESULT_FROM_WIN32` makes them and in the storage facility (0x80030000 | code).
VEXEL_DIAGNOSTICS_API int VxHResultToVexelError(HRESULT status) noexcept;
}

/// `VxLog_WriteWV` with the arguments behind the format.
inline void VxLog_WriteW(int level, const wchar_t* format, ...) noexcept {
    va_list arguments = {};
    va_start(arguments, format);
    VxLog_WriteWV(level, format, arguments);
    va_end(arguments);
}
