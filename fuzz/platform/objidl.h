#pragma once

/// The interfaces of storages and streams.

#include <objbase.h>

typedef struct tagSTATSTG {
    LPOLESTR pwcsName;
    DWORD type;
    ULARGE_INTEGER cbSize;
    FILETIME mtime, ctime, atime;
    DWORD grfMode;
    DWORD grfLocksSupported;
    CLSID clsid;
    DWORD grfStateBits;
    DWORD reserved;
} STATSTG;

enum STREAM_SEEK { STREAM_SEEK_SET, STREAM_SEEK_CUR, STREAM_SEEK_END };
enum STATFLAG { STATFLAG_DEFAULT, STATFLAG_NONAME };
enum STGTY { STGTY_STORAGE = 1, STGTY_STREAM = 2 };
enum STGMOVE { STGMOVE_MOVE, STGMOVE_COPY, STGMOVE_SHALLOWCOPY };
struct STGOPTIONS;

struct ISequentialStream : IUnknown {
    virtual HRESULT Read(void* data, ULONG size, ULONG* done) = 0;
    virtual HRESULT Write(const void* data, ULONG size, ULONG* done) = 0;
};

struct IStream : ISequentialStream {
    virtual HRESULT Seek(LARGE_INTEGER distance, DWORD origin, ULARGE_INTEGER* reached) = 0;
    virtual HRESULT SetSize(ULARGE_INTEGER size) = 0;
    virtual HRESULT CopyTo(IStream* target, ULARGE_INTEGER size, ULARGE_INTEGER* read,
                           ULARGE_INTEGER* written) = 0;
    virtual HRESULT Commit(DWORD flags) = 0;
    virtual HRESULT Revert() = 0;
    virtual HRESULT LockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER size, DWORD type) = 0;
    virtual HRESULT UnlockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER size, DWORD type) = 0;
    virtual HRESULT Stat(STATSTG* stat, DWORD flags) = 0;
    virtual HRESULT Clone(IStream** clone) = 0;
};

struct IEnumSTATSTG : IUnknown {
    virtual HRESULT Next(ULONG count, STATSTG* elements, ULONG* done) = 0;
    virtual HRESULT Skip(ULONG count) = 0;
    virtual HRESULT Reset() = 0;
    virtual HRESULT Clone(IEnumSTATSTG** clone) = 0;
};

struct IStorage : IUnknown {
    virtual HRESULT CreateStream(const OLECHAR* name, DWORD mode, DWORD, DWORD, IStream** stream) = 0;
    virtual HRESULT OpenStream(const OLECHAR* name, void*, DWORD mode, DWORD, IStream** stream) = 0;
    virtual HRESULT CreateStorage(const OLECHAR* name, DWORD mode, DWORD, DWORD, IStorage** storage) = 0;
    virtual HRESULT OpenStorage(const OLECHAR* name, IStorage*, DWORD mode, SNB, DWORD,
                                IStorage** storage) = 0;
    virtual HRESULT CopyTo(DWORD count, const IID* excluded, SNB names, IStorage* target) = 0;
    virtual HRESULT MoveElementTo(const OLECHAR* name, IStorage* target, const OLECHAR* newName,
                                  DWORD flags) = 0;
    virtual HRESULT Commit(DWORD flags) = 0;
    virtual HRESULT Revert() = 0;
    virtual HRESULT EnumElements(DWORD, void*, DWORD, IEnumSTATSTG** enumerator) = 0;
    virtual HRESULT DestroyElement(const OLECHAR* name) = 0;
    virtual HRESULT RenameElement(const OLECHAR* name, const OLECHAR* newName) = 0;
    virtual HRESULT SetElementTimes(const OLECHAR* name, const FILETIME*, const FILETIME*,
                                    const FILETIME*) = 0;
    virtual HRESULT SetClass(REFCLSID classId) = 0;
    virtual HRESULT SetStateBits(DWORD bits, DWORD mask) = 0;
    virtual HRESULT Stat(STATSTG* stat, DWORD flags) = 0;
};

VEXEL_FUZZ_INTERFACE(ISequentialStream, 0x0C733A30)
VEXEL_FUZZ_INTERFACE(IStorage, 0x0B)
VEXEL_FUZZ_INTERFACE(IStream, 0x0C)
VEXEL_FUZZ_INTERFACE(IEnumSTATSTG, 0x0D)
