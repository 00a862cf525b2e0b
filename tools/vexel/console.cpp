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

// By attributes, which every console knows.
WORD attributesOf(HANDLE console) {
    CONSOLE_SCREEN_BUFFER_INFO info{};
    const bool isWanted = GetEnvironmentVariableW(L"NO_COLOR", nullptr, 0) <= 1; // with its end
    return isWanted && GetConsoleScreenBufferInfo(console, &info) ? info.wAttributes : WORD{0};
}

WORD colourOf(Style style) {
    switch (style) {
    case Style::Storage:
        return FOREGROUND_BLUE | FOREGROUND_GREEN | FOREGROUND_INTENSITY;
    case Style::Good:
        return FOREGROUND_GREEN;
    case Style::Bad:
        return FOREGROUND_RED | FOREGROUND_INTENSITY;
    case Style::Changed:
        return FOREGROUND_RED | FOREGROUND_GREEN;
    case Style::Moved:
        return FOREGROUND_BLUE | FOREGROUND_GREEN;
    case Style::Plain:
        break;
    }
    return 0;
}

/// The console's colours are another style's while one lives.
class Colours {
public:
    Colours(HANDLE console, WORD attributes, Style style) noexcept
        : console_(console), attributes_(attributes), isSet_(attributes != 0 && style != Style::Plain) {
        constexpr WORD kForeground = 0x0f;
        if (isSet_)
            SetConsoleTextAttribute(console_,
                                    static_cast<WORD>((attributes & ~kForeground) | colourOf(style)));
    }
    Colours(const Colours&) = delete;
    Colours& operator=(const Colours&) = delete;
    ~Colours() {
        if (isSet_)
            SetConsoleTextAttribute(console_, attributes_);
    }

private:
    HANDLE console_;
    WORD attributes_;
    bool isSet_;
};

bool writeText(HANDLE handle, bool console, std::string_view utf8) {
    return console ? writeConsole(handle, toUtf16(utf8)) : writeAll(handle, std::as_bytes(std::span(utf8)));
}

} // namespace

StandardOutput::StandardOutput()
    : handle_(GetStdHandle(STD_OUTPUT_HANDLE)), console_(isConsole(handle_)),
      attributes_(console_ ? attributesOf(handle_) : WORD{0}) {}

StandardOutput::~StandardOutput() {
    try {
        flush();
    } catch (const std::exception&) {
        return;
    }
}

void StandardOutput::text(std::string_view utf8, Style style) {
    if (pending_.empty() || (attributes_ != 0 && pending_.back().style != style))
        pending_.push_back({style, {}});
    pending_.back().text += utf8;
    size_ += utf8.size();
    if (size_ >= kChunkSize)
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
    const std::vector<Piece> pieces = std::exchange(pending_, {});
    size_ = 0;
    if (pieces.empty())
        return;
    const Progress::Hidden hidden(progress());
    const EndableWait wait;
    for (const Piece& piece : pieces)
        write(piece);
}

void StandardOutput::write(const Piece& piece) const {
    const Colours colours(handle_, attributes_, piece.style);
    if (!writeText(handle_, console_, piece.text))
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
