#pragma once

/* Structured files for programs that have no use for the handles of storage.h, written in C or any language
 * that can call a DLL: the two functions are exported under their plain names. They give the whole file as an
 * `IStorage`, for reading and transacted. `*result` carries one reference, which the caller releases; it is
 * null on failure. Both may be called on any thread; the interface belongs to one thread at a time.
 *
 *  - E_FAIL: no structured file, or (by path) no file that can be opened.
 *  - STG_E_INVALIDHEADER, STG_E_DOCFILECORRUPT: a damaged one. A compound file with a stream of which a part
 * is missing, too: handles open that for reading.
 *  - STG_E_INSUFFICIENTMEMORY, and the statuses of opening and reading it. */

#include <vexel/export.h>

#include <windows.h>

#include <objidl.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The file at `path`. STG_E_INVALIDPOINTER: no `result`. */
VEXEL_API HRESULT OpenVexelPackage(IStorage** result, const wchar_t* path);

/* What `stream` holds from its beginning on. The result keeps a reference on it and moves its position. For a
 * compound file the stream has to offer ILockBytes, too (else E_NOINTERFACE).
 *  - E_INVALIDARG: a null argument. */
VEXEL_API HRESULT OpenVexelPackageStream(IStorage** result, IStream* stream);

#ifdef __cplusplus
}
#endif
