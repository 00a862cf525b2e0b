// The engine's update makes one encoder and has it pack each item in turn. It gets this one, which lets
// `PackAhead` do the work for all but large items, and hands the finished bytes out.

#include "archive/packing_coder.h"

#include "archive/header_layout.h"
#include "archive/pack_ahead.h"

#include <vexel/com.h>

#include <7zip/Common/RegisterCodec.h>
#include <7zip/Common/StreamUtils.h>
#include <7zip/Compress/Lzma2Decoder.h>
#include <7zip/Compress/Lzma2Encoder.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace NCompress::NLzma2 {

// The engine declares it where it uses it.
// NOLINTNEXTLINE(readability-identifier-naming): its name
HRESULT SetLzma2Prop(PROPID propID, const PROPVARIANT& prop, CLzma2EncProps& lzma2Props);

} // namespace NCompress::NLzma2

namespace Vexel::Storage::Engine {

namespace {

/// What of a stream was read already, and then the rest.
class ResumedInput final : public IUnknownImpl<ISequentialInStream> {
public:
    ResumedInput(std::span<const unsigned char> begun, ISequentialInStream& rest) noexcept
        : begun_(begun), rest_(rest) {}

    HRESULT STDMETHODCALLTYPE Read(void* data, UInt32 size, UInt32* processed) noexcept override {
        if (begun_.empty())
            return rest_.Read(data, size, processed);
        const std::size_t count = (std::min)(begun_.size(), std::size_t{size});
        std::memcpy(data, begun_.data(), count);
        begun_ = begun_.subspan(count);
        if (processed)
            *processed = static_cast<UInt32>(count);
        return S_OK;
    }

private:
    std::span<const unsigned char> begun_;
    ISequentialInStream& rest_;
};

struct EncoderInterfaces : ICompressCoder,
                           ICompressSetCoderProperties,
                           ICompressWriteCoderProperties,
                           ICompressSetCoderPropertiesOpt {};

class PackingCoder final : public IUnknownImpl<EncoderInterfaces> {
public:
    PackingCoder() : PackingCoder(*new NCompress::NLzma2::CEncoder) {}

    /// The engine takes the first reference itself.
    ULONG STDMETHODCALLTYPE AddRef() noexcept override {
        return std::exchange(isTaken_, true) ? IUnknownImpl::AddRef() : numRefs();
    }
    HRESULT STDMETHODCALLTYPE QueryInterface(const GUID& iid, void** ppv) noexcept override;
    HRESULT STDMETHODCALLTYPE SetCoderProperties(const PROPID* ids, const PROPVARIANT* values,
                                                 UInt32 count) noexcept override;
    HRESULT STDMETHODCALLTYPE SetCoderPropertiesOpt(const PROPID* ids, const PROPVARIANT* values,
                                                    UInt32 count) noexcept override;
    HRESULT STDMETHODCALLTYPE WriteCoderProperties(ISequentialOutStream* output) noexcept override {
        return writtenProperties_.WriteCoderProperties(output);
    }
    HRESULT STDMETHODCALLTYPE Code(ISequentialInStream* input, ISequentialOutStream* output,
                                   const UInt64* inSize, const UInt64* outSize,
                                   ICompressProgressInfo* progress) noexcept override;

private:
    explicit PackingCoder(NCompress::NLzma2::CEncoder& encoder) noexcept
        : encoder_(&encoder), properties_(encoder), optionalProperties_(encoder),
          writtenProperties_(encoder) {}

    CMyComPtr<ICompressCoder> encoder_; // the engine's own, and what else it is
    ICompressSetCoderProperties& properties_;
    ICompressSetCoderPropertiesOpt& optionalProperties_;
    ICompressWriteCoderProperties& writtenProperties_;
    PackAhead* packing_ = nullptr;
    UInt64 expectedSize_ = 0;
    bool isTaken_ = false;
};

HRESULT PackingCoder::QueryInterface(const GUID& iid, void** ppv) noexcept {
    if (!ppv)
        return E_POINTER;
    *ppv = nullptr;
    if (iid == IID_ICompressSetCoderProperties)
        *ppv = static_cast<ICompressSetCoderProperties*>(this);
    else if (iid == IID_ICompressSetCoderPropertiesOpt)
        *ppv = static_cast<ICompressSetCoderPropertiesOpt*>(this);
    else if (iid == IID_ICompressWriteCoderProperties)
        *ppv = static_cast<ICompressWriteCoderProperties*>(this);
    else if (iid == IID_ICompressCoder || iid == __uuidof(IUnknown))
        *ppv = static_cast<ICompressCoder*>(this);
    else
        return E_NOINTERFACE;
    AddRef();
    return S_OK;
}

HRESULT PackingCoder::SetCoderProperties(const PROPID* ids, const PROPVARIANT* values,
                                         UInt32 count) noexcept {
    CLzma2EncProps settings;
    Lzma2EncProps_Init(&settings);
    for (UInt32 i = 0; i < count; ++i) {
        if (ids[i] == kPackAheadProperty)
            packing_ = reinterpret_cast<PackAhead*>(values[i].uhVal.QuadPart);
        else if (const HRESULT status = NCompress::NLzma2::SetLzma2Prop(ids[i], values[i], settings);
                 status != S_OK)
            return status;
    }
    settings.numTotalThreads = 1;
    if (packing_)
        packing_->configure(settings);
    return properties_.SetCoderProperties(ids, values, count); // which passes over what it does not know
}

HRESULT PackingCoder::SetCoderPropertiesOpt(const PROPID* ids, const PROPVARIANT* values,
                                            UInt32 count) noexcept {
    for (UInt32 i = 0; i < count; ++i)
        if (ids[i] == NCoderPropID::kExpectedDataSize && values[i].vt == VT_UI8)
            expectedSize_ = values[i].uhVal.QuadPart;
    return optionalProperties_.SetCoderPropertiesOpt(ids, values, count);
}

// The item is read to its end in any case: only then does the engine know its checksum and that it was read.
HRESULT PackingCoder::Code(ISequentialInStream* input, ISequentialOutStream* output, const UInt64* inSize,
                           const UInt64* outSize, ICompressProgressInfo* progress) noexcept {
    if (!packing_ || expectedSize_ >= kLargeItem)
        return encoder_->Code(input, output, inSize, outSize, progress);
    unsigned char* const room = packing_->room();
    if (!room)
        return E_OUTOFMEMORY;
    std::size_t size = kLargeItem;
    if (const HRESULT status = ReadStream(input, room, &size); status != S_OK)
        return status;
    if (size == kLargeItem) { // it has grown
        ResumedInput resumed({room, size}, *input);
        return encoder_->Code(&resumed, output, inSize, outSize, progress);
    }
    std::span<const unsigned char> packed;
    const HRESULT status = packing_->pack(size, packed);
    return status == S_OK ? WriteStream(output, packed.data(), packed.size()) : status;
}

void* createEncoder() { return static_cast<ICompressCoder*>(new PackingCoder); }
void* createDecoder() { return static_cast<ICompressCoder*>(new NCompress::NLzma2::CDecoder); }

constexpr CCodecInfo kLzma2{createDecoder, createEncoder, MethodId::kLzma2, "LZMA2", 1, false};

struct Registration {
    Registration() noexcept { RegisterCodec(&kLzma2); }
};
[[maybe_unused]] const Registration kRegistration;

} // namespace

} // namespace Vexel::Storage::Engine
