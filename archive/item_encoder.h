#pragma once

#include <vexel/memory_streams.h>

#include <windows.h>

#include <Lzma2Enc.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <span>

namespace Vexel::Storage::Engine {

/// Items of this size and larger are left to the engine's own encoder, which packs the blocks of one item on
/// several threads. It need not be the dictionary's size.
constexpr std::size_t kLargeItem = 0x100000;

/// Packs contents that are in memory whole, as an LZMA2 stream of one block. What comes out depends on the
/// settings and the contents alone. The encoder stays from one item to the next, for making one takes longer
/// than packing a small item does. An object is used by one thread at a time.
///
/// It takes memory when it is first used: up to 7 MiB for the encoder, and twice `kLargeItem`.
class ItemEncoder {
public:
    /// `settings` are for one thread, stay, and are looked at when something is packed.
    explicit ItemEncoder(const CLzma2EncProps& settings) noexcept : settings_(settings) {}

    /// `kLargeItem` bytes to put contents into; null when there is no memory.
    unsigned char* room() noexcept;

    /// Packs the first `size` bytes of the room, less than `kLargeItem`. Ends soon after `isStopped`, if
    /// given, has become true.
    ///  - STG_E_INSUFFICIENTMEMORY
    ///  - E_ABORT: it was stopped.
    ///  - E_FAIL: the encoder failed otherwise.
    HRESULT pack(std::size_t size, const std::atomic<bool>* isStopped) noexcept;

    /// What it came to, until the next item.
    std::span<const unsigned char> packed() const noexcept { return {packed_.data, packed_.size}; }

private:
    struct Destroy {
        void operator()(CLzma2Enc* encoder) const noexcept { Lzma2Enc_Destroy(encoder); }
    };

    bool prepare() noexcept;

    const CLzma2EncProps& settings_;
    std::unique_ptr<CLzma2Enc, Destroy> encoder_;
    DynamicBuffer room_;
    DynamicBuffer packed_;
};

} // namespace Vexel::Storage::Engine
