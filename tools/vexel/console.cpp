// A console takes UTF-16 and anything else takes UTF-8: pipes and files get bytes that do not depend on the
// code page. A reader that has gone away ends the program without a message.

#include "console.h"

#include "failure.h"
#include "progress.h"
#include "stopping.h"
#include "text.h"

#include <algorithm>
#include <utility>

namespace Vexel::Tool {
namespace {

constexpr std::wstring_view kOutputName = L"standard output";

bool isConsole(HANDLE handle) noexcept {
    DWORD mode = 0;
    return GetConsoleMode(handle, &mode) != FALSE;
}

bool writeAll(HANDLE handle, std::span<const std::byte> data) {
    while (!data.empty()) {
        const auto count = static_cast<DWORD>(std::min(data.size(), kChunkSize));
        DWORD written = 0;
        if (!WriteFile(handle, data.data(), count, &written, nullptr) || written == 0)
            return false;
        data = data.subspan(written);
    }
    return true;
}

bool writeConsole(HANDLE handle, std::wstring_view text) noexcept {
    constexpr std::size_t kMaximum = 8192; // older consoles refuse longer pieces
    while (!text.empty()) {
        DWORD written = 0;
        const auto count = static_cast<DWORD>(std::min(text.size(), kMaximum));
        if (!WriteConsoleW(handle, text.data(), count, &written, nullptr) || written == 0)
            return false;
        text.remove_prefix(written);
    }
    return true;
}

// A reader that has seen enough closes the pipe; which of these errors that gives depends on the moment.
[[noreturn]] void failToWrite() {
    const DWORD error = GetLastError();
    if (error == ERROR_BROKEN_PIPE || error == ERROR_NO_DATA || error == ERROR_PIPE_NOT_CONNECTED)
        throw ReaderGone();
    throw Failure(L"cannot write to", kOutputName, lastErrorStatus());
}

bool writeText(HANDLE handle, bool console, std::string_view utf8) {
    return console ? writeConsole(handle, toUtf16(utf8)) : writeAll(handle, std::as_bytes(std::span(utf8)));
}

} // namespace

StandardOutput::StandardOutput() : handle_(GetStdHandle(STD_OUTPUT_HANDLE)), console_(isConsole(handle_)) {}

StandardOutput::~StandardOutput() {
    try {
        flush();
    } catch (const std::exception&) {
        return;
    }
}

void StandardOutput::text(std::string_view utf8) {
    pending_ += utf8;
    if (pending_.size() >= kChunkSize)
        flush();
}

// Contents go out as they are, behind the text that waits, and never through the console's conversion.
void StandardOutput::bytes(std::span<const std::byte> data) {
    flush();
    const Progress::Hidden hidden(progress());
    const EndableWait wait;
    if (!writeAll(handle_, data))
        failToWrite();
}

void StandardOutput::flush() {
    // Dropped before the attempt: after a failure there is nobody to write to.
    const std::string text = std::exchange(pending_, {});
    if (text.empty())
        return;
    const Progress::Hidden hidden(progress());
    const EndableWait wait;
    if (!writeText(handle_, console_, text))
        failToWrite();
}

bool errorIsConsole() noexcept { return isConsole(GetStdHandle(STD_ERROR_HANDLE)); }

void writeErrorConsole(std::wstring_view text) noexcept {
    writeConsole(GetStdHandle(STD_ERROR_HANDLE), text);
}

void printError(std::wstring_view line) noexcept {
    try {
        const HANDLE handle = GetStdHandle(STD_ERROR_HANDLE);
        writeText(handle, isConsole(handle), toUtf8(line) + "\n");
    } catch (const std::exception&) {
        // Out of memory while reporting: the exit status still tells.
        return;
    }
}

} // namespace Vexel::Tool
