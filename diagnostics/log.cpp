#include "log_sink.h"
#include "scratch_buffer.h"

#include <vexel/diagnostics.h>

#include <windows.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <limits>

namespace {

using Vexel::Detail::ScratchBuffer;

using NarrowText = ScratchBuffer<char, 512>;
using WideText = ScratchBuffer<wchar_t, 512>;

/// Callers log a failure first and ask for its code afterwards.
class LastErrorKeeper {
public:
    LastErrorKeeper() noexcept : error_(GetLastError()) {}
    LastErrorKeeper(const LastErrorKeeper&) = delete;
    LastErrorKeeper& operator=(const LastErrorKeeper&) = delete;
    ~LastErrorKeeper() { SetLastError(error_); }

private:
    DWORD error_;
};

// The formatting functions leave a zero-terminated text in every case: whole, cut when memory is short, and
// as far as the C runtime came when it refuses the format.

/// By the C runtime's own function, whose wide formats follow the platform's rule; the compiler's replacement
/// has another.
void formatWide(WideText& text, const wchar_t* format, va_list arguments) noexcept {
    va_list copy = {};
    va_copy(copy, arguments);
    const std::size_t last = text.size() - 1;
    int length = _vsnwprintf(text.data(), last, format, copy);
    text.data()[length < 0 ? last : static_cast<std::size_t>(length)] = 0;
    va_end(copy);
    if (length >= 0)
        return;

    va_copy(copy, arguments);
    length = _vscwprintf(format, copy);
    va_end(copy);
    const std::size_t size = length < 0 ? 0 : static_cast<std::size_t>(length) + 1;
    if (size > text.size() && text.reserve(size))
        _vsnwprintf(text.data(), size, format, arguments);
}

VEXEL_PRINTF_FORMAT(2, 0)
void formatNarrow(NarrowText& text, const char* format, va_list arguments) noexcept {
    va_list copy = {};
    va_copy(copy, arguments);
    const int length = std::vsnprintf(text.data(), text.size(), format, copy);
    va_end(copy);
    const std::size_t size = length < 0 ? 0 : static_cast<std::size_t>(length) + 1;
    if (size > text.size() && text.reserve(size))
        std::vsnprintf(text.data(), size, format, arguments);
    text.data()[text.size() - 1] = 0;
}

void widen(WideText& wide, const char* text) noexcept {
    // UTF-16 never has more units than UTF-8 has bytes.
    std::size_t length = std::min<std::size_t>(std::strlen(text), std::numeric_limits<int>::max());
    if (!wide.reserve(length + 1))
        length = wide.size() - 1;
    const int units = MultiByteToWideChar(CP_UTF8, 0, text, static_cast<int>(length), wide.data(),
                                          static_cast<int>(length));
    wide.data()[units] = 0;
}

} // namespace

void VxLog_WriteWV(int level, const wchar_t* format, va_list arguments) noexcept {
    const LastErrorKeeper keeper;
    if (!format || !Vexel::Detail::logWanted(level))
        return;
    WideText message;
    formatWide(message, format, arguments);
    Vexel::Detail::deliverToSink(level, message.data());
}

void VxLog_WriteV(int level, const char* format, va_list arguments) noexcept {
    const LastErrorKeeper keeper;
    if (!format || !Vexel::Detail::logWanted(level))
        return;
    NarrowText text;
    formatNarrow(text, format, arguments);
    WideText message;
    widen(message, text.data());
    Vexel::Detail::deliverToSink(level, message.data());
}

void VxLog_Write(int level, const char* format, ...) noexcept {
    va_list arguments = {};
    va_start(arguments, format);
    VxLog_WriteV(level, format, arguments);
    va_end(arguments);
}
