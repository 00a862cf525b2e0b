#pragma once

#include "fuzz/targets/input.h"

#include <vexel/salvage.h>

#include <map>
#include <set>
#include <string>

/// Salvaging, and the contract of its observer.
namespace Vexel::Fuzz {

class Source final : public SalvageSource {
public:
    explicit Source(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

    std::uint64_t size() const noexcept override { return bytes_.size(); }
    std::size_t read(std::uint64_t offset, std::span<std::byte> target) noexcept override {
        return readAt(bytes_, offset, target);
    }

private:
    std::span<const std::uint8_t> bytes_;
};

/// Every node once, storages before what is in them, as many bytes as are announced.
class Observer final : public SalvageObserver {
public:
    explicit Observer(std::uint64_t stopAfter) : stepsLeft_(stopAfter) {}

    void onFormat(SalvageFormat found) override {
        REQUIRE(format == SalvageFormat::None && nodes_.empty());
        format = found;
    }
    void onDamage(const char* what, std::uint64_t) override {
        REQUIRE(*what != 0);
        isDamaged = true;
    }
    void onStorage(const SalvagedNode& node) override {
        REQUIRE(node.isStorage && !isOpen_);
        meet(node);
    }
    bool onStream(const SalvagedNode& node) override {
        REQUIRE(!node.isStorage && !isOpen_);
        meet(node);
        isOpen_ = true;
        came_ = 0;
        return isTaken_ = ++streams_ % 7 != 0;
    }
    void onBytes(std::span<const std::byte> bytes) override {
        REQUIRE(isOpen_ && isTaken_);
        came_ += bytes.size();
        contents += bytes.size();
        for (const std::byte byte : bytes.first((std::min)(bytes.size(), std::size_t{64})))
            sum_ += std::to_integer<unsigned>(byte);
    }
    void onStreamEnd(const SalvagedNode& node) override {
        if (!isOpen_) { // of a lost one only the end may be told
            REQUIRE(node.state == SalvageState::Lost);
            meet(node);
            isTaken_ = false;
            came_ = 0;
        }
        isOpen_ = false;
        if (isTaken_)
            REQUIRE(node.there == came_);
        REQUIRE(node.state != SalvageState::Whole || node.there == node.size || !isTaken_);
        REQUIRE(node.state != SalvageState::Lost || came_ == 0);
        areWhole = areWhole && node.state == SalvageState::Whole;
    }
    bool onProgress(std::uint64_t) override { return stepsLeft_ == 0 || --stepsLeft_ > 0; }

    /// That were announced, and so may come back.
    std::size_t streams() const { return streams_; }

    SalvageFormat format = SalvageFormat::None;
    std::uint64_t contents = 0;
    bool isDamaged = false;
    bool areWhole = true;

private:
    void meet(const SalvagedNode& node) {
        std::u16string path;
        for (const std::u16string& name : node.path) {
            REQUIRE(!name.empty() && name.find(u'/') == std::u16string::npos);
            REQUIRE(path.empty() || (nodes_.contains(path) && nodes_.at(path)));
            path += u'/' + name;
        }
        REQUIRE(nodes_.emplace(path, node.isStorage).second);
    }

    std::uint64_t stepsLeft_;
    std::map<std::u16string, bool> nodes_; // whether it is a storage
    std::size_t streams_ = 0;
    std::uint64_t came_ = 0;
    unsigned sum_ = 0;
    bool isOpen_ = false;
    bool isTaken_ = false;
};

inline void checkOutcome(SalvageOutcome outcome, const Observer& observer) {
    REQUIRE(outcome != SalvageOutcome::OutOfMemory);
    if (outcome == SalvageOutcome::Whole)
        REQUIRE(!observer.isDamaged && observer.areWhole);
    if (outcome == SalvageOutcome::Nothing)
        REQUIRE(observer.streams() == 0 && observer.contents == 0);
}

} // namespace Vexel::Fuzz
