// The check of headers on whatever bytes: its verdict does not depend on how they are read, it takes no more
// memory than it says, and the header that it hands on is one.

#include "archive/header_check.h"
#include "archive/start_bytes.h"
#include "fuzz/targets/input.h"
#include "fuzz/targets/memory.h"

using namespace Vexel::Fuzz;
using namespace Vexel::Storage::Engine;

namespace {

class Source final : public HeaderSource {
public:
    Source(std::span<const std::uint8_t> bytes, std::size_t most, std::uint64_t failAt = ~0ULL)
        : bytes_(bytes), most_(most), failAt_(failAt) {}

    std::uint64_t size() const noexcept override { return bytes_.size(); }
    HRESULT read(std::uint64_t offset, std::span<std::byte> target, std::size_t& count) noexcept override {
        REQUIRE(!target.empty() && target.size() <= 0x40000000);
        count = 0;
        if (offset >= failAt_)
            return STG_E_READFAULT;
        if (offset < bytes_.size())
            count = (std::min)({target.size(), bytes_.size() - static_cast<std::size_t>(offset), most_});
        if (count > 0)
            std::memcpy(target.data(), bytes_.data() + offset, count);
        return S_OK;
    }

private:
    std::span<const std::uint8_t> bytes_;
    std::size_t most_;
    std::uint64_t failAt_;
};

bool areSame(const HeaderVerdict& a, const HeaderVerdict& b) {
    return a.fault == b.fault && a.status == b.status && std::string_view(a.what) == b.what &&
           a.where == b.where;
}

void checkVerdict(const HeaderVerdict& verdict) {
    REQUIRE((verdict.fault == HeaderFault::None) == (verdict.status == S_OK));
    REQUIRE((verdict.fault == HeaderFault::None) == (*verdict.what == 0));
    REQUIRE(verdict.fault == HeaderFault::None || FAILED(verdict.status));
}

/// What the engine is to read in place of the file is as sound as that.
void checkPlain(const PlainHeader& plain) {
    constexpr std::uint64_t kEnough = 0x100000;
    REQUIRE(plain.offset >= kStartBytes);
    if (plain.offset > kEnough || plain.bytes.size() > kEnough)
        return;
    std::vector<std::uint8_t> archive(static_cast<std::size_t>(plain.offset) + plain.bytes.size(), 0xAA);
    std::memcpy(archive.data(), plain.start.data(), plain.start.size());
    if (plain.bytes.size() > 0)
        std::memcpy(archive.data() + plain.offset, plain.bytes.data(), plain.bytes.size());
    Source source(archive, ~std::size_t{0});
    PlainHeader again;
    const HeaderVerdict verdict = checkHeaders(source, &again);
    REQUIRE(verdict.fault == HeaderFault::None);
    REQUIRE(again.start == plain.start && again.offset == plain.offset &&
            again.bytes.size() == plain.bytes.size());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span<const std::uint8_t> bytes(data, size);
    Source whole(bytes, ~std::size_t{0});
    PlainHeader plain;
    HeaderVerdict verdict;
    {
        const MemoryWatch memory;
        verdict = checkHeaders(whole, &plain);
        // Unpacked, the packed bytes, and what folders and decoder take.
        REQUIRE(memory.most() <= 0x1000000 + 2049 * size + 64 * 65536 + 0x100000);
    }
    checkVerdict(verdict);
    if (verdict.fault == HeaderFault::None)
        checkPlain(plain);
    Source pieces(bytes, 7);
    REQUIRE(areSame(verdict, checkHeaders(pieces)));
    Source failing(bytes, ~std::size_t{0}, size / 2);
    const HeaderVerdict failed = checkHeaders(failing);
    checkVerdict(failed);
    REQUIRE(failed.fault == HeaderFault::Input ? failed.status == STG_E_READFAULT : areSame(failed, verdict));
    return 0;
}
