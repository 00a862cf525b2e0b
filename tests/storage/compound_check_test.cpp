#include "storage/compound/compound_check.h"
#include "storage/compound/compound_layout.h"
#include "support/compound_file.h"
#include "support/compound_image.h"
#include "support/scarce_memory.h"

#include <gtest/gtest.h>

namespace {

using namespace Vexel::Detail;
using Image = Support::CompoundImage;

/// A number of the first DIFAT sector.
std::uint32_t& list(Image& file, std::size_t index) { return file.number(file.number(Image::Difat), index); }

Image sample(const wchar_t* name) { return Image(Support::samplePath(name)); }

TEST(CompoundCheck, RefusesWhatTheSystemWouldNotSurvive) {
    constexpr HRESULT kCorrupt = STG_E_DOCFILECORRUPT;
    const auto tree = [] { return sample(L"foreign-tree.cfb"); };
    const auto sheet = [] { return sample(L"namesdemo.xls"); };
    const auto small = [] { return Image::document({}); };
    const auto row = [] { return Image::line(3, Image::Right); };
    const auto large = [] { return Image::document({12, true}); };
    const auto difat = [] { return Image::document({9, true, 14'000}); };
    const auto longer = [] { return Image::document({9, false, 31'000}); };
    struct Verdicts {
        HRESULT read, copy, snapshot, write;
    };
    constexpr Verdicts kSound{S_OK, S_OK, S_OK, S_OK}, kRefused{kCorrupt, kCorrupt, kCorrupt, kCorrupt},
        kOnlyRead{S_OK, kCorrupt, kCorrupt, kCorrupt}, kNotWritten{S_OK, S_OK, S_OK, kCorrupt},
        kNotInASnapshot{S_OK, S_OK, kCorrupt, S_OK},
        kNone{STG_E_INVALIDHEADER, STG_E_INVALIDHEADER, STG_E_INVALIDHEADER, STG_E_INVALIDHEADER};
    const struct {
        const char* damage;
        Image (*make)();
        void (*apply)(Image&);
        Verdicts expected;
    } cases[] = {
        {"none", tree, [](Image&) {}, kSound},
        {"none", sheet, [](Image&) {}, kSound},
        {"none", large, [](Image&) {}, kSound},
        {"none", difat, [](Image&) {}, kSound},
        {"signature", tree, [](Image& f) { f.number(0) ^= 1; }, kNone},
        {"sector shift", tree, [](Image& f) { f.number(28) ^= 0x10000; }, kRefused},
        {"header cut", tree, [](Image& f) { f.cutTo(511); }, kRefused},
        {"no directory", tree, [](Image& f) { f.number(Image::Directory) = Image::end; }, kRefused},
        {"circle of mini sectors", tree, [](Image& f) { f.number(3, 14) = 14; }, kOnlyRead},
        {"stream with a child", sheet, [](Image& f) { f.element(1, Image::Child) = 2; }, kNotInASnapshot},
        {"no name", tree, [](Image& f) { f.element(4, Image::Type) &= 0xFFFF0000; }, kNotWritten},
        {"FAT sectors not listed", tree, [](Image& f) { f.number(Image::FatSectors) = 4; }, kRefused},
        {"more FAT than counted", tree, [](Image& f) { f.number(Image::Fat + 16) = 9; }, kNotWritten},
        {"FAT sector free", tree, [](Image& f) { f.next(1) = Image::none; }, kNotWritten},
        {"FAT sector of the DIFAT free", difat, [](Image& f) { f.next(list(f, 0)) = Image::none; },
         kNotWritten},
        {"DIFAT sector gone", difat, [](Image& f) { f.cutTo(f.size() - 512); }, kRefused},
        {"DIFAT a circle", longer, [](Image& f) { list(f, 127) = f.number(Image::Difat); }, kRefused},
        {"DIFAT breaks off", longer, [](Image& f) { list(f, 127) = Image::end; }, kRefused},
        {"another first one", difat, [](Image& f) { f.number(Image::Difat) = 0; }, kRefused},
        {"FAT sector listed twice", longer, [](Image& f) { list(f, 3) = list(f, 4); }, kRefused},
        {"FAT sector not listed", longer, [](Image& f) { list(f, 3) = Image::none; }, kRefused},
        {"stream into the DIFAT", difat,
         [](Image& f) { f.next(f.element(1, Image::Start)) = f.number(Image::Difat); }, kRefused},
        {"too much FAT", difat, [](Image& f) { f.number(Image::FatSectors) = 0x40000000; }, kRefused},
        {"chains crossing", sheet, [](Image& f) { f.next(30) = 34; }, kOnlyRead},
        {"stream too long", sheet, [](Image& f) { f.element(1, Image::Size) = 14000; }, kOnlyRead},
        {"last sector gone", tree, [](Image& f) { f.cutTo(f.size() - 512); }, kOnlyRead},
        {"last sector not whole", small, [](Image& f) { f.cutTo(f.size() - 512 + 5000 % 512); }, kSound},
        {"last byte gone", small, [](Image& f) { f.cutTo(f.size() - 513 + 5000 % 512); }, kOnlyRead},
        {"free part of the table cut", large, [](Image& f) { f.cutTo(f.size() - 100); }, kNotWritten},
        {"a chain into what is cut off", large,
         [](Image& f) {
             f.next(f.element(1, Image::Start)) = 1000;
             f.cutTo(f.size() - 100);
         },
         kRefused},
        {"a small stream into what is cut off", small,
         [](Image& f) {
             f.number(Image::MiniFat) = f.follow(f.element(4, Image::Start), 9);
             f.cutTo(f.size() - 510);
         },
         kRefused},
        {"an element cut off", row, [](Image& f) { f.cutTo(f.size() - 8); }, kRefused},
    };
    for (const auto& [damage, make, apply, expected] : cases) {
        Image image = make();
        apply(image);
        const std::pair<CompoundAccess, HRESULT> verdicts[] = {{CompoundAccess::Read, expected.read},
                                                               {CompoundAccess::Copy, expected.copy},
                                                               {CompoundAccess::Snapshot, expected.snapshot},
                                                               {CompoundAccess::Write, expected.write}};
        for (const auto& [access, status] : verdicts) {
            const CompoundVerdict verdict = checkCompound(image, access);
            EXPECT_EQ(verdict.status, status) << damage << static_cast<int>(access) << verdict.what;
        }
    }
}

// Old writers left anything in the upper half of sizes; streams share the numbers of one file's sectors.
TEST(CompoundCheck, HoldsSizesAgainstTheFile) {
    for (const unsigned shift : {9U, 12U}) {
        Image image = Image::document({shift});
        image.element(1, Image::SizeHigh) = 1;
        EXPECT_EQ(checkCompound(image, CompoundAccess::Write).status,
                  shift == 9 ? S_OK : STG_E_DOCFILECORRUPT);
        image.element(1, Image::SizeHigh) = 0;
        image.element(1, Image::Size) = static_cast<std::uint32_t>(image.size() * 16);
        EXPECT_EQ(checkCompound(image, CompoundAccess::Read).status, STG_E_DOCFILECORRUPT);
        image.element(1, Image::Size) /= 2;
        EXPECT_EQ(checkCompound(image, CompoundAccess::Read).status, S_OK);
    }
}

// Each part of the file is read once, and what it takes in memory is no more than it has.
TEST(CompoundCheck, CostsNoMoreThanTheFileHas) {
    Image line = Image::line(15'000, Image::Right);
    Image sectors = Image::document({9, true, 14'000});
    for (Image* const image : {&line, &sectors}) {
        const std::size_t before = AllocatedBytes();
        EXPECT_EQ(checkCompound(*image, CompoundAccess::Read).status, S_OK);
        EXPECT_LE(AllocatedBytes() - before, image->size() + 100'000);
    }
}

} // namespace
