// The engine's copying coder is made anew for every item that is copied, and with it its buffer: a save of
// ten thousand items would spend most of its time in getting pages from the system. The build has the coder
// call these functions for the buffer instead.

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <memory>

extern "C" {
void* VexelTakeCopyBuffer(std::size_t size);
void VexelReturnCopyBuffer(void* buffer);
}

namespace {

/// Comes before each buffer, and keeps what follows it aligned.
struct alignas(std::max_align_t) BufferHeader {
    std::size_t size;
};

struct FreeBuffer {
    void operator()(BufferHeader* buffer) const noexcept { std::free(buffer); }
};
using Buffer = std::unique_ptr<BufferHeader, FreeBuffer>;

/// The one buffer that waits for its next use.
class KeptBuffer {
public:
    KeptBuffer() = default;
    KeptBuffer(const KeptBuffer&) = delete;
    KeptBuffer& operator=(const KeptBuffer&) = delete;
    ~KeptBuffer() { exchange({}); }

    Buffer exchange(Buffer buffer) noexcept { return Buffer(kept_.exchange(buffer.release())); }

private:
    std::atomic<BufferHeader*> kept_{nullptr};
};

KeptBuffer kept;

} // namespace

void* VexelTakeCopyBuffer(std::size_t size) {
    Buffer buffer = kept.exchange({});
    if (!buffer || buffer->size != size) {
        buffer.reset(static_cast<BufferHeader*>(std::malloc(sizeof(BufferHeader) + size)));
        if (!buffer)
            return nullptr;
        buffer->size = size;
    }
    return buffer.release() + 1;
}

void VexelReturnCopyBuffer(void* buffer) {
    if (buffer)
        kept.exchange(Buffer(static_cast<BufferHeader*>(buffer) - 1));
}
