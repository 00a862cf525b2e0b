#pragma once

#include "base/platform.h"

/// Puts the platform calls back as they were, so that a test may replace some of them.
class PlatformGuard {
public:
    PlatformGuard() = default;
    PlatformGuard(const PlatformGuard&) = delete;
    PlatformGuard& operator=(const PlatformGuard&) = delete;
    ~PlatformGuard() { Vexel::Detail::platform() = saved_; }

private:
    Vexel::Detail::Platform saved_ = Vexel::Detail::platform();
};

/// Lets a call of the platform fail with this error, the one of the last such request for a call of this
/// type.
template <class Result, class... Arguments>
void refuse(Result (*&call)(Arguments...), DWORD error) {
    static DWORD code;
    code = error;
    call = [](Arguments...) -> Result {
        SetLastError(code);
        return Result{};
    };
}
