#include <vexel/diagnostics.h>

#include <windows.h>

#include <utility>

namespace {

constexpr std::pair<DWORD, int> kPlatformErrors[] = {
    {ERROR_FILE_NOT_FOUND, VxError_NotFound},
    {ERROR_PATH_NOT_FOUND, VxError_NotFound},
    {ERROR_INVALID_DRIVE, VxError_NotFound},
    {ERROR_BAD_NETPATH, VxError_NotFound},
    {ERROR_NETNAME_DELETED, VxError_NotFound},
    {ERROR_BAD_NET_NAME, VxError_NotFound},
    {ERROR_DIRECTORY, VxError_NotFound},
    {ERROR_NOT_ENOUGH_MEMORY, VxError_OutOfMemory},
    {ERROR_OUTOFMEMORY, VxError_OutOfMemory},
    {ERROR_COMMITMENT_LIMIT, VxError_OutOfMemory},
    {ERROR_NO_SYSTEM_RESOURCES, VxError_OutOfMemory},
    {ERROR_INVALID_HANDLE, VxError_InvalidArgument},
    {ERROR_INVALID_BLOCK, VxError_InvalidArgument}, // the storage facility's invalid pointer
    {ERROR_INVALID_PARAMETER, VxError_InvalidArgument},
    {ERROR_INVALID_NAME, VxError_InvalidName},
    {ERROR_BAD_PATHNAME, VxError_InvalidName},
    {ERROR_FILENAME_EXCED_RANGE, VxError_InvalidName},
    {ERROR_ACCESS_DENIED, VxError_AccessDenied},
    {ERROR_WRITE_PROTECT, VxError_AccessDenied},
    {ERROR_NETWORK_ACCESS_DENIED, VxError_AccessDenied},
    {ERROR_SHARING_VIOLATION, VxError_InUse},
    {ERROR_LOCK_VIOLATION, VxError_InUse},
    {ERROR_LOCKED, VxError_InUse},
    {ERROR_BUSY, VxError_InUse},
    {ERROR_FILE_EXISTS, VxError_AlreadyExists},
    {ERROR_ALREADY_EXISTS, VxError_AlreadyExists},
    {ERROR_DISK_FULL, VxError_DiskFull},
    {ERROR_HANDLE_DISK_FULL, VxError_DiskFull},
    {ERROR_CRC, VxError_ReadFault},
    {ERROR_SEEK, VxError_ReadFault},
    {ERROR_READ_FAULT, VxError_ReadFault},
    {ERROR_HANDLE_EOF, VxError_ReadFault},
    {ERROR_NEGATIVE_SEEK, VxError_ReadFault},
    {ERROR_WRITE_FAULT, VxError_WriteFault},
    {ERROR_BAD_FORMAT, VxError_Corrupt},
    {ERROR_INVALID_DATA, VxError_Corrupt},
    {ERROR_FILE_INVALID, VxError_Corrupt},
    {ERROR_FILE_CORRUPT, VxError_Corrupt},
    {ERROR_DISK_CORRUPT, VxError_Corrupt},
    {ERROR_TOO_MANY_OPEN_FILES, VxError_TooManyOpenFiles},
    {ERROR_INVALID_FUNCTION, VxError_NotSupported},
    {ERROR_NOT_SUPPORTED, VxError_NotSupported},
    {ERROR_CALL_NOT_IMPLEMENTED, VxError_NotSupported},
    {ERROR_OPERATION_ABORTED, VxError_Cancelled},
    {ERROR_CANCELLED, VxError_Cancelled},
};

int fromPlatformError(DWORD error) noexcept {
    for (const auto& [known, code] : kPlatformErrors) {
        if (known == error)
            return code;
    }
    return VxError_General;
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
