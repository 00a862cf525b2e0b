// Settings files as text.

#include "io/ini_numbers.h"
#include "io/name_places.h"

#include <vexel/diagnostics.h>
#include <vexel/files.h>
#include <vexel/ini.h>

#include <string>

namespace vxio {

using Vexel::Detail::trimmed;
using Vexel::Detail::viewOf;

namespace {

CStringW toString(std::wstring_view text) { return {text.data(), static_cast<int>(text.size())}; }

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

/// Whether a file may be written, or there is none; replacing it would not ask.
bool isWritable(const wchar_t* path) {
    const DWORD attributes = path && *path ? GetFileAttributesW(path) : 0;
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_READONLY))
        return false;
    SimpleFile file;
    return file.Open(path, FileAccess::Write, FileCreation::OpenExisting, ProtectWriting) ||
           file.GetLastErrorCode() == ERROR_FILE_NOT_FOUND;
}

/// A file beside another, under a name that nobody else is likely to use. It goes, unless it takes the
/// other's place.
class FileBeside {
public:
    explicit FileBeside(const wchar_t* path)
        : path_(std::wstring(path) + L"." + std::to_wstring(GetCurrentProcessId()) + L".tmp") {}
    FileBeside(const FileBeside&) = delete;
    FileBeside& operator=(const FileBeside&) = delete;
    ~FileBeside() {
        stream.Close();
        if (made_)
            DeleteFileW(path_.c_str());
    }

    bool make() { return made_ = stream.Open({.path = path_.c_str()}, TextEncoding::Utf8, false); }
    bool replace(const wchar_t* path) {
        made_ = !MoveFileExW(path_.c_str(), path, MOVEFILE_REPLACE_EXISTING);
        return !made_;
    }

    TextFileWriteStream stream;

private:
    std::wstring path_;
    bool made_ = false;
};

} // namespace

bool IniFile::Load(const wchar_t* path) {
    *this = IniFile();
    TextFileReadStream stream;
    if (!stream.Open(path, ProtectWriting, TextEncoding::Detect, true))
        return false;
    IniFile read;
    IniFileSection* section = nullptr;
    CStringW text;
    while (stream.ReadString(text)) {
        const std::wstring_view line = trimmed(viewOf(text));
        if (line.empty() || line.front() == L';')
            continue;
        if (line.front() == L'[') {
            const std::wstring_view name = parseHeader(line);
            if (name.empty())
                return false;
            section = &read.GetOrCreateSection(name);
            continue;
        }
        const std::optional<Entry> entry = parseEntry(line);
        if (!entry || !section)
            return false;
        if (entry->value.find(L'\n') == std::wstring_view::npos)
            section->setString(entry->key, toString(entry->value));
    }
    if (stream.GetPosition() != stream.GetLength())
        return false;
    *this = std::move(read);
    return true;
}

bool IniFile::Save(const wchar_t* path) const {
    if (!isWritable(path))
        return false;
    FileBeside beside(path);
    if (!beside.make())
        return false;
    TextFileWriteStream& stream = beside.stream;
    for (const auto& [name, section] : sections_) {
        stream.WriteString(L"[");
        stream.WriteString(viewOf(name));
        stream.WriteString(L"]\n");
        for (const auto& [key, value] : section) {
            stream.WriteString(viewOf(key));
            stream.WriteString(L"=");
            stream.WriteString(viewOf(value));
            stream.WriteString(L"\n");
        }
    }
    if (stream.Flush() && stream.Close())
        return beside.replace(path);
    VxLog_WriteW(VxLog_Error, L"Failed to write the settings file \"%ls\": %lu", path,
                 stream.GetLastErrorCode());
    return true;
}

} // namespace vxio
