#pragma once

#include "support/streams.h"

#include <windows.h>

#include <objidl.h>
#include <wrl/client.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

/// Storages and streams that hold nothing unless told to, tell what they are asked and fail when they are
/// told to.
namespace Support {

/// What a set of fakes was asked, and what they answer.
struct FakeCalls {
    /// The calls so far: their names, the elements' names and the STGM flags, as in "OpenStream Note 0x10".
    std::vector<std::wstring> log;
    /// What the call with this number, counted from 0, answers instead of S_OK.
    std::map<size_t, HRESULT> failures;
    /// What calls that begin so answer, unless `failures` says it.
    std::vector<std::pair<std::wstring, HRESULT>> refused;
    /// Whether what is opened and made is null, whatever the status.
    bool givesNothing = false;
    /// Whether streams that are made are kept in `streams`, to be opened again. Making one is three calls,
    /// for it may fail before and after the old stream is gone, and when the new one is written.
    bool keeps = false;
    std::map<std::wstring, Microsoft::WRL::ComPtr<FaultyStream>> streams;
    /// What listings deliver: names and STGTY values.
    std::vector<std::pair<std::wstring, DWORD>> elements;
    /// What the storages say of their access, and the streams of their size.
    DWORD mode = STGM_READ;
    ULONGLONG size = 0;
    /// The position of the streams, how many bytes they still move, and what such a call ends in all the same
    /// unless `failures` says it.
    ULONGLONG position = 0;
    ULONGLONG available = 0;
    HRESULT moved = E_FAIL;
    /// Runs in each call, if set.
    std::function<void()> during;
    /// Fakes that are alive.
    int alive = 0;

    HRESULT add(const std::wstring& call);
    HRESULT add(const wchar_t* call, const wchar_t* name, DWORD stgm);
    /// The calls since the last time, one a line.
    std::wstring take();
};

/// A storage with its children; they share `calls`, which outlives them.
Microsoft::WRL::ComPtr<IStorage> fakeStorage(FakeCalls& calls);

} // namespace Support
