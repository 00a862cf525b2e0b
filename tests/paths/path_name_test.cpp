#include "paths/path_name_table.h"
#include "support/compound_file.h"

#include <vexel/path_name.h>

#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

SharedPathName anyCase(std::wstring_view text) { return {text, false, false}; }
SharedPathName exact(std::wstring_view text) { return {text, true, false}; }

TEST(PathName, SharesTheEntryOfTheFirstSpelling) {
    const SharedPathName first = anyCase(LR"(C:\Dir\a.txt)");
    const SharedPathName again = anyCase(LR"(C:\Dir\a.txt)");
    const SharedPathName otherCase = anyCase(LR"(c:\dir\A.TXT)");
    EXPECT_EQ(first, again);
    EXPECT_EQ(first, otherCase);
    EXPECT_STREQ(otherCase.asString(), LR"(C:\Dir\a.txt)");

    const SharedPathName exactOther = exact(LR"(c:\dir\A.TXT)");
    EXPECT_NE(exactOther, first);
    EXPECT_STREQ(exactOther.asString(), LR"(c:\dir\A.TXT)");
    EXPECT_EQ(exact(LR"(C:\Dir\a.txt)"), first) << "an exact request shares an entry of exactly its text";

    const SharedPathName hashedExactly(L"Some Name", false, true);
    EXPECT_NE(hashedExactly, anyCase(L"some name")) << "entries are found among those of one hash only";
}

TEST(PathName, MakesAbsolutePathsCanonicalAndLeavesRelativeOnes) {
    struct Case {
        const wchar_t* text;
        const wchar_t* expected;
    };
    for (const auto& [text, expected] : {
             Case{LR"(C:\a\..\b\.\c.txt)", LR"(C:\b\c.txt)"},
             Case{L"C:/a/b.txt", LR"(C:\a\b.txt)"},
             Case{LR"(a\..\b)", LR"(a\..\b)"},
             Case{L"\x05SummaryInformation", L"\x05SummaryInformation"},
             Case{L"", L""},
             Case{nullptr, L""},
         })
        EXPECT_STREQ(SharedPathName(text, false, false).asString(), expected);

    // Longer than the buffer that is tried first.
    const std::wstring directory = LR"(C:\)" + std::wstring(200, L'd') + LR"(\)" + std::wstring(200, L'e');
    EXPECT_EQ(anyCase(directory + LR"(\x\..\name)").asStringView(), directory + LR"(\name)");
}

// Documents hold these numbers: worked out by hand as h = h * 33 + c over the lower-case units.
TEST(PathName, HashesTheFileNameInLowerCase) {
    EXPECT_EQ(Vexel::Detail::pathNameHash(L"", false), 0U);
    EXPECT_EQ(Vexel::Detail::pathNameHash(L"ab", true), 97U * 33 + 98);
    EXPECT_EQ(Vexel::Detail::pathNameHash(L"AB", false), 97U * 33 + 98);
    EXPECT_EQ(Vexel::Detail::pathNameHash(L"AB", true), 65U * 33 + 66);
    EXPECT_EQ(Vexel::Detail::pathNameHash(std::wstring(200, L'A'), false),
              Vexel::Detail::pathNameHash(std::wstring(200, L'a'), true));
}

TEST(PathName, FindsTheParts) {
    struct Case {
        const wchar_t* path;
        const wchar_t* fileName;
        const wchar_t* extension;
        const wchar_t* directory;
        const wchar_t* directoryPathName;
    };
    for (const Case& c : {
             Case{LR"(C:\Dir\a.txt)", L"a.txt", L".txt", LR"(C:\Dir\)", LR"(C:\Dir)"},
             Case{LR"(C:\Dir\)", LR"(Dir\)", L"", LR"(C:\Dir\)", L"C:"},
             Case{LR"(C:\d.x\name)", L"name", L"", LR"(C:\d.x\)", LR"(C:\d.x)"},
             Case{L"a.b.c", L"a.b.c", L".c", L"", L""},
             Case{LR"(rel\name.)", L"name.", L".", LR"(rel\)", L"rel"},
             Case{L"", L"", L"", L"", L""},
         }) {
        const SharedPathName name = exact(c.path);
        int length = -1;
        EXPECT_STREQ(name.fileName(&length), c.fileName) << name.asString();
        EXPECT_EQ(length, static_cast<int>(wcslen(c.fileName)));
        EXPECT_STREQ(name.fileExtension(true, &length), c.extension);
        EXPECT_EQ(length, static_cast<int>(wcslen(c.extension)));
        EXPECT_STREQ(name.fileExtension(false, &length), *c.extension ? c.extension + 1 : L"");
        EXPECT_STREQ(name.getDirectory().asString(), c.directory);
        EXPECT_STREQ(name.getDirectoryPathName().asString(), c.directoryPathName);
    }
    const SharedPathName directory = anyCase(LR"(C:\Dir\)");
    EXPECT_EQ(&directory.getDirectory(), &directory);
    const SharedPathName drive = directory.getDirectoryPathName();
    EXPECT_EQ(drive.getDirectoryPathName(), drive);
    EXPECT_EQ(drive.getDirectory(), drive);
}

TEST(PathName, IsEditedIntoAnotherEntry) {
    struct Case {
        const wchar_t* text;
        const wchar_t* extension;
        const wchar_t* expected;
    };
    for (const auto& [text, extension, expected] : {
             Case{L"x.TXT", L".txt", L"x.txt"},
             Case{L"x.txt", L".txt", L"x.txt"},
             Case{L"x.txt", nullptr, L"x"},
             Case{L"x", L".doc", L"x.doc"},
             Case{L"", L".doc", L""},
         })
        EXPECT_STREQ(exact(text).changeExtension(extension, true).asString(), expected);
    SharedPathName name = exact(L"a/b/c");
    const SharedPathName before = name;
    EXPECT_STREQ(name.slashNormalize(true).asString(), LR"(a\b\c)");
    EXPECT_STREQ(before.asString(), L"a/b/c");
    EXPECT_STREQ(name.addBackslash(true).asString(), LR"(a\b\c\)");
    EXPECT_STREQ(name.addBackslash(true).asString(), LR"(a\b\c\)");
    EXPECT_TRUE(SharedPathName().addBackslash(false).slashNormalize(false).empty());
}

TEST(PathName, MovesAndSwapsLikeAPointer) {
    const SharedPathName kept = exact(L"moves kept");
    SharedPathName a = kept;
    SharedPathName b = exact(L"moves other");
    a = std::move(b);
    EXPECT_STREQ(a.asString(), L"moves other");
    EXPECT_EQ(b, kept); // NOLINT(bugprone-use-after-move): a move assignment swaps
    const SharedPathName& same = a;
    a = same;
    EXPECT_STREQ(a.asString(), L"moves other");
    const SharedPathName taken = std::move(a);
    EXPECT_TRUE(a.empty()); // NOLINT(bugprone-use-after-move): a move takes the pointer
    EXPECT_EQ(taken.hash() == 0, false);
    EXPECT_EQ(SharedPathName::null.hash(), 0U);
    EXPECT_TRUE(b.clear().empty());
}

TEST(PathName, TellsWhereAPathLies) {
    EXPECT_TRUE(anyCase(LR"(a\b)").isRelative());
    EXPECT_FALSE(anyCase(LR"(C:\b)").isRelative());
    EXPECT_TRUE(anyCase(LR"(\\server\share\x)").isNetwork());
    EXPECT_FALSE(anyCase(LR"(C:\b)").isNetwork());
    EXPECT_FALSE(SharedPathName().isRelative() || SharedPathName().isNetwork());

    const SharedPathName inside = anyCase(LR"(C:\Dir\x)");
    EXPECT_TRUE(inside.isSubPath(anyCase(LR"(C:\dir\)")));
    EXPECT_FALSE(inside.isSubPath(inside));
    EXPECT_TRUE(inside.isSubPath(SharedPathName()));
    EXPECT_TRUE(SharedPathName().isSubPath(SharedPathName()));
    EXPECT_FALSE(SharedPathName().isSubPath(inside));
    EXPECT_TRUE(anyCase(LR"(\\server\share)").isSubPath(CString()));
    EXPECT_FALSE(inside.isSubPath(CString()));
    EXPECT_FALSE(SharedPathName().isSubPath(CString()));
}

TEST(PathName, KeepsFileFactsOnlyWhileABlockLives) {
    const Support::TempFolder folder;
    const std::wstring path = folder.file(L"fact.txt");
    const SharedPathName name = anyCase(path);
    name.setUpToDate(true);
    EXPECT_FALSE(name.isUpToDate()) << "outside a block";
    EXPECT_FALSE(name.fileExists());
    EXPECT_TRUE(name.flags().empty());
    {
        const SharedPathNameFlagsCacheBlock outer;
        {
            const SharedPathNameFlagsCacheBlock inner;
            EXPECT_FALSE(name.fileExists());
            name.setUpToDate(true);
        }
        Support::writeFile(path, "x");
        EXPECT_FALSE(name.fileExists()) << "the first answer stands until the last block ends";
        EXPECT_TRUE(name.isUpToDate());
        name.updateFileExists();
        EXPECT_TRUE(name.fileExists());
        name.setUpToDate(false);
        EXPECT_FALSE(name.isUpToDate());
        EXPECT_TRUE(name.flags().has(SharedPathNameFlag::UpToDateKnown));
    }
    EXPECT_FALSE(name.flags().has(SharedPathNameFlag::FileExistsKnown));
    EXPECT_FALSE(name.flags().has(SharedPathNameFlag::UpToDateKnown));
    std::filesystem::remove(path);
    EXPECT_FALSE(name.fileExists());
    name.updateFileExists();
    EXPECT_FALSE(name.flags().has(SharedPathNameFlag::FileExistsKnown));
}

TEST(PathName, IsForgottenWithItsLastHolder) {
    // Interned again in another case, the text shows whether the old entry was still there.
    for (const wchar_t* spelling : {L"Forgotten Entry", L"FORGOTTEN ENTRY", L"forgotten entry"}) {
        const SharedPathName name = anyCase(spelling);
        EXPECT_STREQ(name.asString(), spelling);
        EXPECT_TRUE(name.getDirectory().empty());
        const SharedPathNameFlagsCacheBlock block;
        name.setUpToDate(true);
    }
}

// Few texts and many threads: an entry is found while its last holder lets it go, over and over.
TEST(PathName, SurvivesContention) {
    const SharedPathName kept = anyCase(LR"(C:\contended\kept.txt)");
    const std::array<std::wstring, 4> texts = {LR"(C:\contended\a.txt)", LR"(C:\contended\b.txt)",
                                               L"relative", LR"(C:\contended\kept.txt)"};
    std::atomic<int> wrong{0};
    std::vector<std::jthread> threads;
    for (unsigned seed = 0; seed < 6; ++seed) {
        threads.emplace_back([&, seed] {
            std::minstd_rand random(seed);
            std::array<SharedPathName, 8> names;
            for (int step = 0; step < 20000; ++step) {
                const std::wstring& text = texts[random() % texts.size()];
                SharedPathName& name = names[random() % names.size()];
                name = anyCase(text);
                const SharedPathName copy = name;
                wrong += copy.asStringView() != text;
                wrong += text == texts[3] && name != kept;
                wrong += name.getDirectory().empty() != (text == texts[2]);
                if (step % 64 == 0) {
                    const SharedPathNameFlagsCacheBlock block;
                    name.setUpToDate(true);
                }
            }
        });
    }
    threads.clear();
    EXPECT_EQ(wrong, 0);
}

} // namespace
