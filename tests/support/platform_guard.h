#pragma once

#include "paths/platform_files.h"

/// Puts the platform calls back as they were, so that a test may replace some of them.
class PlatformGuard {
public:
    PlatformGuard() = default;
    PlatformGuard(PlatformGuard const&) = delete;
    PlatformGuard& operator=(PlatformGuard const&) = delete;
    ~PlatformGuard() { Vexel::Detail::Platform() = saved_; }

private:
    Vexel::Detail::PlatformFiles saved_ = Vexel::Detail::Platform();
};
