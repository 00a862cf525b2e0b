#pragma once

#include <utility>

namespace Vexel::Detail {

/// Owns one reference on an item of the tree. Items travel between the container, the tree and the handles in
/// this form, so that a clean-up on another thread never meets an item that is about to be used with a count
/// of 0: whoever hands an item out takes the reference before it gives up the lock.
template <class Item>
class ItemRef {
public:
    ItemRef() noexcept = default;
    /// Takes a reference of its own; null is allowed.
    explicit ItemRef(Item* item) noexcept : item_(item) {
        if (item_)
            item_->addRef();
    }
    ItemRef(ItemRef&& other) noexcept : item_(other.detach()) {}
    ItemRef& operator=(ItemRef&& other) noexcept {
        ItemRef(std::move(other)).swap(*this);
        return *this;
    }
    ItemRef(const ItemRef&) = delete;
    ItemRef& operator=(const ItemRef&) = delete;
    ~ItemRef() {
        if (item_)
            item_->release();
    }

    Item* get() const noexcept { return item_; }
    Item* operator->() const noexcept { return item_; }
    explicit operator bool() const noexcept { return item_ != nullptr; }

    /// Hands the reference over to the caller, who releases it.
    [[nodiscard]] Item* detach() noexcept { return std::exchange(item_, nullptr); }
    void swap(ItemRef& other) noexcept { std::swap(item_, other.item_); }

private:
    Item* item_ = nullptr;
};

} // namespace Vexel::Detail
