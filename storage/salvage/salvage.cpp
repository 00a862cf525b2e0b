#include "storage/compound/compound_layout.h"
#include "storage/salvage/compound_salvage.h"
#include "storage/salvage/package_header.h"
#include "storage/salvage/package_salvage.h"
#include "storage/salvage/salvage_output.h"

#include <vexel/salvage.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <new>

namespace Vexel {

namespace {

using namespace Detail::Salvage;

/// The caller's source with one size, however the file grows or shrinks meanwhile, with nothing behind that,
/// and with no read that has more bytes than it was asked for: tables are as large as the size says.
class BoundedSource final : public SalvageSource {
public:
    explicit BoundedSource(SalvageSource& source) noexcept : source_(source), size_(source.size()) {
        if (size_ >> 63 != 0)
            size_ = 0; // somebody's -1, and going through so much would never end
    }

    std::uint64_t size() const noexcept override { return size_; }
    std::size_t read(std::uint64_t offset, std::span<std::byte> target) noexcept override {
        const std::uint64_t rest = size_ - (std::min)(size_, offset);
        const std::span<std::byte> room = target.first((std::min<std::uint64_t>)(rest, target.size()));
        const std::size_t count = room.empty() ? 0 : source_.read(offset, room);
        return count <= room.size() ? count : 0;
    }

private:
    SalvageSource& source_;
    std::uint64_t size_;
};

/// A source for readers of compound files.
class SourceAdapter final : public Detail::CompoundSource {
public:
    explicit SourceAdapter(SalvageSource& source) noexcept : source_(source) {}

    std::uint64_t size() const noexcept override { return source_.size(); }
    std::size_t read(std::uint64_t offset, std::span<std::byte> target) noexcept override {
        return source_.read(offset, target);
    }

private:
    SalvageSource& source_;
};

bool beginsAsCompoundFile(SalvageSource& source) {
    std::array<std::byte, Detail::Compound::kHeaderBytes> bytes{};
    return source.read(0, bytes) == bytes.size() && Detail::Compound::hasSignature(bytes);
}

/// Of a file that begins as neither, the one format leaves its marks all over it; so that is tried first.
void run(SalvageSource& source, Output& output) {
    SourceAdapter compound(source);
    if (!beginsAsPackage(source))
        salvageCompound(compound, output);
    if (!output.hasFormat() && !beginsAsCompoundFile(source))
        salvagePackage(source, output);
}

} // namespace

SalvageOutcome salvage(SalvageSource& source, SalvageObserver& observer) noexcept {
    try {
        Output output(observer);
        BoundedSource bounded(source);
        run(bounded, output);
        return output.outcome();
    } catch (const Ended&) {
        return SalvageOutcome::Ended;
    } catch (const std::bad_alloc&) {
        return SalvageOutcome::OutOfMemory;
    }
}

} // namespace Vexel
