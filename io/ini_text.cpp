// Settings files as text.

#include "base/last_error.h"
#include "base/platform.h"
#include "base/text.h"
#include "io/ini_numbers.h"
#include "io/name_places.h"
#include "io/text_encoding.h"
#include "io/whole_file.h"

#include <vexel/diagnostics.h>
#include <vexel/files.h>
#include <vexel/ini.h>

#include <string>
#include <vector>

namespace vxio {

using Vexel::Detail::lastError;
using Vexel::Detail::platform;
using Vexel::Detail::stringOf;
using Vexel::Detail::trimmed;
using Vexel::Detail::viewOf;
using Vexel::Detail::WholeFile;

namespace {

std::wstring_view unquoted(std::wstring_view value) noexcept {
    const bool quoted = value.size() >= 2 && value.front() == value.back() &&
                        (value.front() == L'\'' || value.front() == L'"');
    return quoted ? value.substr(1, value.size() - 2) : value;
}

struct Entry {
    std::wstring_view key;
    std::wstring_view value;
};

/// Nothing when the line is no entry.
std::optional<Entry> parseEntry(std::wstring_view line) noexcept {
    const std::size_t equals = line.find(L'=');
    if (equals == std::wstring_view::npos)
        return std::nullopt;
    const std::wstring_view key = trimmed(line.substr(0, equals));
    if (key.empty())
        return std::nullopt;
    return Entry{key, unquoted(trimmed(line.substr(equals + 1)))};
}

/// The name between the brackets; empty when the line is no header.
std::wstring_view parseHeader(std::wstring_view line) noexcept {
    return line.back() == L']' ? line.substr(1, line.size() - 2) : std::wstring_view();
}

/// Why it cannot be opened or read. ERROR_INVALID_DATA is our word for what can be read and is no settings
/// file, which is begun anew.
DWORD errorOf(const TextFileReadStream& stream) noexcept {
    const DWORD error = stream.GetLastErrorCode();
    return error == ERROR_INVALID_DATA ? DWORD{ERROR_READ_FAULT} : error;
}

/// 0, ERROR_INVALID_DATA when a line is none of a settings file's, or why not all of it can be read.
DWORD parse(TextFileReadStream& stream, IniFile& file) {
    IniFileSection* section = nullptr;
    CStringW text;
    while (stream.ReadString(text)) {
        const std::wstring_view line = trimmed(viewOf(text));
        if (line.empty() || line.front() == L';')
            continue;
        if (line.front() == L'[') {
            const std::wstring_view name = parseHeader(line);
            if (name.empty())
                return ERROR_INVALID_DATA;
            section = &file.GetOrCreateSection(name);
            continue;
        }
        const std::optional<Entry> entry = parseEntry(line);
        if (!entry || !section)
            return ERROR_INVALID_DATA;
        if (entry->value.find(L'\n') == std::wstring_view::npos)
            section->SetString(entry->key, stringOf(entry->value));
    }
    // Cut off meanwhile, or of no known length as a pipe, it is not what saving would put in its place.
    const bool isWhole = stream.GetPosition() == stream.GetLength();
    const DWORD error = errorOf(stream);
    return error == ERROR_SUCCESS && !isWhole ? DWORD{ERROR_READ_FAULT} : error;
}

/// Waits for a moment where someone is saving the file. 0 or the system's error code.
DWORD open(TextFileReadStream& stream, const wchar_t* path, TextEncoding encoding) {
    constexpr DWORD kLongest = 16; // milliseconds
    for (DWORD wait = 1; !stream.Open(path, ProtectWriting, encoding, true); wait *= 2) {
        if (stream.GetLastErrorCode() != ERROR_SHARING_VIOLATION || wait > kLongest)
            return errorOf(stream);
        Sleep(wait);
    }
    return ERROR_SUCCESS;
}

/// Whether there certainly is no file: where its folder cannot be found either, it may be back soon. A link
/// that leads nowhere is none.
bool isMissing(const wchar_t* path) {
    const DWORD attributes = platform().getAttributes(path);
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return lastError() == ERROR_FILE_NOT_FOUND;
    SimpleFile file;
    return (attributes & FILE_ATTRIBUTE_REPARSE_POINT) &&
           !file.Open(path, FileAccess::Read, FileCreation::OpenExisting, ProtectNothing) &&
           file.GetLastErrorCode() == ERROR_FILE_NOT_FOUND;
}

/// Of a file that is no settings file in the encoding that was guessed: `parse` in another in which it is
/// one. What cannot be read again is not known to be none.
DWORD parseOtherwise(const wchar_t* path, IniFile& file) {
    DWORD verdict = ERROR_INVALID_DATA;
    for (const TextEncoding encoding : {TextEncoding::Utf16LE, TextEncoding::Utf16BE, TextEncoding::Utf32LE,
                                        TextEncoding::Utf32BE, TextEncoding::Utf8}) {
        TextFileReadStream stream;
        IniFile read;
        DWORD error = open(stream, path, encoding);
        if (error == ERROR_SUCCESS)
            error = parse(stream, read);
        if (error == ERROR_FILE_TOO_LARGE) // a line that is too long may be many in the next encoding
            verdict = error;
        if (error == ERROR_FILE_TOO_LARGE || error == ERROR_INVALID_DATA ||
            (error == ERROR_SUCCESS && (stream.HasReplaced() || read.IsEmpty())))
            continue;
        file = std::move(read);
        return error;
    }
    return verdict;
}

} // namespace

bool IniFile::Load(const wchar_t* path) { return load(path) == ERROR_SUCCESS; }

unsigned long IniFile::load(const wchar_t* path) {
    *this = IniFile();
    TextFileReadStream stream;
    IniFile read;
    DWORD error = open(stream, path, TextEncoding::Detect);
    if (error == ERROR_SUCCESS) {
        error = parse(stream, read);
        if (error == ERROR_INVALID_DATA)
            error = parseOtherwise(path, read = IniFile());
        else
            read.hasReplaced_ = stream.HasReplaced();
    }
    if (error == ERROR_SUCCESS) // what is there of a file that breaks off would be saved as the whole
        *this = std::move(read);
    // It has come just now, or this is what reading it fails with: not to be begun anew, but tried again.
    if (error == ERROR_FILE_NOT_FOUND && !isMissing(path))
        error = ERROR_SHARING_VIOLATION;
    return error;
}

bool IniFile::Save(const wchar_t* path) const {
    if (!path || !*path || hasReplaced_)
        return false;
    std::wstring text;
    for (const auto& [name, section] : sections_) {
        text.append(L"[").append(viewOf(name)).append(L"]\n");
        for (const auto& [key, value] : section)
            text.append(viewOf(key)).append(L"=").append(viewOf(value)).append(L"\n");
    }
    std::vector<unsigned char> bytes;
    auto encoding = TextEncoding::Utf8;
    if (Vexel::Detail::hasLoneSurrogate(text)) {
        encoding = TextEncoding::Utf16LE; // has what UTF-8 has not
        const auto mark = Vexel::Detail::byteOrderMark(encoding);
        bytes.assign(mark.begin(), mark.end());
    }
    Vexel::Detail::encodeText(text, encoding, bytes);
    DWORD error = 0;
    const WholeFile result = Vexel::Detail::writeWholeFile(path, bytes, error);
    if (result == WholeFile::Failed)
        VxLog_WriteW(VxLog_Error, L"Failed to write the settings file \"%ls\": %lu", path, error);
    return result != WholeFile::NotOpened;
}

} // namespace vxio
