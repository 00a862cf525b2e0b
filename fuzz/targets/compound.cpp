// The look at compound files on whatever bytes: it ends, reads eight times for a sector at most, and takes
// the memory that the documents say.

#include "fuzz/targets/input.h"
#include "fuzz/targets/memory.h"
#include "storage/compound/compound_check.h"

#include <string_view>

using namespace Vexel::Fuzz;
using namespace Vexel::Detail;

namespace {

class Source final : public CompoundSource {
public:
    explicit Source(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

    std::uint64_t size() const noexcept override { return bytes_.size(); }
    std::size_t read(std::uint64_t offset, std::span<std::byte> target) noexcept override {
        ++reads;
        return readAt(bytes_, offset, target);
    }

    std::size_t reads = 0;

private:
    std::span<const std::uint8_t> bytes_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    bool passes[4];
    for (const auto access :
         {CompoundAccess::Read, CompoundAccess::Copy, CompoundAccess::Snapshot, CompoundAccess::Write}) {
        Source source({data, size});
        const MemoryWatch memory;
        const CompoundVerdict verdict = checkCompound(source, access);
        REQUIRE(memory.most() <= 100'000 + size);
        REQUIRE(source.reads <= 16 + size / 64); // scattered sectors come through one window
        REQUIRE(verdict.status == S_OK || verdict.status == STG_E_INVALIDHEADER ||
                verdict.status == STG_E_DOCFILECORRUPT);
        REQUIRE((verdict.status == S_OK) == (*verdict.what == 0));
        passes[static_cast<int>(access)] = verdict.status == S_OK;
    }
    // What may be copied or changed may be read.
    REQUIRE(passes[0] || !(passes[1] || passes[2] || passes[3]));
    return 0;
}
