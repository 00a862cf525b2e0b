// Names of temporary files have to differ from those of every other process, also of one that had this
// process's number before. So they bear the number and the time at which the process began; both, and the
// directory, are asked for once.

#include "paths/temp_names.h"

#include "base/platform.h"
#include "base/process_end.h"
#include "base/text.h"

#include <vexel/diagnostics.h>

#include <atomic>
#include <cwchar>
#include <exception>
#include <string>

namespace Vexel::Detail {

namespace {

/// Part of every name, so that the files of other programs with the same prefix are told apart.
constexpr unsigned kNamingScheme = 18;

std::atomic<unsigned long long> nextName{0};

void computeDirectory(TempNaming& naming) noexcept {
    const auto capacity = static_cast<DWORD>(naming.directory.size());
    const DWORD length = platform().getTempPath(capacity, naming.directory.data());
    if (length == 0) {
        VxLog_Write(VxLog_Error, "Failed to get the path to the temporary directory: 0x%08lx",
                    GetLastError());
        // Without a separator behind it, unlike the system's answer: the files go to the root, which is
        // always there, with names that begin with "Temp".
        wcscpy(naming.directory.data(), L"C:\\Temp");
        return;
    }
    // In place; where there is no long form the path stays as it is.
    GetLongPathNameW(naming.directory.data(), naming.directory.data(), capacity);
    naming.directory.back() = L'\0';
}

void computeProcessTag(TempNaming& naming) noexcept {
    auto& tag = naming.processTag;
    swprintf(tag.data(), tag.size(), L"-%u-%08lx", kNamingScheme, GetCurrentProcessId());

    // Process ids come again; with the start time the tag does not.
    FILETIME created{};
    FILETIME exited{};
    FILETIME kernel{};
    FILETIME user{};
    if (!platform().getProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user)) {
        VxLog_Write(VxLog_Error, "Failed to get timing information of the process: 0x%08lx", GetLastError());
        return;
    }
    const std::size_t used = wcslen(tag.data());
    swprintf(tag.data() + used, tag.size() - used, L"-%08lx%08lx", created.dwHighDateTime,
             created.dwLowDateTime);
}

} // namespace

TempNaming computeTempNaming() noexcept {
    TempNaming naming;
    computeDirectory(naming);
    computeProcessTag(naming);
    return naming;
}

const TempNaming& getTempNaming() noexcept {
    static INIT_ONCE once = INIT_ONCE_STATIC_INIT;
    static TempNaming naming;
    BOOL pending = FALSE;
    if (isProcessEnding()) {
        // The thread that began may be gone.
        if (!InitOnceBeginInitialize(&once, INIT_ONCE_CHECK_ONLY, &pending, nullptr) || pending)
            naming = computeTempNaming();
        return naming;
    }
    if (!InitOnceBeginInitialize(&once, 0, &pending, nullptr))
        std::terminate();
    if (pending) {
        naming = computeTempNaming();
        // Nobody could ever make a name again; there is nothing to go on with.
        if (!InitOnceComplete(&once, 0, nullptr))
            std::terminate();
    }
    return naming;
}

CString makeTempFileName(const wchar_t* prefix, const wchar_t* extension) {
    std::array<wchar_t, 24> counter{};
    swprintf(counter.data(), counter.size(), L"-%llx", nextName.fetch_add(1));

    std::wstring name = prefix && *prefix ? prefix : L"vexelapp";
    name += getTempNaming().processTag.data();
    name += counter.data();
    if (extension) {
        // An empty extension leaves its dot.
        if (*extension != L'.')
            name += L'.';
        name += extension;
    }
    return stringOf(name);
}

} // namespace Vexel::Detail
