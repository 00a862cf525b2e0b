#pragma once

#include <vexel/com.h>

#include <windows.h>

#include <objidl.h>
#include <wrl/client.h>

#include <functional>
#include <utility>

namespace Support {

/// How a call fails: before it does anything, when the old element is gone, or when all is done; or it tells
/// of more bytes than it was to move, and is a success.
enum class Fault { None, Before, Midway, After, Excess };

using Draw = std::function<std::pair<Fault, HRESULT>()>;

/// A stream of the system's, with failures of what reads, changes and asks it.
class FaultyElement final : public Vexel::IUnknownImpl<::IStream> {
public:
    FaultyElement(::IStream* inner, const Draw& draw) : draw_(draw) { *inner_.GetAddressOf() = inner; }

    STDMETHODIMP Read(void* data, ULONG size, ULONG* done) override {
        return move(&::IStream::Read, data, size, done);
    }
    STDMETHODIMP Write(const void* data, ULONG size, ULONG* done) override {
        return move(&::IStream::Write, data, size, done);
    }
    STDMETHODIMP Seek(LARGE_INTEGER to, DWORD origin, ULARGE_INTEGER* at) override {
        return run([&] { return inner_->Seek(to, origin, at); });
    }
    STDMETHODIMP SetSize(ULARGE_INTEGER size) override {
        return run([&] { return inner_->SetSize(size); });
    }
    STDMETHODIMP CopyTo(::IStream* to, ULARGE_INTEGER size, ULARGE_INTEGER* read,
                        ULARGE_INTEGER* written) override {
        return run([&] { return inner_->CopyTo(to, size, read, written); });
    }
    STDMETHODIMP Commit(DWORD flags) override {
        return run([&] { return inner_->Commit(flags); });
    }
    STDMETHODIMP Stat(STATSTG* info, DWORD flags) override {
        return run([&] { return inner_->Stat(info, flags); });
    }
    STDMETHODIMP Revert() override {
        return run([&] { return inner_->Revert(); });
    }
    STDMETHODIMP LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP Clone(::IStream** clone) override {
        Microsoft::WRL::ComPtr<::IStream> made;
        const HRESULT status = run([&] { return inner_->Clone(&made); });
        *clone = status == S_OK ? new FaultyElement(made.Detach(), draw_) : nullptr;
        return status;
    }

private:
    template <class Call>
    HRESULT run(Call call) {
        const auto [fault, failure] = draw_();
        const bool isSuccess = fault == Fault::None || fault == Fault::Excess;
        const HRESULT status = isSuccess || fault == Fault::After ? call() : failure;
        return isSuccess ? status : failure;
    }
    /// Midway through, half of the bytes are moved.
    template <class Call, class Data>
    HRESULT move(Call call, Data data, ULONG size, ULONG* done) {
        const auto [fault, failure] = draw_();
        ULONG count = 0;
        const ULONG moved = fault == Fault::Midway ? size / 2 : size;
        const HRESULT status = fault == Fault::Before ? failure : (inner_.Get()->*call)(data, moved, &count);
        if (done)
            *done = fault == Fault::Excess ? size + 4096 : count;
        return fault == Fault::Before || fault == Fault::After ? failure : status;
    }

    Microsoft::WRL::ComPtr<::IStream> inner_;
    const Draw& draw_;
};

/// A storage of the system's, and those below it, with failures of the calls that open, make, destroy and
/// commit.
class FaultyStorage final : public Vexel::IUnknownImpl<IStorage> {
public:
    /// Asked at each call; the status is that of a failure.
    static inline Draw draw;
    /// Whether streams fail, too, and the calls that copy and list.
    static inline bool includesStreams = false;

    static constexpr GUID kInner{
        0x6ac2b6f1, 0x1b7e, 0x4d0e, {0x8f, 0x3a, 0x52, 0x90, 0x11, 0x7e, 0x4c, 0x01}};

    explicit FaultyStorage(Microsoft::WRL::ComPtr<IStorage> inner) : inner_(std::move(inner)) {}

    STDMETHODIMP CreateStream(const wchar_t* name, DWORD stgm, DWORD, DWORD, ::IStream** made) override {
        return wrapStream(made, run(name, made, [&](auto** result) {
                              return inner_->CreateStream(name, stgm, 0, 0, result);
                          }));
    }
    STDMETHODIMP OpenStream(const wchar_t* name, void*, DWORD stgm, DWORD, ::IStream** made) override {
        return wrapStream(made, run(nullptr, made, [&](auto** result) {
                              return inner_->OpenStream(name, nullptr, stgm, 0, result);
                          }));
    }
    STDMETHODIMP CreateStorage(const wchar_t* name, DWORD stgm, DWORD, DWORD, IStorage** made) override {
        return wrap(made, run(stgm & STGM_CREATE ? name : nullptr, made, [&](auto** result) {
                        return inner_->CreateStorage(name, stgm, 0, 0, result);
                    }));
    }
    STDMETHODIMP OpenStorage(const wchar_t* name, IStorage*, DWORD stgm, SNB, DWORD,
                             IStorage** made) override {
        return wrap(made, run(nullptr, made, [&](auto** result) {
                        return inner_->OpenStorage(name, nullptr, stgm, nullptr, 0, result);
                    }));
    }
    STDMETHODIMP DestroyElement(const wchar_t* name) override {
        return run<IStorage>(name, nullptr, [&](auto**) { return inner_->DestroyElement(name); });
    }
    STDMETHODIMP Commit(DWORD flags) override {
        return run<IStorage>(nullptr, nullptr, [&](auto**) { return inner_->Commit(flags); });
    }
    STDMETHODIMP Stat(STATSTG* info, DWORD flags) override {
        const auto call = [&](auto**) { return inner_->Stat(info, flags); };
        return includesStreams ? run<IStorage>(nullptr, nullptr, call) : inner_->Stat(info, flags);
    }
    STDMETHODIMP EnumElements(DWORD, void*, DWORD, IEnumSTATSTG** list) override {
        const auto call = [&](auto** result) { return inner_->EnumElements(0, nullptr, 0, result); };
        return includesStreams ? run(nullptr, list, call) : call(list);
    }
    STDMETHODIMP QueryInterface(const GUID& iid, void** ppv) noexcept override {
        return iid == kInner ? inner_.CopyTo(reinterpret_cast<IStorage**>(ppv))
                             : IUnknownImpl::QueryInterface(iid, ppv);
    }
    /// Between the system's own: it does not survive all failures of a target.
    STDMETHODIMP CopyTo(DWORD, const IID*, SNB, IStorage* to) override {
        if (!includesStreams)
            return E_NOTIMPL;
        Microsoft::WRL::ComPtr<IStorage> target;
        if (to->QueryInterface(kInner, reinterpret_cast<void**>(target.GetAddressOf())) != S_OK)
            target = to;
        return run<IStorage>(nullptr, nullptr,
                             [&](auto**) { return inner_->CopyTo(0, nullptr, nullptr, target.Get()); });
    }
    STDMETHODIMP MoveElementTo(const wchar_t*, IStorage*, const wchar_t*, DWORD) override {
        return E_NOTIMPL;
    }
    STDMETHODIMP Revert() override { return E_NOTIMPL; }
    STDMETHODIMP RenameElement(const wchar_t*, const wchar_t*) override { return E_NOTIMPL; }
    STDMETHODIMP SetElementTimes(const wchar_t*, const FILETIME*, const FILETIME*, const FILETIME*) override {
        return E_NOTIMPL;
    }
    STDMETHODIMP SetClass(REFCLSID id) override {
        return includesStreams ? run<IStorage>(nullptr, nullptr, [&](auto**) { return inner_->SetClass(id); })
                               : E_NOTIMPL;
    }
    STDMETHODIMP SetStateBits(DWORD, DWORD) override { return E_NOTIMPL; }

private:
    /// `replaced` is what the call takes away first.
    template <class Interface, class Call>
    HRESULT run(const wchar_t* replaced, Interface** made, Call call) {
        auto [fault, failure] = draw();
        if (fault == Fault::Excess)
            fault = Fault::None;
        Microsoft::WRL::ComPtr<Interface> result;
        if (fault == Fault::Midway && replaced)
            inner_->DestroyElement(replaced);
        const HRESULT status =
            fault == Fault::None || fault == Fault::After ? call(result.GetAddressOf()) : S_OK;
        if (made)
            *made = fault == Fault::None ? result.Detach() : nullptr;
        return fault == Fault::None ? status : failure;
    }
    static HRESULT wrapStream(::IStream** made, HRESULT status) {
        if (status == S_OK && includesStreams)
            *made = new FaultyElement(*made, draw);
        return status;
    }
    static HRESULT wrap(IStorage** made, HRESULT status) {
        if (status == S_OK) {
            Microsoft::WRL::ComPtr<IStorage> inner;
            *inner.GetAddressOf() = *made;
            *made = new FaultyStorage(inner);
        }
        return status;
    }

    Microsoft::WRL::ComPtr<IStorage> inner_;
};

} // namespace Support
