// A string's head tells its manager, to which its memory goes back, and the manager finds the block by the
// pointer that stands before the head. That manager is one for all pools and lasts as long as the library: a
// string may use its manager even after it has given its memory back.

#include "archive/name_pool.h"

#include "base/text.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>
#include <utility>

namespace Vexel::Storage {

/// Its strings follow it.
struct NameBlock {
    std::size_t size; // in bytes, with this head
    std::size_t used;
    std::atomic<std::size_t> users; // strings, and the pool

    std::byte* take(std::size_t bytes) noexcept {
        users.fetch_add(1, std::memory_order_relaxed);
        return reinterpret_cast<std::byte*>(this) + std::exchange(used, used + bytes);
    }
};

namespace {

// A small archive needs one small block. No more than a large one can be left of a great many names.
constexpr std::size_t kSmallestBlock = 0x400;
constexpr std::size_t kLargestBlock = 0x10000;
/// A name that takes more than this gets memory of its own.
constexpr std::size_t kLongName = 0x800;

struct NameHead {
    NameBlock* block = nullptr;
    CStringData data;
};

std::size_t nameBytes(int length, int characterSize) noexcept {
    const std::size_t bytes =
        sizeof(NameHead) + (static_cast<std::size_t>(length) + 1) * static_cast<std::size_t>(characterSize);
    return (bytes + alignof(NameHead) - 1) / alignof(NameHead) * alignof(NameHead);
}

NameBlock* makeBlock(std::size_t size) {
    return new (::operator new(size)) NameBlock{.size = size, .used = sizeof(NameBlock), .users = 1};
}

void release(NameBlock* block) noexcept {
    if (block && block->users.fetch_sub(1, std::memory_order_acq_rel) == 1)
        ::operator delete(block);
}

/// Of names that are made: has them give their memory back, and has the framework do the rest.
class NameManager : public IAtlStringMgr {
public:
    CStringData* Allocate(int length, int characterSize) noexcept override {
        return CString().GetManager()->Allocate(length, characterSize);
    }
    void Free(CStringData* data) noexcept override {
        release(reinterpret_cast<NameHead*>(reinterpret_cast<std::byte*>(data) - offsetof(NameHead, data))
                    ->block);
    }
    CStringData* Reallocate(CStringData* data, int length, int characterSize) noexcept override {
        CStringData* moved = Allocate(length, characterSize);
        if (!moved)
            return nullptr;
        std::memcpy(moved->data(), data->data(),
                    (static_cast<std::size_t>(data->nDataLength) + 1) *
                        static_cast<std::size_t>(characterSize));
        moved->nDataLength = data->nDataLength;
        Free(data);
        return moved;
    }
    CStringData* GetNilString() noexcept override { return CString().GetManager()->GetNilString(); }
    IAtlStringMgr* Clone() noexcept override { return this; }
};

constinit NameManager names;

/// Makes a name in a block, which has room for it.
class NameMaker final : public NameManager {
public:
    explicit NameMaker(NameBlock& block) noexcept : block_(block) {}
    CStringData* Allocate(int length, int characterSize) noexcept override {
        auto* head = new (block_.take(nameBytes(length, characterSize))) NameHead;
        head->block = &block_;
        head->data.pStringMgr = &names;
        head->data.nDataLength = 0;
        head->data.nAllocLength = length;
        head->data.nRefs = 1;
        return &head->data;
    }

private:
    NameBlock& block_;
};

} // namespace

NamePool::~NamePool() { release(block_); }

CString NamePool::make(std::wstring_view text) {
    const auto length = static_cast<int>(text.size());
    const std::size_t bytes = nameBytes(length, sizeof(wchar_t));
    if (bytes > kLongName)
        return Detail::stringOf(text);
    if (!block_ || bytes > block_->size - block_->used) {
        const std::size_t size = block_ ? (std::min)(block_->size * 2, kLargestBlock) : kSmallestBlock;
        release(std::exchange(block_, makeBlock((std::max)(size, sizeof(NameBlock) + bytes))));
    }
    NameMaker maker(*block_);
    return {text.data(), length, &maker};
}

} // namespace Vexel::Storage
