// A failure is one line: what was being done, to which file and node, the status, and what that means in
// words.

#include "failure.h"

#include "console.h"
#include "text.h"

#include <objbase.h>

#include <array>
#include <cwchar>

namespace Vexel::Tool {
namespace {

struct StatusWords {
    HRESULT status;
    const wchar_t* words;
};

// The system's own texts for this facility have placeholders for names, or are missing altogether.
constexpr auto kStorageWords = std::to_array<StatusWords>({
    {STG_E_INVALIDFUNCTION, L"not possible with this node"},
    {STG_E_FILENOTFOUND, L"there is no such file or node"},
    {STG_E_PATHNOTFOUND, L"there is no such path"},
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
    {STG_E_FILEALREADYEXISTS, L"it exists already"},
    {STG_E_INVALIDPARAMETER, L"invalid parameter"},
    {STG_E_MEDIUMFULL, L"no space left on the disk"},
    {STG_E_ABNORMALAPIEXIT, L"the storage service failed"},
    {STG_E_INVALIDHEADER, L"not a document, or one whose header is damaged; see salvage"},
    {STG_E_INVALIDNAME, L"invalid name"},
    {STG_E_UNKNOWN, L"unexpected error"},
    {STG_E_UNIMPLEMENTEDFUNCTION, L"not implemented"},
    {STG_E_INVALIDFLAG, L"invalid flag"},
    {STG_E_INUSE, L"in use"},
    {STG_E_NOTCURRENT, L"changed by somebody else meanwhile"},
    {STG_E_REVERTED, L"its parent was closed or changed"},
    {STG_E_CANTSAVE, L"cannot save"},
    {STG_E_OLDFORMAT, L"the file has an old format"},
    {STG_E_NOTFILEBASEDSTORAGE, L"not a storage with a file of its own"},
    {STG_E_DOCFILECORRUPT, L"the file is damaged"},
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

std::wstring statusWords(HRESULT status) {
    for (const StatusWords& entry : kStorageWords) {
        if (entry.status == status)
            return entry.words;
    }
    // The storage facility also carries Win32 error codes in its low half.
    const bool win32InStorage = HRESULT_FACILITY(status) == FACILITY_STORAGE;
    const std::wstring words =
        systemWords(win32InStorage ? HRESULT_FROM_WIN32(static_cast<DWORD>(HRESULT_CODE(status))) : status);
    return words.empty() ? L"unknown status" : words;
}

std::wstring quoted(std::wstring_view text) { return L'"' + std::wstring(text) + L'"'; }

} // namespace

Failure::Failure(std::wstring_view what, std::wstring_view where, HRESULT status)
    : message_(std::wstring(what) + L" " + quoted(where) + L": " + describeStatus(status)), status_(status) {}

// The words of the status are in parentheses at the end.
Failure::Failure(const Failure& failure, std::wstring_view meant)
    : message_(failure.message_.substr(0, failure.message_.rfind(L')')) + didYouMean(meant) + L")"),
      status_(failure.status_) {}

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

std::wstring describeStatus(HRESULT status) {
    std::array<wchar_t, 16> number{};
    std::swprintf(number.data(), number.size(), L"0x%08lx", static_cast<unsigned long>(status));
    return std::wstring(number.data()) + L" (" + statusWords(status) + L")";
}

} // namespace Vexel::Tool
