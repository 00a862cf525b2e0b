#include <vexel/framework.h>

#include <windows.h>

#include <cstddef>
#include <iterator>
#include <new>

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
    constexpr std::size_t unspecified = 1;
    const auto index = static_cast<std::size_t>(cause);
    CString text = texts[index < N ? index : unspecified];
    if (!fileName.IsEmpty())
        text = fileName + L": " + text;
    return putMessage(text, buffer, size, helpContext);
}

constexpr const wchar_t* fileTexts[] = {
    L"no error",
    L"unspecified error",
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
static_assert(std::size(fileTexts) == CFileException::endOfFile + 1);

constexpr const wchar_t* archiveTexts[] = {
    L"no error",
    L"unspecified error",
    L"cannot store into an archive opened for loading",
    L"unexpected end of the archive",
    L"cannot load from an archive opened for storing",
    L"invalid archive format",
    L"object of an unexpected class",
    L"unsupported version",
    L"the archive's buffer is full",
};
static_assert(std::size(archiveTexts) == CArchiveException::bufferFull + 1);

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
    return putMessage(fileTexts, m_cause, m_strFileName, buffer, size, helpContext);
}

void CFileException::ThrowOsError(LONG osError, const wchar_t* fileName) {
    if (osError != NO_ERROR)
        AfxThrowFileException(OsErrorToException(osError), osError, fileName);
    // Whoever calls has met a failure, even if the system gave no code for it.
    AfxThrowFileException(genericException, osError, fileName);
}

int CFileException::OsErrorToException(LONG osError) noexcept {
    switch (osError) {
    case NO_ERROR:
        return none;
    case ERROR_FILE_NOT_FOUND:
    case ERROR_NO_MORE_FILES:
        return fileNotFound;
    case ERROR_PATH_NOT_FOUND:
    case ERROR_INVALID_DRIVE:
    case ERROR_NOT_SAME_DEVICE:
    case ERROR_BAD_NETPATH:
    case ERROR_BAD_NET_NAME:
    case ERROR_INVALID_NAME:
    case ERROR_BAD_PATHNAME:
    case ERROR_FILENAME_EXCED_RANGE:
    case ERROR_DIRECTORY:
        return badPath;
    case ERROR_TOO_MANY_OPEN_FILES:
    case ERROR_NO_MORE_SEARCH_HANDLES:
        return tooManyOpenFiles;
    case ERROR_ACCESS_DENIED:
    case ERROR_INVALID_ACCESS:
    case ERROR_WRITE_PROTECT:
    case ERROR_NETWORK_ACCESS_DENIED:
    case ERROR_FILE_EXISTS:
    case ERROR_CANNOT_MAKE:
    case ERROR_ALREADY_EXISTS:
        return accessDenied;
    case ERROR_INVALID_HANDLE:
    case ERROR_INVALID_TARGET_HANDLE:
    case ERROR_DIRECT_ACCESS_HANDLE:
    case ERROR_BAD_FORMAT:
        return invalidFile;
    case ERROR_CURRENT_DIRECTORY:
    case ERROR_DIR_NOT_EMPTY:
        return removeCurrentDir;
    case ERROR_SEEK:
    case ERROR_NEGATIVE_SEEK:
    case ERROR_SEEK_ON_DEVICE:
        return badSeek;
    case ERROR_BAD_UNIT:
    case ERROR_NOT_READY:
    case ERROR_BAD_COMMAND:
    case ERROR_CRC:
    case ERROR_BAD_LENGTH:
    case ERROR_NOT_DOS_DISK:
    case ERROR_SECTOR_NOT_FOUND:
    case ERROR_WRITE_FAULT:
    case ERROR_READ_FAULT:
    case ERROR_GEN_FAILURE:
    case ERROR_WRONG_DISK:
    case ERROR_IO_DEVICE:
        return hardIO;
    case ERROR_SHARING_VIOLATION:
    case ERROR_SHARING_BUFFER_EXCEEDED:
        return sharingViolation;
    case ERROR_LOCK_VIOLATION:
    case ERROR_LOCKED:
    case ERROR_DRIVE_LOCKED:
    case ERROR_LOCK_FAILED:
        return lockViolation;
    case ERROR_DISK_FULL:
    case ERROR_HANDLE_DISK_FULL:
        return diskFull;
    case ERROR_HANDLE_EOF:
        return endOfFile;
    default:
        return genericException;
    }
}

CArchiveException::CArchiveException(int cause, const wchar_t* fileName)
    : m_cause(cause), m_strFileName(fileName) {}

BOOL CArchiveException::GetErrorMessage(wchar_t* buffer, UINT size, UINT* helpContext) const {
    return putMessage(archiveTexts, m_cause, m_strFileName, buffer, size, helpContext);
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
