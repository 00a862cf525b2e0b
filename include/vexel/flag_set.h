#pragma once

#include <type_traits>

namespace Vexel {

/// A set of flags out of the enumeration `E`, whose enumerators are single bits. One word, passed by value.
template <class E>
class FlagSet {
    static_assert(std::is_enum_v<E>);

public:
    using Bits = std::make_unsigned_t<std::underlying_type_t<E>>;

    constexpr FlagSet() noexcept = default;
    constexpr FlagSet(E flag) noexcept : bits_(static_cast<Bits>(flag)) {}
    constexpr explicit FlagSet(Bits bits) noexcept : bits_(bits) {}

    constexpr Bits bits() const noexcept { return bits_; }
    constexpr bool empty() const noexcept { return bits_ == 0; }
    constexpr explicit operator bool() const noexcept { return bits_ != 0; }

    /// Whether every bit of `flag` is set.
    constexpr bool has(E flag) const noexcept {
        const Bits wanted = static_cast<Bits>(flag);
        return (bits_ & wanted) == wanted;
    }

    constexpr FlagSet& operator|=(FlagSet other) noexcept {
        bits_ |= other.bits_;
        return *this;
    }
    constexpr FlagSet& operator&=(FlagSet other) noexcept {
        bits_ &= other.bits_;
        return *this;
    }
    constexpr FlagSet operator~() const noexcept { return FlagSet(static_cast<Bits>(~bits_)); }

    friend constexpr FlagSet operator|(FlagSet a, FlagSet b) noexcept { return a |= b; }
    friend constexpr FlagSet operator&(FlagSet a, FlagSet b) noexcept { return a &= b; }
    friend constexpr bool operator==(FlagSet, FlagSet) noexcept = default;

private:
    Bits bits_ = 0;
};

} // namespace Vexel
