#pragma once

/* Structured files for programs that have no use for the handles of storage.h, written in C or any language
 * that can call a DLL: the two functions are exported under their plain names. They give the whole file as an
 * `IStorage`, for reading and transacted. `*result` carries one reference, which the caller releases; it is
 * null on failure. Both may be called on any thread; the interface belongs to one thread at a time.
 *
 *  - E_FAIL: it is no structured file, or (by path) no file that can be opened.
 *  - STG_E_INVALIDHEADER, STG_E_DOCFILECORRUPT: the file is damaged. This includes a compound file with a
 *    stream of which a part is missing, which handles do open for reading.
 *  - STG_E_INSUFFICIENTMEMORY, and the statuses of opening and reading the file. */

#include <vexel/export.h>

#include <windows.h>

#include <objidl.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Opens the file at `path`.
 *  - STG_E_INVALIDPOINTER: `result` is null. */
VEXEL_API HRESULT OpenVexelPackage(IStorage** result, const wchar_t* path);

/* Opens the file that `stream` holds from its beginning on. The result keeps a reference on the stream and
 * moves its position.
 *  - E_NOINTERFACE: it is a compound file, for which the stream has to offer ILockBytes, too.
 *  - E_INVALIDARG: an argument is null. */
VEXEL_API HRESULT OpenVexelPackageStream(IStorage** result, IStream* stream);

#ifdef __cplusplus
}
#endif
