#include "storage/compound/compound_check.h"
#include "storage/compound/compound_layout.h"
#include "support/compound_file.h"
#include "support/compound_image.h"
#include "support/scarce_memory.h"

#include <gtest/gtest.h>

namespace {

using namespace Vexel::Detail;
using Image = Support::CompoundImage;

Image sample(const wchar_t* name) { return Image(Support::samplePath(name)); }

TEST(CompoundCheck, RefusesWhatTheSystemWouldNotSurvive) {
    constexpr HRESULT corrupt = STG_E_DOCFILECORRUPT;
    const auto tree = [] { return sample(L"foreign-tree.cfb"); };
    const auto sheet = [] { return sample(L"namesdemo.xls"); };
    const auto small = [] { return Image::document({}); };
    const auto row = [] { return Image::line(3, Image::Right); };
    const auto large = [] { return Image::document({12, true}); };
    const auto difat = [] { return Image::document({9, true, 14'000}); };
    const struct {
        const char* damage;
        Image (*make)();
        void (*apply)(Image&);
        HRESULT read, copy, snapshot, write;
    } cases[] = {
        {"none", tree, [](Image&) {}, S_OK, S_OK, S_OK, S_OK},
        {"none", sheet, [](Image&) {}, S_OK, S_OK, S_OK, S_OK},
        {"none", large, [](Image&) {}, S_OK, S_OK, S_OK, S_OK},
        {"none", difat, [](Image&) {}, S_OK, S_OK, S_OK, S_OK},
        {"signature", tree, [](Image& f) { f.number(0) ^= 1; }, STG_E_INVALIDHEADER, STG_E_INVALIDHEADER,
         STG_E_INVALIDHEADER, STG_E_INVALIDHEADER},
        {"sector shift", tree, [](Image& f) { f.number(28) ^= 0x10000; }, corrupt, corrupt, corrupt, corrupt},
        {"header cut", tree, [](Image& f) { f.cutTo(511); }, corrupt, corrupt, corrupt, corrupt},
        {"no directory", tree, [](Image& f) { f.number(Image::Directory) = Image::end; }, corrupt, corrupt,
         corrupt, corrupt},
        {"circle of mini sectors", tree, [](Image& f) { f.number(3, 14) = 14; }, S_OK, corrupt, corrupt,
         corrupt},
        {"stream with a child", sheet, [](Image& f) { f.element(1, Image::Child) = 2; }, S_OK, S_OK, corrupt,
         S_OK},
        {"element without a name", tree, [](Image& f) { f.element(4, Image::Type) &= 0xFFFF0000; }, S_OK,
         S_OK, S_OK, corrupt},
        {"FAT sectors not listed", tree, [](Image& f) { f.number(Image::FatSectors) = 4; }, corrupt, corrupt,
         corrupt, corrupt},
        {"more FAT sectors than counted", tree, [](Image& f) { f.number(Image::Fat + 16) = 9; }, S_OK, S_OK,
         S_OK, corrupt},
        {"FAT sector free", tree, [](Image& f) { f.next(1) = Image::none; }, S_OK, S_OK, S_OK, corrupt},
        {"FAT sector free in the DIFAT", difat,
         [](Image& f) { f.next(f.number(f.number(Image::Difat), 0)) = Image::none; }, S_OK, S_OK, S_OK,
         corrupt},
        {"DIFAT sector gone", difat, [](Image& f) { f.cutTo(f.size() - 512); }, corrupt, corrupt, corrupt,
         corrupt},
        {"chains crossing", sheet, [](Image& f) { f.next(30) = 34; }, S_OK, corrupt, corrupt, corrupt},
        {"stream longer than its chain", sheet, [](Image& f) { f.element(1, Image::Size) = 14000; }, S_OK,
         corrupt, corrupt, corrupt},
        {"last sector gone", tree, [](Image& f) { f.cutTo(f.size() - 512); }, S_OK, corrupt, corrupt,
         corrupt},
        {"last sector not whole", small, [](Image& f) { f.cutTo(f.size() - 512 + 5000 % 512); }, S_OK, S_OK,
         S_OK, S_OK},
        {"last byte gone", small, [](Image& f) { f.cutTo(f.size() - 513 + 5000 % 512); }, S_OK, corrupt,
         corrupt, corrupt},
        {"free part of the table cut off", large, [](Image& f) { f.cutTo(f.size() - 100); }, S_OK, S_OK, S_OK,
         corrupt},
        {"a chain into what is cut off", large,
         [](Image& f) {
             f.next(f.element(1, Image::Start)) = 1000;
             f.cutTo(f.size() - 100);
         },
         corrupt, corrupt, corrupt, corrupt},
        {"a small stream into what is cut off", small,
         [](Image& f) {
             f.number(Image::MiniFat) = f.follow(f.element(4, Image::Start), 9);
             f.cutTo(f.size() - 510);
         },
         corrupt, corrupt, corrupt, corrupt},
        {"an element cut off", row, [](Image& f) { f.cutTo(f.size() - 8); }, corrupt, corrupt, corrupt,
         corrupt},
    };
    for (const auto& [damage, make, apply, read, copy, snapshot, write] : cases) {
        Image image = make();
        apply(image);
        const auto check = [&](CompoundAccess access, HRESULT expected) {
            const CompoundVerdict verdict = checkCompound(image, access);
            EXPECT_EQ(verdict.status, expected) << damage << ": " << verdict.what;
        };
        check(CompoundAccess::Read, read);
        check(CompoundAccess::Copy, copy);
        check(CompoundAccess::Snapshot, snapshot);
        check(CompoundAccess::Write, write);
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
