#include "support/fake_storage.h"

#include <algorithm>
#include <cwchar>

using Microsoft::WRL::ComPtr;

namespace Support {
namespace {

/// The times of every fake: made at 5, changed at 7.
void setTimes(STATSTG& info) {
    info.ctime.dwLowDateTime = 5;
    info.mtime.dwLowDateTime = 7;
}

template <class Interface>
class Fake : public Vexel::IUnknownImpl<Interface> {
public:
    explicit Fake(FakeCalls& calls) : calls_(calls) { ++calls_.alive; }
    Fake(const Fake&) = delete;
    Fake& operator=(const Fake&) = delete;
    ~Fake() override { --calls_.alive; }

protected:
    /// A new `Made` in `result` if `status` is a success, with the only reference on it.
    template <class Made, class Result>
    HRESULT give(HRESULT status, Result** result) {
        *result = SUCCEEDED(status) && !calls_.givesNothing ? new Made(calls_) : nullptr;
        return status;
    }

    HRESULT stat(STATSTG& info, DWORD flags) {
        setTimes(info);
        return calls_.add(L"Stat " + std::to_wstring(flags));
    }

    FakeCalls& calls_;
};

class FakeStream final : public Fake<::IStream> {
public:
    using Fake::Fake;
    ~FakeStream() override { calls_.add(L"~Stream"); }

    STDMETHODIMP Read(void*, ULONG count, ULONG* done) override { return move(L"Read ", count, done); }
    STDMETHODIMP Write(const void*, ULONG count, ULONG* done) override {
        return move(L"Write ", count, done);
    }
    STDMETHODIMP Seek(LARGE_INTEGER distance, DWORD origin, ULARGE_INTEGER* reached) override {
        const HRESULT status = calls_.add(L"Seek");
        if (SUCCEEDED(status) && origin == STREAM_SEEK_SET)
            calls_.position = static_cast<ULONGLONG>(distance.QuadPart);
        if (reached)
            reached->QuadPart = calls_.position;
        return status;
    }
    STDMETHODIMP SetSize(ULARGE_INTEGER size) override {
        return calls_.add(L"SetSize " + std::to_wstring(size.QuadPart));
    }
    STDMETHODIMP CopyTo(::IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER* written) override {
        *written = {};
        return calls_.add(L"CopyTo");
    }
    STDMETHODIMP Commit(DWORD flags) override { return calls_.add(L"Commit", L"stream", flags); }
    STDMETHODIMP Revert() override { return E_NOTIMPL; }
    STDMETHODIMP LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP Stat(STATSTG* info, DWORD flags) override {
        info->cbSize.QuadPart = calls_.size;
        return stat(*info, flags);
    }
    STDMETHODIMP Clone(::IStream**) override { return E_NOTIMPL; }

private:
    HRESULT move(const wchar_t* call, ULONG count, ULONG* done) {
        const HRESULT status = calls_.add(call + std::to_wstring(count));
        *done = static_cast<ULONG>((std::min)(calls_.available, ULONGLONG{count}));
        calls_.available -= *done;
        return status == S_OK ? calls_.moved : status;
    }
};

class FakeList final : public Fake<IEnumSTATSTG> {
public:
    using Fake::Fake;

    STDMETHODIMP Next(ULONG, STATSTG* entry, ULONG*) override {
        if (const HRESULT status = calls_.add(L"Next"); status != S_OK)
            return status;
        if (next_ == calls_.elements.size())
            return S_FALSE;
        const auto& [name, type] = calls_.elements[next_++];
        *entry = {};
        entry->pwcsName = static_cast<wchar_t*>(CoTaskMemAlloc((name.size() + 1) * sizeof(wchar_t)));
        std::wmemcpy(entry->pwcsName, name.c_str(), name.size() + 1);
        entry->type = type;
        entry->cbSize.QuadPart = next_;
        setTimes(*entry);
        return S_OK;
    }
    STDMETHODIMP Skip(ULONG) override { return E_NOTIMPL; }
    STDMETHODIMP Reset() override { return E_NOTIMPL; }
    STDMETHODIMP Clone(IEnumSTATSTG**) override { return E_NOTIMPL; }

private:
    size_t next_ = 0;
};

class FakeStorage final : public Fake<IStorage> {
public:
    using Fake::Fake;
    ~FakeStorage() override { calls_.add(L"~Storage"); }

    STDMETHODIMP CreateStream(const wchar_t* name, DWORD stgm, DWORD, DWORD, ::IStream** result) override {
        const HRESULT status = calls_.add(L"CreateStream", name, stgm);
        return calls_.keeps && SUCCEEDED(status) ? keep(name, result) : give<FakeStream>(status, result);
    }
    STDMETHODIMP OpenStream(const wchar_t* name, void*, DWORD stgm, DWORD, ::IStream** result) override {
        const HRESULT status = calls_.add(L"OpenStream", name, stgm);
        if (!calls_.keeps || FAILED(status))
            return give<FakeStream>(status, result);
        const auto kept = calls_.streams.find(name);
        if (kept == calls_.streams.end())
            return STG_E_FILENOTFOUND;
        kept->second->rewind();
        return kept->second.CopyTo(result);
    }
    STDMETHODIMP CreateStorage(const wchar_t* name, DWORD stgm, DWORD, DWORD, IStorage** result) override {
        return give<FakeStorage>(calls_.add(L"CreateStorage", name, stgm), result);
    }
    STDMETHODIMP OpenStorage(const wchar_t* name, IStorage*, DWORD stgm, SNB, DWORD,
                             IStorage** result) override {
        const HRESULT status = calls_.add(L"OpenStorage", name, stgm);
        return give<FakeStorage>(calls_.keeps ? STG_E_FILENOTFOUND : status, result);
    }
    STDMETHODIMP EnumElements(DWORD, void*, DWORD, IEnumSTATSTG** result) override {
        return give<FakeList>(calls_.add(L"EnumElements"), result);
    }
    STDMETHODIMP DestroyElement(const wchar_t* name) override {
        calls_.streams.erase(name);
        return calls_.add(std::wstring(L"DestroyElement ") + name);
    }
    STDMETHODIMP Commit(DWORD flags) override { return calls_.add(L"Commit", L"storage", flags); }
    STDMETHODIMP Stat(STATSTG* info, DWORD flags) override {
        info->grfMode = calls_.mode;
        return stat(*info, flags);
    }
    STDMETHODIMP CopyTo(DWORD, const IID*, SNB, IStorage*) override { return calls_.add(L"CopyTo"); }
    STDMETHODIMP MoveElementTo(const wchar_t*, IStorage*, const wchar_t*, DWORD) override {
        return E_NOTIMPL;
    }
    STDMETHODIMP Revert() override { return E_NOTIMPL; }
    STDMETHODIMP RenameElement(const wchar_t*, const wchar_t*) override { return E_NOTIMPL; }
    STDMETHODIMP SetElementTimes(const wchar_t*, const FILETIME*, const FILETIME*, const FILETIME*) override {
        return E_NOTIMPL;
    }
    STDMETHODIMP SetClass(REFCLSID) override { return E_NOTIMPL; }
    STDMETHODIMP SetStateBits(DWORD, DWORD) override { return E_NOTIMPL; }

private:
    HRESULT keep(const wchar_t* name, ::IStream** result) {
        calls_.streams.erase(name);
        if (const HRESULT status = calls_.add(L"made"); FAILED(status))
            return status;
        auto& stream = calls_.streams[name] = Vexel::Detail::adopt(new FaultyStream);
        if (FAILED(calls_.add(L"written")))
            *stream->plan = {FaultyStream::Writing, STG_E_WRITEFAULT};
        return stream.CopyTo(result);
    }
};

} // namespace

HRESULT FakeCalls::add(const std::wstring& call) {
    if (during)
        during();
    log.push_back(call);
    if (const auto failure = failures.find(log.size() - 1); failure != failures.end())
        return failure->second;
    for (const auto& [beginning, status] : refused)
        if (call.starts_with(beginning))
            return status;
    return S_OK;
}

HRESULT FakeCalls::add(const wchar_t* call, const wchar_t* name, DWORD stgm) {
    wchar_t text[80];
    std::swprintf(text, std::size(text), L"%ls %ls 0x%lx", call, name, stgm);
    return add(text);
}

std::wstring FakeCalls::take() {
    std::wstring lines;
    for (const std::wstring& call : std::exchange(log, {}))
        lines += call + L"\n";
    return lines;
}

ComPtr<IStorage> fakeStorage(FakeCalls& calls) {
    ComPtr<IStorage> made;
    *made.GetAddressOf() = new FakeStorage(calls); // some libraries' Attach takes a reference of its own
    return made;
}

} // namespace Support
