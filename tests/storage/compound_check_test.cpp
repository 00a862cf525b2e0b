#include "storage/compound_check.h"
#include "storage/compound_layout.h"
#include "support/compound_file.h"

#include <vexel/framework.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

using namespace Vexel::Detail;

/// A sample in memory, with its numbers within reach. Both samples have sectors of 512 bytes.
class Image final : public CompoundSource {
public:
    explicit Image(const wchar_t* sample) {
        CFile file(Support::samplePath(sample).c_str(), CFile::modeRead);
        grow(static_cast<std::size_t>(file.GetLength()));
        file.Read(numbers_.data(), static_cast<UINT>(size_));
    }

    std::uint64_t size() const noexcept override { return size_; }
    std::size_t read(std::uint64_t offset, std::span<std::byte> target) noexcept override {
        const auto rest = std::as_bytes(std::span(numbers_)).first(size_).subspan((std::min)(offset, size()));
        const std::size_t count = (std::min)(rest.size(), target.size());
        std::copy_n(rest.begin(), count, target.begin());
        return count;
    }

    void cutTo(std::uint64_t length) { size_ = length; }
    std::uint32_t& number(std::size_t offset) { return numbers_[offset / 4]; }
    std::uint32_t& number(std::size_t sector, std::size_t index) {
        return number((sector + 1) * 512 + index * 4);
    }
    std::uint32_t& next(std::uint32_t sector) { return number(number(76 + sector / 128 * 4), sector % 128); }
    /// A field of an element of the directory.
    std::uint32_t& entry(std::uint32_t element, std::size_t field) {
        std::uint32_t sector = number(48);
        for (; element >= 4; element -= 4)
            sector = next(sector);
        return number((sector + 1) * 512 + element * 128 + field);
    }

    /// Adds storages to the foreign tree, each in the one before. Its directory ends with sector 22.
    void nest(unsigned storages) {
        for (unsigned table = 3; table < 11; ++table)
            number(76 + table * 4) = grow(512);
        for (; number(44) < 11; ++number(44))
            next(number(76 + number(44) * 4)) = 0xFFFFFFFD;
        for (std::uint32_t element = 56, last = 22, outer = 3; element < 56 + storages; outer = element++) {
            if (element % 4 == 0) {
                last = next(last) = grow(512);
                next(last) = Compound::kEndOfChain;
            }
            entry(element, 64) = 0x00010004; // the length of the name; a storage
            entry(outer, 76) = element;
        }
    }

private:
    /// Returns the number of the last sector.
    std::uint32_t grow(std::size_t bytes) {
        numbers_.resize((size_ += bytes) / 4, Compound::kNoEntry);
        return static_cast<std::uint32_t>(size_ / 512 - 2);
    }

    std::vector<std::uint32_t> numbers_;
    std::size_t size_ = 0;
};

TEST(CompoundCheck, RefusesWhatTheSystemWouldNotSurvive) {
    constexpr HRESULT corrupt = STG_E_DOCFILECORRUPT;
    constexpr auto *tree = L"foreign-tree.cfb", *sheet = L"namesdemo.xls";
    const struct {
        const char* damage;
        const wchar_t* sample;
        void (*apply)(Image&);
        HRESULT read, write;
    } cases[] = {
        {"none", tree, [](Image&) {}, S_OK, S_OK},
        {"none", sheet, [](Image&) {}, S_OK, S_OK},
        {"signature", tree, [](Image& f) { f.number(0) ^= 1; }, STG_E_INVALIDHEADER, STG_E_INVALIDHEADER},
        {"sector shift", tree, [](Image& f) { f.number(28) ^= 0x10000; }, corrupt, corrupt},
        {"header cut", tree, [](Image& f) { f.cutTo(511); }, corrupt, corrupt},
        {"no directory", tree, [](Image& f) { f.number(48) = Compound::kEndOfChain; }, corrupt, corrupt},
        {"circle in a stream", sheet, [](Image& f) { f.next(5) = 2; }, corrupt, corrupt},
        {"circle in the root's stream", tree, [](Image& f) { f.next(227) = 227; }, corrupt, corrupt},
        {"circle in the directory", tree, [](Image& f) { f.next(10) = 9; }, corrupt, corrupt},
        {"circle in the mini table", tree, [](Image& f) { f.next(4) = 3; }, corrupt, corrupt},
        {"circle of mini sectors", tree, [](Image& f) { f.number(3, 14) = 14; }, S_OK, corrupt},
        {"element reached twice", tree, [](Image& f) { f.entry(6, 68) = 5; }, corrupt, corrupt},
        {"root reached again", tree, [](Image& f) { f.entry(3, 76) = 0; }, corrupt, corrupt},
        {"child out of range", tree, [](Image& f) { f.entry(3, 76) = 1000; }, S_OK, corrupt},
        {"element without a name", tree, [](Image& f) { f.entry(4, 64) &= 0xFFFF0000; }, S_OK, corrupt},
        {"deep", tree, [](Image& f) { f.nest(900); }, S_OK, S_OK},
        {"too deep", tree, [](Image& f) { f.nest(1000); }, corrupt, corrupt},
        {"DIFAT count", tree, [](Image& f) { f.number(72) = 0xFFFFFF; }, corrupt, corrupt},
        {"circle of DIFAT sectors", tree,
         [](Image& f) { f.number(68) = f.number(300, 127) = 300, f.number(72) = 2; }, corrupt, corrupt},
        {"FAT sectors not listed", tree, [](Image& f) { f.number(44) = 4; }, S_OK, corrupt},
        {"FAT sector free", tree, [](Image& f) { f.next(1) = Compound::kFreeSector; }, S_OK, corrupt},
        {"chains crossing", sheet, [](Image& f) { f.next(30) = 34; }, S_OK, corrupt},
        {"chain broken off", tree, [](Image& f) { f.next(227) = Compound::kFreeSector; }, S_OK, corrupt},
        {"stream longer than its chain", sheet, [](Image& f) { f.entry(1, 120) = 14000; }, S_OK, corrupt},
        {"end cut off", tree, [](Image& f) { f.cutTo(f.size() - 512); }, S_OK, corrupt},
    };
    for (const auto& [damage, sample, apply, read, write] : cases) {
        Image image(sample);
        apply(image);
        const CompoundVerdict forReading = checkCompound(image, CompoundAccess::Read);
        EXPECT_EQ(forReading.status, read) << damage << ": " << forReading.what;
        const CompoundVerdict forWriting = checkCompound(image, CompoundAccess::Write);
        EXPECT_EQ(forWriting.status, write) << damage << ": " << forWriting.what;
    }
}

} // namespace
