#pragma once

#include <vexel/com.h>

#include <windows.h>

#include <objidl.h>
#include <wrl/client.h>

#include <functional>
#include <utility>

namespace Support {

/// How a call fails: before it does anything, when the old element is gone, or when all is done.
enum class Fault { None, Before, Midway, After };

/// A storage of the system's, and those below it, with failures of the calls that open, make, destroy and
/// commit.
class FaultyStorage final : public Vexel::IUnknownImpl<IStorage> {
public:
    /// Asked at each call; the status is that of a failure.
    static inline std::function<std::pair<Fault, HRESULT>()> draw;

    explicit FaultyStorage(Microsoft::WRL::ComPtr<IStorage> inner) : inner_(std::move(inner)) {}

    STDMETHODIMP CreateStream(const wchar_t* name, DWORD stgm, DWORD, DWORD, ::IStream** made) override {
        return run(name, made, [&](auto** result) { return inner_->CreateStream(name, stgm, 0, 0, result); });
    }
    STDMETHODIMP OpenStream(const wchar_t* name, void*, DWORD stgm, DWORD, ::IStream** made) override {
        return run(nullptr, made,
                   [&](auto** result) { return inner_->OpenStream(name, nullptr, stgm, 0, result); });
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
    STDMETHODIMP Stat(STATSTG* info, DWORD flags) override { return inner_->Stat(info, flags); }
    STDMETHODIMP EnumElements(DWORD, void*, DWORD, IEnumSTATSTG** list) override {
        return inner_->EnumElements(0, nullptr, 0, list);
    }
    STDMETHODIMP CopyTo(DWORD, const IID*, SNB, IStorage*) override { return E_NOTIMPL; }
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
    /// `replaced` is what the call takes away first.
    template <class Interface, class Call>
    HRESULT run(const wchar_t* replaced, Interface** made, Call call) {
        const auto [fault, failure] = draw();
        Microsoft::WRL::ComPtr<Interface> result;
        if (fault == Fault::Midway && replaced)
            inner_->DestroyElement(replaced);
        const HRESULT status =
            fault == Fault::None || fault == Fault::After ? call(result.GetAddressOf()) : S_OK;
        if (made)
            *made = fault == Fault::None ? result.Detach() : nullptr;
        return fault == Fault::None ? status : failure;
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
