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
