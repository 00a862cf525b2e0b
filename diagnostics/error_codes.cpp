#include <vexel/diagnostics.h>

#include <windows.h>

namespace {

int fromPlatformError(DWORD error) noexcept {
    switch (error) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_INVALID_DRIVE:
    case ERROR_BAD_NETPATH:
    case ERROR_NETNAME_DELETED:
    case ERROR_BAD_NET_NAME:
    case ERROR_DIRECTORY:
        return VxError_NotFound;
    case ERROR_NOT_ENOUGH_MEMORY:
    case ERROR_OUTOFMEMORY:
    case ERROR_COMMITMENT_LIMIT:
    case ERROR_NO_SYSTEM_RESOURCES:
        return VxError_OutOfMemory;
    case ERROR_INVALID_HANDLE:
    case ERROR_INVALID_BLOCK: // the storage facility's invalid pointer
    case ERROR_INVALID_PARAMETER:
        return VxError_InvalidArgument;
    case ERROR_INVALID_NAME:
    case ERROR_BAD_PATHNAME:
    case ERROR_FILENAME_EXCED_RANGE:
        return VxError_InvalidName;
    case ERROR_ACCESS_DENIED:
    case ERROR_WRITE_PROTECT:
    case ERROR_NETWORK_ACCESS_DENIED:
        return VxError_AccessDenied;
    case ERROR_SHARING_VIOLATION:
    case ERROR_LOCK_VIOLATION:
    case ERROR_LOCKED:
    case ERROR_BUSY:
        return VxError_InUse;
    case ERROR_FILE_EXISTS:
    case ERROR_ALREADY_EXISTS:
        return VxError_AlreadyExists;
    case ERROR_DISK_FULL:
    case ERROR_HANDLE_DISK_FULL:
        return VxError_DiskFull;
    case ERROR_CRC:
    case ERROR_SEEK:
    case ERROR_READ_FAULT:
    case ERROR_HANDLE_EOF:
    case ERROR_NEGATIVE_SEEK:
        return VxError_ReadFault;
    case ERROR_WRITE_FAULT:
        return VxError_WriteFault;
    case ERROR_BAD_FORMAT:
    case ERROR_INVALID_DATA:
    case ERROR_FILE_INVALID:
    case ERROR_FILE_CORRUPT:
    case ERROR_DISK_CORRUPT:
        return VxError_Corrupt;
    case ERROR_TOO_MANY_OPEN_FILES:
        return VxError_TooManyOpenFiles;
    case ERROR_INVALID_FUNCTION:
    case ERROR_NOT_SUPPORTED:
    case ERROR_CALL_NOT_IMPLEMENTED:
        return VxError_NotSupported;
    case ERROR_OPERATION_ABORTED:
    case ERROR_CANCELLED:
        return VxError_Cancelled;
    default:
        return VxError_General;
    }
}

/// The storage facility's own statuses; its others are platform errors in another dress.
int fromStorageStatus(HRESULT status) noexcept {
    switch (status) {
    case STG_E_INVALIDFLAG:
        return VxError_InvalidArgument;
    case STG_E_INVALIDNAME:
        return VxError_InvalidName;
    case STG_E_INUSE:
    case STG_E_NOTCURRENT:
    case STG_E_SHAREREQUIRED:
    case STG_E_EXTANTMARSHALLINGS:
        return VxError_InUse;
    case STG_E_CANTSAVE:
        return VxError_WriteFault;
    case STG_E_INVALIDHEADER:
    case STG_E_UNKNOWN:
    case STG_E_DOCFILECORRUPT:
    case STG_E_OLDFORMAT:
    case STG_E_INCOMPLETE:
        return VxError_Corrupt;
    case STG_E_UNIMPLEMENTEDFUNCTION:
        return VxError_NotSupported;
    default:
        return fromPlatformError(static_cast<DWORD>(HRESULT_CODE(status)));
    }
}

int fromGeneralStatus(HRESULT status) noexcept {
    switch (status) {
    case E_POINTER:
        return VxError_InvalidArgument;
    case E_NOTIMPL:
    case E_NOINTERFACE:
        return VxError_NotSupported;
    case E_ABORT:
        return VxError_Cancelled;
    default:
        return VxError_General;
    }
}

} // namespace

int VxHResultToVexelError(HRESULT status) noexcept {
    if (SUCCEEDED(status))
        return VxError_None;
    switch (HRESULT_FACILITY(status)) {
    case FACILITY_WIN32:
        return fromPlatformError(static_cast<DWORD>(HRESULT_CODE(status)));
    case FACILITY_STORAGE:
        return fromStorageStatus(status);
    case FACILITY_NULL:
        return fromGeneralStatus(status);
    default:
        return VxError_General;
    }
}
