#pragma once

#include <vexel/salvage.h>

#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Vexel::Detail::Salvage {

/// Where there may be bytes again behind one that cannot be read: no disk has smaller sectors.
constexpr std::uint64_t nextSector(std::uint64_t offset) noexcept {
    constexpr std::uint64_t kSectorBytes = 512;
    return (offset / kSectorBytes + 1) * kSectorBytes;
}

/// Thrown when the observer wants the work to end, and caught where it began.
struct Ended {};

/// What the parts of the work tell the observer. Counts what is not as it was.
class Output {
public:
    explicit Output(SalvageObserver& observer) noexcept : observer_(observer) {}

    void format(SalvageFormat format) {
        hasFormat_ = true;
        observer_.onFormat(format);
    }
    void damage(const char* what, std::uint64_t where) {
        if (isQuiet_)
            return;
        if (isHolding_) {
            held_.push_back({what, where});
            return;
        }
        ++losses_;
        observer_.onDamage(what, where);
    }
    /// From now on damage is kept, until it is known whether it is this file's.
    void hold() noexcept { isHolding_ = true; }
    /// Tells what was kept, or forgets it.
    void release(bool isTold) {
        isHolding_ = false;
        for (const auto& [what, where] : std::exchange(held_, {}))
            if (isTold)
                damage(what, where);
    }
    /// Throws Ended.
    void progress(std::uint64_t bytes) {
        if (!observer_.onProgress(bytes))
            throw Ended{};
    }
    void storage(const SalvagedNode& node) { observer_.onStorage(node); }
    bool stream(const SalvagedNode& node) {
        ++nodes_;
        return observer_.onStream(node);
    }
    void bytes(std::span<const std::byte> bytes) { observer_.onBytes(bytes); }
    void streamEnd(const SalvagedNode& node) {
        losses_ += node.state != SalvageState::Whole;
        observer_.onStreamEnd(node);
    }
    void countNode() noexcept { ++nodes_; }

    SalvageOutcome outcome() const noexcept {
        if (nodes_ == 0 && losses_ > 0)
            return SalvageOutcome::Nothing;
        return losses_ > 0 ? SalvageOutcome::Losses : SalvageOutcome::Whole;
    }
    /// Whether it has been told what the file is.
    bool hasFormat() const noexcept { return hasFormat_; }

    /// While one lives, damage is not told: what is done is a trial.
    class Quiet {
    public:
        explicit Quiet(Output& output) noexcept : output_(output) { output_.isQuiet_ = true; }
        Quiet(const Quiet&) = delete;
        Quiet& operator=(const Quiet&) = delete;
        ~Quiet() { output_.isQuiet_ = false; }

    private:
        Output& output_;
    };

private:
    struct Damage {
        const char* what;
        std::uint64_t where;
    };

    SalvageObserver& observer_;
    std::vector<Damage> held_;
    std::uint64_t nodes_ = 0;
    std::uint64_t losses_ = 0;
    bool hasFormat_ = false;
    bool isQuiet_ = false;
    bool isHolding_ = false;
};

/// The names that are given away in one storage.
class SiblingNames {
public:
    /// `name` without what no name may have, and unlike those of the siblings: with a number behind it where
    /// there is one already.
    std::u16string take(std::u16string name) {
        for (char16_t& unit : name)
            if (unit == u'/')
                unit = u'_';
        if (name.empty())
            name = u"unnamed";
        std::u16string free = name;
        // The number goes on from the last one: thousands may want one name.
        while (!taken_.insert(free).second) {
            free = name + u" (";
            for (const char digit : std::to_string(++number_))
                free += static_cast<char16_t>(digit);
            free += u")";
        }
        return free;
    }

private:
    std::set<std::u16string> taken_;
    unsigned number_ = 1;
};

} // namespace Vexel::Detail::Salvage
