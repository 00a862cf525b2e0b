#include "default_sink.h"

#include "scratch_buffer.h"

#include <vexel/diagnostics.h>

#include <windows.h>

#include <algorithm>
#include <cwchar>
#include <limits>
#include <string_view>

namespace Vexel::Detail {
namespace {

constexpr std::size_t kBytesPerUnit = 3; ///< the most that a UTF-16 code unit becomes in UTF-8

std::string_view levelName(int level) noexcept {
    if (level >= VxLog_Error)
        return "error: ";
    if (level >= VxLog_Minor)
        return "minor failure: ";
    return level >= VxLog_Warning ? "warning: " : "";
}

} // namespace

void writeToStandardError(int level, const wchar_t* message) noexcept {
    const HANDLE output = GetStdHandle(STD_ERROR_HANDLE);
    if (!output || output == INVALID_HANDLE_VALUE)
        return;

    const std::string_view prefix = levelName(level);
    const std::size_t added = prefix.size() + 1; // the line end
    constexpr std::size_t kLongest = (std::numeric_limits<int>::max() - 16) / kBytesPerUnit;
    std::size_t units = std::min(std::wcslen(message), kLongest);
    ScratchBuffer<char, 2048> line;
    if (!line.reserve(added + units * kBytesPerUnit))
        units = (line.size() - added) / kBytesPerUnit;

    char* const text = std::copy(prefix.begin(), prefix.end(), line.data());
    const int room = static_cast<int>(line.size() - added);
    const int length =
        WideCharToMultiByte(CP_UTF8, 0, message, static_cast<int>(units), text, room, nullptr, nullptr);
    char* const end = text + length;
    // One message is one line, whatever the names in it hold.
    std::replace_if(
        text, end, [](char c) { return c == '\r' || c == '\n'; }, ' ');
    *end = '\n';
    DWORD written = 0;
    WriteFile(output, line.data(), static_cast<DWORD>(end + 1 - line.data()), &written, nullptr);
}

} // namespace Vexel::Detail
