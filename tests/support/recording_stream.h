#pragma once

#include <vexel/com.h>

#include <windows.h>

#include <objidl.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

namespace Support {

/// A COM stream of ones that tells what it is asked and answers as it is told to.
class RecordingStream final : public Vexel::IUnknownImpl<::IStream> {
public:
    HRESULT status = S_OK;
    /// How many bytes a call moves at most, and how many it claims on top of that.
    unsigned long long most = ~0ULL;
    ULONG excess = 0;
    /// How many calls move nothing before that.
    int idle = 0;

    /// The calls since the last time, with their numbers, as in "Read 10, Seek 5 0, ".
    std::string take() { return std::exchange(calls_, {}); }

    STDMETHODIMP QueryInterface(const GUID& iid, void** ppv) noexcept override {
        record("QueryInterface");
        return iid == IID_IPersist ? hand(ppv) : IUnknownImpl::QueryInterface(iid, ppv);
    }
    STDMETHODIMP Read(void* to, ULONG cb, ULONG* read) noexcept override {
        const HRESULT moved = move("Read", cb, read);
        std::memset(to, 1, (std::min)(cb, *read));
        return moved;
    }
    STDMETHODIMP Write(const void* from, ULONG cb, ULONG* written) noexcept override {
        return move(from ? "Write" : "WriteNull", cb, written);
    }
    STDMETHODIMP Seek(LARGE_INTEGER to, DWORD origin, ULARGE_INTEGER* reached) noexcept override {
        if (reached)
            reached->QuadPart = static_cast<ULONGLONG>(to.QuadPart);
        return record("Seek", static_cast<ULONGLONG>(to.QuadPart), origin);
    }
    STDMETHODIMP SetSize(ULARGE_INTEGER size) noexcept override { return record("SetSize", size.QuadPart); }
    STDMETHODIMP CopyTo(::IStream* /*to*/, ULARGE_INTEGER cb, ULARGE_INTEGER* read,
                        ULARGE_INTEGER* written) noexcept override {
        read->QuadPart = (std::min)(cb.QuadPart, most) + excess;
        if (written)
            written->QuadPart = read->QuadPart;
        return record("CopyTo", cb.QuadPart);
    }
    STDMETHODIMP Commit(DWORD flags) noexcept override { return record("Commit", flags); }
    STDMETHODIMP Revert() noexcept override { return record("Revert"); }
    STDMETHODIMP LockRegion(ULARGE_INTEGER at, ULARGE_INTEGER cb, DWORD type) noexcept override {
        return record("LockRegion", at.QuadPart, cb.QuadPart + type);
    }
    STDMETHODIMP UnlockRegion(ULARGE_INTEGER at, ULARGE_INTEGER cb, DWORD type) noexcept override {
        return record("UnlockRegion", at.QuadPart, cb.QuadPart + type);
    }
    STDMETHODIMP Stat(STATSTG* entry, DWORD flag) noexcept override {
        if (entry && SUCCEEDED(status)) {
            *entry = {};
            entry->type = STGTY_STREAM;
            entry->cbSize.QuadPart = 1000;
        }
        return record("Stat", flag);
    }
    STDMETHODIMP Clone(::IStream** clone) noexcept override {
        *clone = SUCCEEDED(status) ? new RecordingStream() : nullptr;
        return record("Clone");
    }

private:
    template <class... Numbers>
    HRESULT record(const char* call, Numbers... numbers) {
        calls_ += call;
        ((calls_ += " " + std::to_string(numbers)), ...);
        calls_ += ", ";
        return status;
    }
    HRESULT move(const char* call, ULONG cb, ULONG* moved) {
        *moved = 0;
        if (idle-- <= 0)
            *moved = static_cast<ULONG>((std::min)(static_cast<unsigned long long>(cb), most)) + excess;
        return record(call, cb);
    }

    std::string calls_;
};

} // namespace Support
