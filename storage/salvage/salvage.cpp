#include "storage/compound/compound_layout.h"
#include "storage/salvage/compound_salvage.h"
#include "storage/salvage/package_salvage.h"
#include "storage/salvage/salvage_output.h"

#include <vexel/salvage.h>

#include <array>
#include <new>

namespace Vexel {

namespace {

using namespace Detail::Salvage;

/// The caller's source for readers of compound files.
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
        run(source, output);
        return output.outcome();
    } catch (const Ended&) {
        return SalvageOutcome::Ended;
    } catch (const std::bad_alloc&) {
        return SalvageOutcome::OutOfMemory;
    }
}

} // namespace Vexel
