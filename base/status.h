#pragma once

#include <windows.h>

namespace Vexel::Detail {

/// A Win32 error as a status of the storage facility, where the codes keep their numbers. Always a failure:
/// a call that failed has failed, also where the system names no error.
constexpr HRESULT storageStatus(DWORD error) noexcept {
    return static_cast<HRESULT>(0x80030000UL | (error & 0xFFFF));
}

/// What the engine or a stream came to, as a status of ours: S_OK or a failure. The one success is S_OK, but
/// not all failures are negative: the engine has 0x20000002 for contents that do not match their checksum and
/// S_FALSE for data that it cannot read. Those become `otherwise`.
constexpr HRESULT asStatus(HRESULT result, HRESULT otherwise = E_FAIL) noexcept {
    return result == S_OK || FAILED(result) ? result : otherwise;
}

/// A call's status with everything but S_OK as a failure. Storages and streams of others know more successes;
/// none of them means that all of it was done.
constexpr HRESULT outcomeOf(HRESULT status) noexcept { return asStatus(status, STG_E_READFAULT); }

/// The first failure of a stream. The engine passes some on under another name, and others not at all.
class FirstFailure {
public:
    HRESULT status() const noexcept { return status_; }
    HRESULT note(HRESULT status) noexcept {
        if (status_ == S_OK)
            status_ = status;
        return status;
    }
    /// The failure, if there was one; else what the engine came to.
    HRESULT orElse(HRESULT result) const noexcept { return status_ == S_OK ? result : status_; }

private:
    HRESULT status_ = S_OK;
};

} // namespace Vexel::Detail
