#pragma once

#include "support/platform_guard.h"

#include <algorithm>

/// While it lives, files are read in pieces, and of the calls that read, `count` from `first` on fail with
/// the error, or with none just end.
class BadReads {
public:
    BadReads(int first, int count, DWORD error) {
        first_ = first;
        count_ = count;
        error_ = error;
        calls_ = 0;
        Vexel::Detail::platform().readFile = readFile;
    }
    BadReads(const BadReads&) = delete;
    BadReads& operator=(const BadReads&) = delete;

    /// How many there were, the bad ones among them.
    int calls() const { return calls_; }

private:
    static BOOL WINAPI readFile(HANDLE file, void* bytes, DWORD size, DWORD* done, OVERLAPPED* overlapped) {
        constexpr DWORD kPiece = 30'001; // cuts wide characters
        const int call = calls_++;
        *done = 0;
        if (call < first_ || call - first_ >= count_)
            return ReadFile(file, bytes, (std::min)(size, kPiece), done, overlapped);
        SetLastError(error_);
        return error_ == ERROR_SUCCESS;
    }

    static inline int first_, count_, calls_;
    static inline DWORD error_;
    PlatformGuard guard_;
};

/// Calls `attempt(first, count)` with one bad read at each place, and with all from there on, until the place
/// is behind the last; it returns how many reads there were.
template <class Attempt>
void sweepBadReads(const Attempt& attempt) {
    constexpr int kAll = 1 << 30;
    for (const int count : {1, kAll})
        for (int first = 0, calls = 1; first < calls; ++first)
            calls = attempt(first, count);
}
