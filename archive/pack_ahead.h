#pragma once

#include "archive/item_encoder.h"
#include "archive/monitor.h"

#include <vexel/memory_streams.h>

#include <windows.h>

#include <objidl.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

/// Packing on all processors, while one thread writes the archive.
///
///     the engine's thread    reach(3)  read item 3, pack(), write    reach(4)  ...
///                               |            ^ compare               (packs item 7 while 4 is not ready)
///     jobs   1 2 done and gone  3 packed     4 being packed    5 packed    6 being packed    7 8 9 waiting
///                               '---------------- the window: packed bytes ----------------'
///     workers                                each takes the first that waits, as long as the window has room
///
/// The engine asks for one item after the other, in an order that is known before, reads each, and wants its
/// packed bytes. Workers read and pack the next items meanwhile. When the engine comes to one, its packed
/// bytes are used if size and CRC-32, the two that the archive records, are those of the bytes that the
/// engine has read. Contents that were changed in between are packed anew from what was read.
///
/// While an item is with a worker, the engine's thread packs others ahead itself rather than wait, so there
/// is one thread for each processor, and when no thread can be had, the same is done by that one alone. (A
/// large item, which the engine packs itself, may have threads of the engine's beside these.)
///
/// Packed bytes depend only on an item's contents (`ItemEncoder`), so the archive is the same whoever packs.
/// Memory is bounded: an `ItemEncoder` for each thread, and `kWindow`; what the engine needs for a large item
/// comes on top.
///
/// A worker that fails, because an item cannot be read or memory is short, ends the packing ahead for all.
/// Nothing is reported from there: the engine's thread does by itself what is left, and meets the fault, if
/// it lasts, where it would have met it alone.
namespace Vexel::Storage::Engine {

class PackAhead {
public:
    /// An item that is to be packed. Its stream is used by one thread at a time.
    struct Item {
        unsigned index;      ///< by which the engine asks for it
        ::IStream* contents; ///< or null, for one that cannot be packed ahead
        std::uint64_t size;  ///< about
    };
    /// Packed bytes that wait for the engine.
    static constexpr std::size_t kWindow = std::size_t{16} << 20;

    /// How many workers pay, of `threads` that may work, the engine's included: 8 at most, however many
    /// processors there are, for their memory.
    static std::size_t usefulWorkers(std::span<const Item> items, unsigned threads) noexcept;

    /// `items` in the order in which the engine will come to them. Where it comes to another one, nothing
    /// more is packed ahead. Starts nothing.
    PackAhead(std::span<const Item> items, unsigned threads);
    PackAhead(const PackAhead&) = delete;
    PackAhead& operator=(const PackAhead&) = delete;
    /// Stops all workers, wherever they are, and waits for them.
    ~PackAhead();

    // For the engine's thread:

    /// How to pack; before the first item.
    void configure(const CLzma2EncProps& settings) noexcept { settings_ = settings; }
    /// To be called before the item's stream is touched, which nobody else uses from then on.
    void reach(unsigned index) noexcept;
    /// Where to read the item to: `kLargeItem` bytes; null when there is no memory.
    unsigned char* room() noexcept { return own_.room(); }
    /// Packs the item reached, of which `size` bytes, less than `kLargeItem`, were read. `packed` is valid
    /// until the next item. The statuses are those of `ItemEncoder::pack`.
    HRESULT pack(std::size_t size, std::span<const unsigned char>& packed) noexcept;

private:
    enum class State : std::uint8_t {
        Waiting, ///< for somebody to pack it
        Packing, ///< with a thread
        Packed,  ///< ahead of the engine
        Left     ///< to the engine's thread
    };
    struct Job {
        explicit Job(const Item& announced) noexcept
            : item(announced), state(isFor(item) ? State::Waiting : State::Left) {}

        Item item;
        State state;
        std::uint32_t crc = 0; ///< of the contents that were packed
        std::size_t size = 0;  ///< of these
        DynamicBuffer packed;
    };
    using Lock = std::unique_lock<Monitor>;

    static bool isFor(const Item& item) noexcept { return item.contents && item.size < kLargeItem; }
    void start() noexcept;
    void work() noexcept;
    Job* claim() noexcept;
    void packAhead(Job& job, ItemEncoder& encoder, Lock& lock) noexcept;
    bool fill(Job& job, ItemEncoder& encoder) const noexcept;
    void stop() noexcept;

    const std::size_t workerCount_;
    CLzma2EncProps settings_{};
    ItemEncoder own_{settings_}; // the engine's thread's
    std::vector<std::thread> workers_;
    std::atomic<bool> isStopped_{false};

    Monitor monitor_;        // guards what follows
    Monitor::Change packed_; // some job is no longer with a thread
    Monitor::Change room_;   // of the window, or it is over
    std::vector<Job> jobs_;
    Job* current_ = nullptr;  // which the engine has come to
    std::size_t reached_ = 0; // jobs up to that one
    std::size_t next_ = 0;    // jobs before this one do not wait
    std::size_t used_ = 0;    // of the window
};

} // namespace Vexel::Storage::Engine
