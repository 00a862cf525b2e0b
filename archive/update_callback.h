#pragma once

#include "archive/engine_api.h"

#include <vexel/com.h>

namespace Vexel::Storage::Engine {

/// What the engine's update asks its caller: here all but the contents, `GetStream`. It is never asked for
/// properties, as it gets a list of the items, and nobody waits for its progress.
template <class Interface = IArchiveUpdateCallback>
class UpdateCallbackBase : public IUnknownImpl<Interface> {
public:
    HRESULT STDMETHODCALLTYPE SetTotal(UInt64 /*total*/) noexcept override { return S_OK; }
    HRESULT STDMETHODCALLTYPE SetCompleted(const UInt64* /*done*/) noexcept override { return S_OK; }
    HRESULT STDMETHODCALLTYPE GetUpdateItemInfo(UInt32 /*index*/, Int32* /*newData*/,
                                                Int32* /*newProperties*/,
                                                UInt32* /*indexInArchive*/) noexcept override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetProperty(UInt32 /*index*/, PROPID /*property*/,
                                          PROPVARIANT* /*value*/) noexcept override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE SetOperationResult(Int32 /*result*/) noexcept override { return S_OK; }
};

} // namespace Vexel::Storage::Engine
