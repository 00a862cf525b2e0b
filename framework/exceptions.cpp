#include <vexel/framework.h>

#include <windows.h>

#include <cstddef>
#include <iterator>
#include <new>
#include <utility>

namespace {

BOOL putMessage(const wchar_t* text, wchar_t* buffer, UINT size, UINT* helpContext) {
    if (helpContext)
        *helpContext = 0;
    if (!buffer || size == 0)
        return FALSE;
    UINT length = 0;
    for (; length + 1 < size && text[length]; ++length)
        buffer[length] = text[length];
    buffer[length] = 0;
    return TRUE;
}

template <std::size_t N>
BOOL putMessage(const wchar_t* const (&texts)[N], int cause, const CString& fileName, wchar_t* buffer,
                UINT size, UINT* helpContext) {
    constexpr std::size_t kUnknown = 1;
    const auto index = static_cast<std::size_t>(cause);
    CString text = texts[index < N ? index : kUnknown];
    if (!fileName.IsEmpty())
        text = fileName + L": " + text;
    return putMessage(text, buffer, size, helpContext);
}

constexpr const wchar_t* kFileTexts[] = {
    L"no error",
    L"unknown error",
    L"file not found",
    L"invalid path",
    L"too many open files",
    L"access denied",
    L"invalid file handle",
    L"the current directory cannot be removed",
    L"the directory is full",
    L"cannot move to this position",
    L"hardware error",
    L"the file is in use",
    L"part of the file is locked",
    L"the disk is full",
    L"unexpected end of file",
};
static_assert(std::size(kFileTexts) == CFileException::endOfFile + 1);

constexpr const wchar_t* kArchiveTexts[] = {
    L"no error",
    L"unknown error",
    L"cannot store into an archive opened for loading",
    L"unexpected end of the archive",
    L"cannot load from an archive opened for storing",
    L"invalid archive format",
    L"object of an unexpected class",
    L"unsupported version",
    L"the archive's buffer is full",
};
static_assert(std::size(kArchiveTexts) == CArchiveException::bufferFull + 1);

constexpr std::pair<LONG, int> kCauses[] = {
    {NO_ERROR, CFileException::none},
    {ERROR_FILE_NOT_FOUND, CFileException::fileNotFound},
    {ERROR_NO_MORE_FILES, CFileException::fileNotFound},
    {ERROR_PATH_NOT_FOUND, CFileException::badPath},
    {ERROR_INVALID_DRIVE, CFileException::badPath},
    {ERROR_NOT_SAME_DEVICE, CFileException::badPath},
    {ERROR_BAD_NETPATH, CFileException::badPath},
    {ERROR_BAD_NET_NAME, CFileException::badPath},
    {ERROR_INVALID_NAME, CFileException::badPath},
    {ERROR_BAD_PATHNAME, CFileException::badPath},
    {ERROR_FILENAME_EXCED_RANGE, CFileException::badPath},
    {ERROR_DIRECTORY, CFileException::badPath},
    {ERROR_TOO_MANY_OPEN_FILES, CFileException::tooManyOpenFiles},
    {ERROR_NO_MORE_SEARCH_HANDLES, CFileException::tooManyOpenFiles},
    {ERROR_ACCESS_DENIED, CFileException::accessDenied},
    {ERROR_INVALID_ACCESS, CFileException::accessDenied},
    {ERROR_WRITE_PROTECT, CFileException::accessDenied},
    {ERROR_NETWORK_ACCESS_DENIED, CFileException::accessDenied},
    {ERROR_FILE_EXISTS, CFileException::accessDenied},
    {ERROR_CANNOT_MAKE, CFileException::accessDenied},
    {ERROR_ALREADY_EXISTS, CFileException::accessDenied},
    {ERROR_INVALID_HANDLE, CFileException::invalidFile},
    {ERROR_INVALID_TARGET_HANDLE, CFileException::invalidFile},
    {ERROR_DIRECT_ACCESS_HANDLE, CFileException::invalidFile},
    {ERROR_BAD_FORMAT, CFileException::invalidFile},
    {ERROR_CURRENT_DIRECTORY, CFileException::removeCurrentDir},
    {ERROR_DIR_NOT_EMPTY, CFileException::removeCurrentDir},
    {ERROR_SEEK, CFileException::badSeek},
    {ERROR_NEGATIVE_SEEK, CFileException::badSeek},
    {ERROR_SEEK_ON_DEVICE, CFileException::badSeek},
    {ERROR_BAD_UNIT, CFileException::hardIO},
    {ERROR_NOT_READY, CFileException::hardIO},
    {ERROR_BAD_COMMAND, CFileException::hardIO},
    {ERROR_CRC, CFileException::hardIO},
    {ERROR_BAD_LENGTH, CFileException::hardIO},
    {ERROR_NOT_DOS_DISK, CFileException::hardIO},
    {ERROR_SECTOR_NOT_FOUND, CFileException::hardIO},
    {ERROR_WRITE_FAULT, CFileException::hardIO},
    {ERROR_READ_FAULT, CFileException::hardIO},
    {ERROR_GEN_FAILURE, CFileException::hardIO},
    {ERROR_WRONG_DISK, CFileException::hardIO},
    {ERROR_IO_DEVICE, CFileException::hardIO},
    {ERROR_SHARING_VIOLATION, CFileException::sharingViolation},
    {ERROR_SHARING_BUFFER_EXCEEDED, CFileException::sharingViolation},
    {ERROR_LOCK_VIOLATION, CFileException::lockViolation},
    {ERROR_LOCKED, CFileException::lockViolation},
    {ERROR_DRIVE_LOCKED, CFileException::lockViolation},
    {ERROR_LOCK_FAILED, CFileException::lockViolation},
    {ERROR_DISK_FULL, CFileException::diskFull},
    {ERROR_HANDLE_DISK_FULL, CFileException::diskFull},
    {ERROR_HANDLE_EOF, CFileException::endOfFile},
};

template <class Exception, class... Arguments>
[[noreturn]] void throwNew(Arguments... arguments) {
    auto* exception = new (std::nothrow) Exception(arguments...);
    if (!exception)
        AfxThrowMemoryException();
    throw exception;
}

} // namespace

CException::~CException() = default;
CMemoryException::~CMemoryException() = default;
CInvalidArgException::~CInvalidArgException() = default;
CFileException::~CFileException() = default;
CArchiveException::~CArchiveException() = default;

void CException::Delete() {
    if (autoDelete_)
        delete this;
}

BOOL CException::GetErrorMessage(wchar_t* buffer, UINT size, UINT* helpContext) const {
    putMessage(L"", buffer, size, helpContext);
    return FALSE;
}

BOOL CMemoryException::GetErrorMessage(wchar_t* buffer, UINT size, UINT* helpContext) const {
    return putMessage(L"out of memory", buffer, size, helpContext);
}

BOOL CInvalidArgException::GetErrorMessage(wchar_t* buffer, UINT size, UINT* helpContext) const {
    return putMessage(L"invalid argument", buffer, size, helpContext);
}

CFileException::CFileException(int cause, LONG osError, const wchar_t* fileName)
    : m_cause(cause), m_lOsError(osError), m_strFileName(fileName) {}

BOOL CFileException::GetErrorMessage(wchar_t* buffer, UINT size, UINT* helpContext) const {
    return putMessage(kFileTexts, m_cause, m_strFileName, buffer, size, helpContext);
}

void CFileException::ThrowOsError(LONG osError, const wchar_t* fileName) {
    if (osError != NO_ERROR)
        AfxThrowFileException(OsErrorToException(osError), osError, fileName);
    // Whoever calls has met a failure, even if the system gave no code for it.
    AfxThrowFileException(genericException, osError, fileName);
}

int CFileException::OsErrorToException(LONG osError) noexcept {
    for (const auto& [error, cause] : kCauses) {
        if (error == osError)
            return cause;
    }
    return genericException;
}

CArchiveException::CArchiveException(int cause, const wchar_t* fileName)
    : m_cause(cause), m_strFileName(fileName) {}

BOOL CArchiveException::GetErrorMessage(wchar_t* buffer, UINT size, UINT* helpContext) const {
    return putMessage(kArchiveTexts, m_cause, m_strFileName, buffer, size, helpContext);
}

void AfxThrowMemoryException() {
    static CMemoryException exception(false);
    throw &exception;
}

void AfxThrowInvalidArgException() {
    static CInvalidArgException exception(false);
    throw &exception;
}

void AfxThrowFileException(int cause, LONG osError, const wchar_t* fileName) {
    throwNew<CFileException>(cause, osError, fileName);
}

void AfxThrowArchiveException(int cause, const wchar_t* fileName) {
    throwNew<CArchiveException>(cause, fileName);
}
