// The encoder is called by its interface for C, from memory to memory: so it needs no window of its own. All
// its memory, of which it takes few and large pieces, comes from the system by the same calls as other
// memory.

#include "archive/item_encoder.h"

#include "base/platform.h"

namespace Vexel::Storage::Engine {

namespace {

/// What an LZMA2 stream of `kLargeItem` bytes takes at most: of each 48 KiB, or less at the end, that do not
/// pack, 3 bytes more, and a last one. The encoder tries before it gives a part up, and must not be short of
/// room for that, or it would depend on the room where one part ends and the next begins.
constexpr std::size_t kTrial = 0x10000 + 16;
constexpr std::size_t kMostPacked = kLargeItem + (kLargeItem >> 10) + kTrial;

void* takePages(ISzAllocPtr /*self*/, std::size_t size) {
    return size > 0 ? Detail::platform().commitPages(size) : nullptr;
}
void givePagesBack(ISzAllocPtr /*self*/, void* pages) {
    if (pages)
        Detail::platform().releasePages(pages);
}
constexpr ISzAlloc kPages{takePages, givePagesBack};

bool reserve(DynamicBuffer& buffer, std::size_t size) noexcept {
    if (buffer.data)
        return true;
    buffer.data = static_cast<unsigned char*>(Detail::platform().reallocate(nullptr, size));
    if (buffer.data)
        buffer.capacity = size;
    return buffer.data != nullptr;
}

/// Asked by the encoder after each part.
struct StopSignal {
    ICompressProgress progress;
    const std::atomic<bool>* isStopped;

    static SRes ask(ICompressProgressPtr progress, UInt64 /*in*/, UInt64 /*out*/) {
        const auto* const self = reinterpret_cast<const StopSignal*>(progress);
        return self->isStopped && *self->isStopped ? SZ_ERROR_PROGRESS : SZ_OK;
    }
};

HRESULT statusOf(SRes result) noexcept {
    switch (result) {
    case SZ_OK:
        return S_OK;
    case SZ_ERROR_MEM:
        return STG_E_INSUFFICIENTMEMORY;
    case SZ_ERROR_PROGRESS:
        return E_ABORT;
    default:
        return E_FAIL;
    }
}

} // namespace

unsigned char* ItemEncoder::room() noexcept { return reserve(room_, kLargeItem) ? room_.data : nullptr; }

bool ItemEncoder::prepare() noexcept {
    if (!room() || !reserve(packed_, kMostPacked))
        return false;
    if (!encoder_)
        encoder_.reset(Lzma2Enc_Create(&kPages, &kPages));
    return encoder_ != nullptr;
}

HRESULT ItemEncoder::pack(std::size_t size, const std::atomic<bool>* isStopped) noexcept {
    packed_.size = 0;
    if (!prepare())
        return STG_E_INSUFFICIENTMEMORY;
    if (const HRESULT status = statusOf(Lzma2Enc_SetProps(encoder_.get(), &settings_)); status != S_OK)
        return status;
    const StopSignal stop{{StopSignal::ask}, isStopped};
    std::size_t count = packed_.capacity;
    const SRes result = Lzma2Enc_Encode2(encoder_.get(), nullptr, packed_.data, &count, nullptr, room_.data,
                                         size, &stop.progress);
    if (result == SZ_OK)
        packed_.size = count;
    return statusOf(result);
}

} // namespace Vexel::Storage::Engine
