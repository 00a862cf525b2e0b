#include <vexel/framework.h>

#include <windows.h>

namespace {

DWORD accessOf(UINT openFlags) {
    switch (openFlags & (CFile::modeWrite | CFile::modeReadWrite)) {
    case CFile::modeRead:
        return GENERIC_READ;
    case CFile::modeWrite:
        return GENERIC_WRITE;
    default:
        return GENERIC_READ | GENERIC_WRITE;
    }
}

DWORD sharingOf(UINT openFlags) {
    switch (openFlags & (CFile::shareDenyRead | CFile::shareDenyNone)) {
    case CFile::shareDenyWrite:
        return FILE_SHARE_READ;
    case CFile::shareDenyRead:
        return FILE_SHARE_WRITE;
    case CFile::shareDenyNone:
        return FILE_SHARE_READ | FILE_SHARE_WRITE;
    default:
        return 0;
    }
}

DWORD dispositionOf(UINT openFlags) {
    if (!(openFlags & CFile::modeCreate))
        return OPEN_EXISTING;
    return openFlags & CFile::modeNoTruncate ? OPEN_ALWAYS : CREATE_ALWAYS;
}

/// The path with its drive and directory; as given where the system cannot tell.
CString fullPath(const wchar_t* fileName) {
    const DWORD size = GetFullPathNameW(fileName, 0, nullptr, nullptr);
    CString path;
    if (size == 0)
        return fileName;
    const DWORD length = GetFullPathNameW(fileName, size, path.GetBuffer(static_cast<int>(size)), nullptr);
    path.ReleaseBufferSetLength(length < size ? static_cast<int>(length) : 0);
    return path.IsEmpty() ? CString(fileName) : path;
}

[[noreturn]] void throwLastError(const CString& fileName) {
    const auto error = static_cast<LONG>(GetLastError());
    CFileException::ThrowOsError(error, fileName);
}

LARGE_INTEGER largeInteger(LONGLONG value) {
    LARGE_INTEGER result;
    result.QuadPart = value;
    return result;
}

} // namespace

CFile::CFile(const wchar_t* fileName, UINT openFlags) {
    CFileException error;
    // Not the overriding function: the derived object does not exist yet.
    if (!CFile::Open(fileName, openFlags, &error))
        AfxThrowFileException(error.m_cause, error.m_lOsError, error.m_strFileName);
}

CFile::~CFile() { CFile::Abort(); }

BOOL CFile::Open(const wchar_t* fileName, UINT openFlags, CFileException* error) {
    Close();
    const CString path = fullPath(fileName ? fileName : L"");
    SECURITY_ATTRIBUTES inheritance = {sizeof(inheritance), nullptr, !(openFlags & modeNoInherit)};
    m_hFile = CreateFileW(path, accessOf(openFlags), sharingOf(openFlags), &inheritance,
                          dispositionOf(openFlags), FILE_ATTRIBUTE_NORMAL, nullptr);
    if (m_hFile != INVALID_HANDLE_VALUE) {
        m_strFileName = path;
        return TRUE;
    }
    if (error) {
        error->m_lOsError = static_cast<LONG>(GetLastError());
        error->m_cause = CFileException::OsErrorToException(error->m_lOsError);
        error->m_strFileName = path;
    }
    return FALSE;
}

void CFile::Close() {
    const CString name = std::exchange(m_strFileName, CString());
    const HANDLE file = std::exchange(m_hFile, INVALID_HANDLE_VALUE);
    if (file != INVALID_HANDLE_VALUE && !CloseHandle(file))
        throwLastError(name);
}

void CFile::Abort() {
    m_strFileName.Empty();
    const HANDLE file = std::exchange(m_hFile, INVALID_HANDLE_VALUE);
    if (file != INVALID_HANDLE_VALUE)
        CloseHandle(file);
}

UINT CFile::Read(void* data, UINT count) {
    DWORD done = 0;
    if (count != 0 && !ReadFile(m_hFile, data, count, &done, nullptr))
        throwLastError(m_strFileName);
    if (done > count) // some file systems' drivers are wrong, and callers would read behind their buffers
        AfxThrowFileException(CFileException::hardIO, -1, m_strFileName);
    return done;
}

void CFile::Write(const void* data, UINT count) {
    DWORD done = 0;
    if (count != 0 && !WriteFile(m_hFile, data, count, &done, nullptr))
        throwLastError(m_strFileName);
    if (done != count)
        AfxThrowFileException(CFileException::diskFull, -1, m_strFileName);
}

void CFile::Flush() {
    if (m_hFile != INVALID_HANDLE_VALUE && !FlushFileBuffers(m_hFile))
        throwLastError(m_strFileName);
}

ULONGLONG CFile::Seek(LONGLONG offset, UINT origin) {
    LARGE_INTEGER position = {};
    if (!SetFilePointerEx(m_hFile, largeInteger(offset), &position, origin))
        throwLastError(m_strFileName);
    return static_cast<ULONGLONG>(position.QuadPart);
}

ULONGLONG CFile::GetPosition() const {
    LARGE_INTEGER position = {};
    if (!SetFilePointerEx(m_hFile, largeInteger(0), &position, FILE_CURRENT))
        throwLastError(m_strFileName);
    return static_cast<ULONGLONG>(position.QuadPart);
}

ULONGLONG CFile::GetLength() const {
    LARGE_INTEGER length = {};
    if (!GetFileSizeEx(m_hFile, &length))
        throwLastError(m_strFileName);
    return static_cast<ULONGLONG>(length.QuadPart);
}

void CFile::SetLength(ULONGLONG length) {
    Seek(static_cast<LONGLONG>(length), begin);
    if (!SetEndOfFile(m_hFile))
        throwLastError(m_strFileName);
}

CString CFile::GetFilePath() const { return m_strFileName; }

CString CFile::GetFileName() const {
    int start = m_strFileName.GetLength();
    while (start > 0 && !wcschr(L"\\/:", m_strFileName[start - 1]))
        --start;
    return m_strFileName.Mid(start);
}
