#pragma once

#include <objbase.h>

#include <cstddef>
#include <utility>

namespace Microsoft::WRL {

/// A counted reference.
template <class Interface>
class ComPtr {
public:
    ComPtr() noexcept = default;
    ComPtr(std::nullptr_t) noexcept {}
    template <class Other>
    ComPtr(Other* object) noexcept : object_(object) {
        addReference();
    }
    ComPtr(const ComPtr& other) noexcept : object_(other.object_) { addReference(); }
    ComPtr(ComPtr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    template <class Other>
    ComPtr(const ComPtr<Other>& other) noexcept : object_(other.Get()) {
        addReference();
    }
    template <class Other>
    ComPtr(ComPtr<Other>&& other) noexcept : object_(other.Detach()) {}
    ~ComPtr() { Reset(); }
    ComPtr& operator=(ComPtr other) noexcept {
        Swap(other);
        return *this;
    }

    Interface* Get() const noexcept { return object_; }
    Interface* operator->() const noexcept { return object_; }
    explicit operator bool() const noexcept { return object_ != nullptr; }
    Interface** GetAddressOf() noexcept { return &object_; }
    Interface** ReleaseAndGetAddressOf() noexcept {
        Reset();
        return &object_;
    }
    Interface** operator&() noexcept { return ReleaseAndGetAddressOf(); }
    Interface* Detach() noexcept { return std::exchange(object_, nullptr); }
    void Swap(ComPtr& other) noexcept { std::swap(object_, other.object_); }
    template <class Other>
    HRESULT CopyTo(Other** target) const noexcept {
        *target = ComPtr(*this).Detach();
        return S_OK;
    }
    void Reset() noexcept {
        if (Interface* const object = Detach())
            object->Release();
    }
    friend bool operator==(const ComPtr& a, const ComPtr& b) noexcept { return a.object_ == b.object_; }
    friend bool operator==(const ComPtr& a, std::nullptr_t) noexcept { return a.object_ == nullptr; }

private:
    void addReference() noexcept {
        if (object_)
            object_->AddRef();
    }

    Interface* object_ = nullptr;
};

} // namespace Microsoft::WRL
