#pragma once

#include <vexel/memory_streams.h>

#include <wrl/client.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <vector>

/// What the targets share: taking the fuzzer's bytes apart, and saying that something does not hold.
namespace Vexel::Fuzz {

/// Holds in release builds as well; a false one is a finding.
#define REQUIRE(condition)                                                                                   \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            std::fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition);              \
            std::abort();                                                                                    \
        }                                                                                                    \
    } while (false)

/// The fuzzer's bytes as a file: how many there are from `offset` on, up to what `target` takes.
inline std::size_t readAt(std::span<const std::uint8_t> bytes, std::uint64_t offset,
                          std::span<std::byte> target) noexcept {
    if (offset >= bytes.size() || target.empty())
        return 0;
    const auto part = bytes.subspan(static_cast<std::size_t>(offset));
    const std::size_t count = (std::min)(target.size(), part.size());
    std::memcpy(target.data(), part.data(), count);
    return count;
}

/// A stream over a copy of the bytes, at its beginning.
inline Microsoft::WRL::ComPtr<Storage::InMemoryIStream> streamOf(std::span<const std::uint8_t> bytes) {
    Microsoft::WRL::ComPtr<Storage::InMemoryIStream> stream;
    *stream.GetAddressOf() = new Storage::InMemoryIStream();
    REQUIRE(stream->write(bytes.data(), bytes.size()) == bytes.size());
    stream->rewind();
    return stream;
}

/// The fuzzer's bytes, from the front. Whoever asks for more than there is gets zeros.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : bytes_(data, size) {}

    bool isEmpty() const { return bytes_.empty(); }
    std::size_t left() const { return bytes_.size(); }

    template <class Number>
    Number number() {
        Number value{};
        const std::span<const std::uint8_t> taken = bytes(sizeof value);
        std::memcpy(&value, taken.data(), taken.size());
        return value;
    }
    std::uint8_t byte() { return number<std::uint8_t>(); }
    /// Of 0 up to `most`.
    std::uint64_t below(std::uint64_t most) {
        return most == ~0ULL ? number<std::uint64_t>() : number<std::uint32_t>() % (most + 1);
    }
    /// Small as a rule, and now and then at one of the places where numbers end.
    std::int64_t offset();

    std::span<const std::uint8_t> bytes(std::size_t count) {
        const auto taken = bytes_.first((std::min)(count, bytes_.size()));
        bytes_ = bytes_.subspan(taken.size());
        return taken;
    }
    std::span<const std::uint8_t> rest() { return bytes(bytes_.size()); }
    /// Text of at most so many units, of exactly as much memory: what reads behind it is caught.
    std::vector<wchar_t> text(std::size_t units) {
        const auto taken = bytes((std::min)(units, bytes_.size() / 2) * 2);
        std::vector<wchar_t> result(taken.size() / 2);
        if (!taken.empty())
            std::memcpy(result.data(), taken.data(), taken.size());
        return result;
    }

private:
    std::span<const std::uint8_t> bytes_;
};

inline std::int64_t Input::offset() {
    static constexpr std::int64_t kEnds[] = {0,         -1,          INT64_MIN,    INT64_MAX,  INT32_MAX,
                                             INT32_MIN, 0x100000000, -0x100000000, 0x7FFFFFFF, 0xFFFFFFFF};
    const std::uint8_t kind = byte();
    if (kind < 200)
        return static_cast<std::int8_t>(kind - 100);
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(kEnds[kind % std::size(kEnds)]) + byte() % 8 -
                                     4);
}

} // namespace Vexel::Fuzz
