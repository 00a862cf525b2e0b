// A failure is one line: what was being done, to which file and node, the status, and what that means in
// words.

#include "failure.h"

#include "console.h"
#include "text.h"

#include <objbase.h>

#include <algorithm>
#include <array>
#include <cwchar>
#include <utility>

namespace Vexel::Tool {
namespace {

struct StatusWords {
    HRESULT status;
    const wchar_t* words;
    const wchar_t* ofFile = nullptr; // where these are others
};

// Errors of the system that the storage facility has, too, under the same number. What is reported by the one
// here and by the other there is one cause.
constexpr auto kSharedErrors = std::to_array<DWORD>(
    {ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND, ERROR_TOO_MANY_OPEN_FILES, ERROR_ACCESS_DENIED,
     ERROR_NOT_ENOUGH_MEMORY, ERROR_WRITE_PROTECT, ERROR_SEEK, ERROR_WRITE_FAULT, ERROR_READ_FAULT,
     ERROR_SHARING_VIOLATION, ERROR_LOCK_VIOLATION, ERROR_FILE_EXISTS, ERROR_DISK_FULL});

// Those that it has under another number, whichever facility they are told in.
constexpr auto kOtherNumbers = std::to_array<std::pair<DWORD, HRESULT>>({
    {ERROR_ALREADY_EXISTS, STG_E_FILEALREADYEXISTS},
    {ERROR_HANDLE_DISK_FULL, STG_E_MEDIUMFULL},
    {ERROR_INVALID_NAME, STG_E_INVALIDNAME},
    {ERROR_BAD_PATHNAME, STG_E_INVALIDNAME},
});

HRESULT ofStorageFacility(HRESULT status) noexcept {
    const DWORD facility = HRESULT_FACILITY(status);
    const DWORD code = HRESULT_CODE(status);
    if (!FAILED(status) || (facility != FACILITY_WIN32 && facility != FACILITY_STORAGE))
        return status;
    for (const auto& [error, storage] : kOtherNumbers) {
        if (code == error)
            return storage;
    }
    const bool isShared = std::find(kSharedErrors.begin(), kSharedErrors.end(), code) != kSharedErrors.end();
    return isShared ? MAKE_SCODE(SEVERITY_ERROR, FACILITY_STORAGE, code) : status;
}

// The system's own texts for this facility have placeholders for names, or are missing altogether.
constexpr auto kStorageWords = std::to_array<StatusWords>({
    {STG_E_INVALIDFUNCTION, L"not possible with this node", L"not possible with this file"},
    {STG_E_FILENOTFOUND, L"there is no such node", L"there is no such file"},
    {STG_E_PATHNOTFOUND, L"there is no such path", L"there is no such directory"},
    {STG_E_TOOMANYOPENFILES, L"too many open files"},
    {STG_E_ACCESSDENIED, L"access denied"},
    {STG_E_INVALIDHANDLE, L"invalid handle"},
    {STG_E_INSUFFICIENTMEMORY, L"not enough memory"},
    {STG_E_INVALIDPOINTER, L"invalid pointer"},
    {STG_E_NOMOREFILES, L"no more entries"},
    {STG_E_DISKISWRITEPROTECTED, L"the disk is write-protected"},
    {STG_E_SEEKERROR, L"seek error"},
    {STG_E_WRITEFAULT, L"write error"},
    {STG_E_READFAULT, L"read error"},
    {STG_E_SHAREVIOLATION, L"in use by another program"},
    {STG_E_LOCKVIOLATION, L"locked by another program"},
    {STG_E_FILEALREADYEXISTS, L"it exists already", L"it exists already; --force replaces it"},
    {STG_E_INVALIDPARAMETER, L"invalid parameter"},
    {STG_E_MEDIUMFULL, L"no space left on the disk"},
    {STG_E_ABNORMALAPIEXIT, L"the storage service failed"},
    {STG_E_INVALIDHEADER, L"not a document, or one whose header is damaged; see salvage"},
    {STG_E_INVALIDNAME,
     L"no node can have this name; in a compound file a name has up to 31 characters, and none of / \\ : !",
     L"no file can have this name"},
    {STG_E_UNKNOWN, L"unexpected error"},
    {STG_E_UNIMPLEMENTEDFUNCTION, L"not implemented"},
    {STG_E_INVALIDFLAG, L"invalid flag"},
    {STG_E_INUSE, L"in use"},
    {STG_E_NOTCURRENT, L"changed by somebody else meanwhile"},
    {STG_E_REVERTED, L"its parent was closed or changed"},
    {STG_E_CANTSAVE, L"cannot save"},
    {STG_E_OLDFORMAT, L"the file has an old format"},
    {STG_E_NOTFILEBASEDSTORAGE, L"not a storage with a file of its own"},
    {STG_E_DOCFILECORRUPT, L"the file is damaged", L"the file is damaged; see salvage"},
    {E_NOTIMPL, L"packed in a way that this program cannot read, or encrypted"},
    {HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED), L"packed in a way that this program cannot read, or encrypted"},
});

std::wstring systemWords(HRESULT status) {
    std::array<wchar_t, 512> buffer{};
    const DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                        static_cast<DWORD>(status), 0, buffer.data(),
                                        static_cast<DWORD>(buffer.size()), nullptr);
    std::wstring words(buffer.data(), length);
    words.resize(words.find_last_not_of(L" .\r\n") + 1);
    return onOneLine(words);
}

std::wstring statusWords(HRESULT status, bool isOfFile) {
    for (const StatusWords& entry : kStorageWords) {
        if (entry.status == status)
            return isOfFile && entry.ofFile ? entry.ofFile : entry.words;
    }
    // The storage facility also carries Win32 error codes in its low half.
    const bool win32InStorage = HRESULT_FACILITY(status) == FACILITY_STORAGE;
    const std::wstring words =
        systemWords(win32InStorage ? HRESULT_FROM_WIN32(static_cast<DWORD>(HRESULT_CODE(status))) : status);
    return words.empty() ? L"unknown status" : words;
}

std::wstring quoted(std::wstring_view text) { return L'"' + std::wstring(text) + L'"'; }

// Between a file and its node there is a character that no file's name can have.
bool isFile(std::wstring_view where) { return where.find(L'|') == std::wstring_view::npos; }

// "0x80030002"
std::wstring numberOf(HRESULT status) {
    std::array<wchar_t, 16> number{};
    std::swprintf(number.data(), number.size(), L"0x%08lx", static_cast<unsigned long>(status));
    return number.data();
}

} // namespace

Failure::Failure(std::wstring_view what, std::wstring_view where, HRESULT status)
    : Failure(what, where, status, statusWords(ofStorageFacility(status), isFile(where))) {}

Failure::Failure(std::wstring_view what, std::wstring_view where, HRESULT status, std::wstring_view words)
    : where_(where), status_(ofStorageFacility(status)) {
    message_ = std::wstring(what) + L" " + quoted(where) + L": " + numberOf(status_) + L" (" +
               std::wstring(words) + L")";
}

// The words of the status are in parentheses at the end.
Failure::Failure(const Failure& failure, std::wstring_view meant)
    : message_(failure.message_.substr(0, failure.message_.rfind(L')')) + didYouMean(meant) + L")"),
      where_(failure.where_), status_(failure.status_) {}

std::wstring didYouMean(std::wstring_view meant) { return L"; did you mean " + quoted(meant) + L"?"; }

UsageError::UsageError(std::wstring_view what, std::wstring_view argument)
    : message_(std::wstring(what) + L" " + quoted(argument)) {}

void check(HRESULT status, std::wstring_view what, std::wstring_view where) {
    if (status != S_OK)
        throw Failure(what, where, FAILED(status) ? status : STG_E_READFAULT);
}

bool isNotReadable(HRESULT status) noexcept {
    return status == E_NOTIMPL || status == HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);
}

bool isDiskFull(HRESULT status) noexcept { return ofStorageFacility(status) == STG_E_MEDIUMFULL; }

HRESULT lastErrorStatus() {
    const DWORD error = GetLastError();
    return error == ERROR_SUCCESS ? E_FAIL : HRESULT_FROM_WIN32(error);
}

void report(std::wstring_view message) noexcept {
    try {
        printError(L"vexel: " + onOneLine(std::wstring(message)));
    } catch (const std::exception&) {
        return; // out of memory while reporting: the exit status still tells
    }
}

} // namespace Vexel::Tool
