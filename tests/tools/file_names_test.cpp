#include "tools/vexel/file_names.h"

#include <gtest/gtest.h>

using Vexel::Tool::FileNames;

// Siblings of a package differ by case and encoding where files cannot; no compound file holds such.
TEST(FileNames, GivesEachSiblingAFileOfItsOwn) {
    FileNames names;
    EXPECT_EQ(names.unique(L"Part"), L"Part");
    EXPECT_EQ(names.unique(L"PART"), L"PART%~2");
    EXPECT_EQ(names.unique(L"part"), L"part%~3");
    EXPECT_EQ(names.unique(L"PART%~2"), L"PART%25~2");
    EXPECT_EQ(names.unique(L"\u0427\u0410"), L"\u0427\u0410");
    EXPECT_EQ(names.unique(L"\u0447\u0430"), L"\u0447\u0430%~2");
    EXPECT_EQ(names.unique(L"con"), L"%63on");
    EXPECT_EQ(names.unique(L"CON"), L"%43ON");
    EXPECT_EQ(names.unique(L""), L"%");
    EXPECT_EQ(names.unique(L""), L"%%~2");
}
