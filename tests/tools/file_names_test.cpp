#include "tools/vexel/file_names.h"

#include <gtest/gtest.h>

using Vexel::Tool::FileNames;

// Siblings of a package differ by case and encoding where files cannot; no compound file holds such.
TEST(FileNames, GivesEachSiblingAFileOfItsOwn) {
    const std::pair<const wchar_t*, const wchar_t*> cases[] = {{L"Part", L"Part"},
                                                               {L"PART", L"PART%~2"},
                                                               {L"part", L"part%~3"},
                                                               {L"PART%~2", L"PART%25~2"},
                                                               {L"\u0427\u0410", L"\u0427\u0410"},
                                                               {L"\u0447\u0430", L"\u0447\u0430%~2"},
                                                               {L"con", L"%63on"},
                                                               {L"CON", L"%43ON"},
                                                               {L"", L"%"},
                                                               {L"", L"%%~2"}};
    FileNames names;
    for (const auto& [name, file] : cases)
        EXPECT_EQ(names.unique(name), file);
}
