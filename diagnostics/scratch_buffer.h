#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <utility>

namespace Vexel::Detail {

/// Memory for a text: the stack where it fits, else the heap. Running out of memory is an answer here,
/// because a message may be about just that.
template <class Character, std::size_t FixedSize>
class ScratchBuffer {
public:
    /// Whether there is room for `size` characters now; otherwise everything stays as it was.
    bool reserve(std::size_t size) noexcept {
        if (size <= size_)
            return true;
        std::unique_ptr<Character[]> grown(new (std::nothrow) Character[size]());
        if (!grown)
            return false;
        heap_ = std::move(grown);
        size_ = size;
        return true;
    }

    Character* data() noexcept { return heap_ ? heap_.get() : fixed_; }
    std::size_t size() const noexcept { return size_; }

private:
    Character fixed_[FixedSize] = {};
    std::unique_ptr<Character[]> heap_;
    std::size_t size_ = FixedSize;
};

} // namespace Vexel::Detail
