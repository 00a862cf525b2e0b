#pragma once

#include "fuzz/targets/input.h"

#include <vexel/byte_streams.h>

/// A byte stream of the fuzzer's bytes.
namespace Vexel::Fuzz {

class ByteSource final : public vxio::IReadStream {
public:
    /// At most `most` bytes come at once.
    explicit ByteSource(std::span<const std::uint8_t> bytes, std::size_t most = ~std::size_t{0})
        : bytes_(bytes), most_(most) {}

    unsigned long long SeekToEnd() override { return position_ = bytes_.size(); }
    void SeekToBegin() override { position_ = 0; }
    unsigned long long GetLength() override { return bytes_.size(); }
    unsigned long long Seek(SeekPosition origin, long long offset) override {
        const std::size_t from = origin == Begin ? 0 : origin == Current ? position_ : bytes_.size();
        const long long target = static_cast<long long>(from) + offset;
        if (target >= 0 && target <= static_cast<long long>(bytes_.size()))
            position_ = static_cast<std::size_t>(target);
        return position_;
    }
    unsigned long long GetPosition() const override { return position_; }
    unsigned long long ReadBytes(void* buffer, unsigned long long count) override {
        const std::size_t taken =
            (std::min)({static_cast<std::size_t>(count), bytes_.size() - position_, most_});
        if (taken > 0)
            std::memcpy(buffer, bytes_.data() + position_, taken);
        position_ += taken;
        return taken;
    }

private:
    std::span<const std::uint8_t> bytes_;
    std::size_t most_;
    std::size_t position_ = 0;
};

} // namespace Vexel::Fuzz
