// The C library's functions on wide text, for units of two bytes: the library itself knows only those of
// four. They are hidden, so that the system's libraries go on using their own.

#include <windows.h>

#include <cstdarg>
#include <cstdio>
#include <cwctype>

#define VEXEL_FUZZ_WIDE extern "C" __attribute__((visibility("hidden")))

VEXEL_FUZZ_WIDE size_t wcslen(const wchar_t* text) noexcept {
    size_t length = 0;
    while (text[length] != 0)
        ++length;
    return length;
}

VEXEL_FUZZ_WIDE size_t wcsnlen(const wchar_t* text, size_t most) noexcept {
    size_t length = 0;
    while (length < most && text[length] != 0)
        ++length;
    return length;
}

VEXEL_FUZZ_WIDE int wmemcmp(const wchar_t* a, const wchar_t* b, size_t count) noexcept {
    if (memcmp(a, b, count * sizeof *a) == 0)
        return 0;
    for (size_t i = 0; i < count; ++i) {
        if (a[i] != b[i])
            return a[i] < b[i] ? -1 : 1;
    }
    return 0;
}

VEXEL_FUZZ_WIDE int wcsncmp(const wchar_t* a, const wchar_t* b, size_t count) noexcept {
    for (size_t i = 0; i < count; ++i) {
        if (a[i] != b[i])
            return a[i] < b[i] ? -1 : 1;
        if (a[i] == 0)
            break;
    }
    return 0;
}

VEXEL_FUZZ_WIDE int wcscmp(const wchar_t* a, const wchar_t* b) noexcept { return wcsncmp(a, b, ~size_t{0}); }

extern "C" int _wcsnicmp(const wchar_t* a, const wchar_t* b, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        const wint_t left = towlower(a[i]), right = towlower(b[i]);
        if (left != right)
            return left < right ? -1 : 1;
        if (left == 0)
            break;
    }
    return 0;
}

extern "C" int _wcsicmp(const wchar_t* a, const wchar_t* b) { return _wcsnicmp(a, b, ~size_t{0}); }

VEXEL_FUZZ_WIDE wchar_t* wmemcpy(wchar_t* target, const wchar_t* source, size_t count) noexcept {
    return static_cast<wchar_t*>(memcpy(target, source, count * sizeof *target));
}

VEXEL_FUZZ_WIDE wchar_t* wmemmove(wchar_t* target, const wchar_t* source, size_t count) noexcept {
    return static_cast<wchar_t*>(memmove(target, source, count * sizeof *target));
}

VEXEL_FUZZ_WIDE wchar_t* wmemset(wchar_t* target, wchar_t unit, size_t count) noexcept {
    for (size_t done = 0;
         done<count; done += done> 0 ? done : 1) { // by doubling: much is filled by some targets
        if (done == 0)
            *target = unit;
        else
            wmemcpy(target + done, target, done < count - done ? done : count - done);
    }
    return target;
}

VEXEL_FUZZ_WIDE wchar_t* wcscpy(wchar_t* target, const wchar_t* source) noexcept {
    return wmemcpy(target, source, wcslen(source) + 1);
}

// The header gives these two forms in C++, which share a name for the linker.
extern "C" __attribute__((visibility("hidden"))) const wchar_t* findUnit(const wchar_t* text, wchar_t unit,
                                                                         size_t count) noexcept
    __asm__("wmemchr");
extern "C" const wchar_t* findUnit(const wchar_t* text, wchar_t unit, size_t count) noexcept {
    for (size_t i = 0; i < count; ++i) {
        if (text[i] == unit)
            return text + i;
    }
    return nullptr;
}

extern "C" __attribute__((visibility("hidden"))) const wchar_t* findInText(const wchar_t* text,
                                                                           wchar_t unit) noexcept
    __asm__("wcschr");
extern "C" const wchar_t* findInText(const wchar_t* text, wchar_t unit) noexcept {
    return findUnit(text, unit, wcslen(text) + 1);
}

// For numbers only: no text is formatted that the targets look at.
VEXEL_FUZZ_WIDE int vswprintf(wchar_t* text, size_t room, const wchar_t* format, va_list arguments) noexcept {
    char narrowFormat[64] = {};
    for (size_t i = 0; i + 1 < sizeof narrowFormat && format[i] != 0; ++i)
        narrowFormat[i] = static_cast<char>(format[i]);
    char narrow[512];
    const int length = vsnprintf(narrow, sizeof narrow, narrowFormat, arguments);
    if (length < 0 || static_cast<size_t>(length) >= room || static_cast<size_t>(length) >= sizeof narrow)
        return -1;
    for (int i = 0; i <= length; ++i)
        text[i] = static_cast<wchar_t>(narrow[i]);
    return length;
}

VEXEL_FUZZ_WIDE int swprintf(wchar_t* text, size_t room, const wchar_t* format, ...) noexcept {
    va_list arguments;
    va_start(arguments, format);
    const int length = vswprintf(text, room, format, arguments);
    va_end(arguments);
    return length;
}
