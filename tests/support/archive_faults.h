#pragma once

#include "base/platform.h"

#include <windows.h>

#include <utility>

namespace Support {

/// Makes one of the archive layer's system calls fail. The calls are back as they were when this goes.
class ArchiveFaults {
public:
    enum Call { Create, Size, Read, Position, SetEnd, Flush, Move, Delete };

    ArchiveFaults() = default;
    ArchiveFaults(const ArchiveFaults&) = delete;
    ArchiveFaults& operator=(const ArchiveFaults&) = delete;
    ~ArchiveFaults() { Calls() = real; }

    /// The call fails after so many of its kind that do not, once or from there on.
    static void arm(Call call, DWORD error, unsigned skipped, bool forGood) {
        plan = {error, skipped, forGood, false};
        (*breaks[call])(Calls());
    }
    /// All calls do what they are meant to. Whether one of them had failed.
    static bool disarm() {
        Calls() = real;
        return std::exchange(plan.hit, false);
    }
    /// What happens beside the next failure.
    static inline void (*alongside)() = nullptr;

private:
    using Platform = Vexel::Detail::Platform;
    struct Plan {
        DWORD error;
        unsigned skipped;
        bool forGood;
        bool hit;
    };

    static Platform& Calls() { return Vexel::Detail::platform(); }
    static bool isStruck() {
        if (plan.skipped > 0) {
            --plan.skipped;
            return false;
        }
        if (plan.hit && !plan.forGood)
            return false;
        plan.hit = true;
        if (alongside)
            std::exchange(alongside, nullptr)();
        SetLastError(plan.error);
        return true;
    }
    template <auto Call, class... Arguments>
    static BOOL WINAPI strike(Arguments... arguments) {
        return !isStruck() && (real.*Call)(arguments...);
    }
    static HANDLE WINAPI create(const wchar_t* name, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
                                DWORD how, DWORD flags, HANDLE model) {
        return isStruck() ? INVALID_HANDLE_VALUE
                          : real.createFile(name, access, share, security, how, flags, model);
    }

    static inline const Platform real = Vexel::Detail::platform();
    static inline Plan plan{};
    // The engine reads through the same calls when it opens the file, copies packed data and decodes.
    static inline void (*const breaks[])(Platform& calls) = {
        [](Platform& p) { p.createFile = create; },
        [](Platform& p) { p.getFileSize = strike<&Platform::getFileSize>; },
        [](Platform& p) { p.readFile = strike<&Platform::readFile>; },
        [](Platform& p) { p.setPosition = strike<&Platform::setPosition>; },
        [](Platform& p) { p.setEndOfFile = strike<&Platform::setEndOfFile>; },
        [](Platform& p) { p.flushFile = strike<&Platform::flushFile>; },
        [](Platform& p) { p.moveFile = strike<&Platform::moveFile>; },
        [](Platform& p) { p.deleteFile = strike<&Platform::deleteFile>; }};
};

} // namespace Support
