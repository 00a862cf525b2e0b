#pragma once

#include "support/handles.h"
#include "support/log_capture.h"
#include "support/platform_guard.h"

#include <vexel/temp_files.h>

#include <windows.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>

namespace Support {

/// While it lives, what a clean-up does that the library asks the application for before a second attempt.
/// The function says whether anything was freed.
class CleanUp {
public:
    static inline int runs;

    explicit CleanUp(std::function<bool()> run) {
        runs = 0;
        body_ = std::move(run);
        container().setDeleteUnusedObjectsCallback([] { return ++runs && body_(); });
    }
    CleanUp(const CleanUp&) = delete;
    CleanUp& operator=(const CleanUp&) = delete;
    ~CleanUp() { container().setDeleteUnusedObjectsCallback(nullptr); }

private:
    static inline std::function<bool()> body_;
};

/// A folder of its own, with the place of a document in it, and a quiet log. At the end no root stays open,
/// and the platform's calls are the system's again.
template <class Base = testing::Test>
class StorageTest : public Base {
protected:
    ~StorageTest() override { container().deleteUnusedObjects(); }

    static Vexel::Detail::Platform& platform() { return Vexel::Detail::platform(); }
    /// Temporary files are deleted by a background thread.
    template <class IsGone>
    static bool isSoon(IsGone isGone) {
        for (int i = 0; i < 1000; ++i, Sleep(10)) {
            TempFileContainer::Instance().clear();
            if (isGone())
                return true;
        }
        return false;
    }
    /// Whether nobody has the document's file open.
    bool released() const {
        const HANDLE handle =
            CreateFileW(file_.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        return handle != INVALID_HANDLE_VALUE && CloseHandle(handle);
    }

    const TempFolder folder_;
    const std::wstring file_ = folder_.file(L"document.xls");
    const SharedPathName path_ = path(file_);
    LogCapture log_;
    PlatformGuard platformGuard_;
};

} // namespace Support
