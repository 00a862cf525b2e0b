#include "paths/path_name_hash.h"
#include "paths/path_name_table.h"
#include "support/compound_file.h"
#include "support/scarce_memory.h"

#include <vexel/path_name.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <locale>
#include <new>
#include <random>
#include <string>

using namespace std::literals;

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
    EXPECT_EQ(anyCase(LR"(C:\DIR\A.TXT)"), first) << "of two that match, the one that came first is found";

    const SharedPathName hashedExactly(L"Some Name", false, true);
    EXPECT_NE(hashedExactly, anyCase(L"some name")) << "entries are found among those of one hash only";
}

TEST(PathName, MakesAbsolutePathsCanonicalAndLeavesRelativeOnes) {
    const std::pair<const wchar_t*, const wchar_t*> cases[] = {
        {LR"(C:\a\..\b\.\c.txt)", LR"(C:\b\c.txt)"},
        {L"C:/a/b.txt", LR"(C:\a\b.txt)"},
        {LR"(a\..\b)", LR"(a\..\b)"},
        {L"\x05SummaryInformation", L"\x05SummaryInformation"},
        {nullptr, L""},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_STREQ(SharedPathName(text, false, false).asString(), expected);

    // A view need not end with a zero; one inside ends the path for the system, but not a relative text.
    EXPECT_EQ(anyCase(LR"(C:\a\b\c)"sv.substr(0, 6)).asStringView(), LR"(C:\a\b)");
    EXPECT_EQ(anyCase(L"C:\\a\0b"sv).asStringView(), LR"(C:\a)");
    EXPECT_EQ(anyCase(L"a\0b"sv).asStringView(), L"a\0b"sv);

    // Longer than the buffer that is tried first.
    const std::wstring directory = LR"(C:\)" + std::wstring(200, L'd') + LR"(\)" + std::wstring(200, L'e');
    EXPECT_EQ(anyCase(directory + LR"(\x\..\name)").asStringView(), directory + LR"(\name)");
}

// A text that is canonical by its looks is taken as it stands; the system would not think otherwise.
TEST(PathName, TakesForCanonicalWhatTheSystemTakesForIt) {
    const wchar_t* const pieces[] = {L"\\",   L"/",       L".",   L"..",   L" ",      L":",   L"a",
                                     L"Name", L"b.vxl",   L"nul", L"COM1", L"conin$", L"lpt", L"\x01",
                                     L"\xE9", L"con.txt", L"?",   L"*",    L"Common"};
    std::mt19937 random(20'000); // NOLINT(cert-msc51-cpp): the same each time
    int unchanged = 0;
    for (int round = 0; round < 20'000; ++round) {
        std::wstring path = round % 5 == 0 ? L"c:" : L"C:\\";
        for (unsigned count = random() % 6; count > 0; --count)
            path += pieces[random() % (round % 2 == 0 ? 9 : std::size(pieces))] +
                    std::wstring(random() % 2, L'\\');
        wchar_t full[MAX_PATH];
        ASSERT_NE(GetFullPathNameW(path.c_str(), MAX_PATH, full, nullptr), 0U);
        unchanged += path == full ? 1 : 0;
        EXPECT_EQ(exact(path).asStringView(), full) << path;
    }
    EXPECT_GT(unchanged, 1000);
}

class FoldsAllToX : public std::ctype<wchar_t> {
protected:
    wchar_t do_tolower(wchar_t) const override { return L'x'; }
};
class Raises : public std::ctype<wchar_t> {
protected:
    wchar_t do_tolower(wchar_t unit) const override { return unit == L'b' ? throw "no such letter" : L'x'; }
};

// Documents hold these numbers: h = h * 33 + c over the units, folded by the global locale.
TEST(PathName, HashesInLowerCase) {
    using Vexel::Detail::pathNameHash;
    EXPECT_EQ(pathNameHash(L"", false), 0U);
    EXPECT_EQ(pathNameHash(L"AB", true), 65U * 33 + 66);
    const std::wstring text = L"@AZ[`az{ \x0416\x0436 long enough to wrap";
    std::wstring folded = text;
    std::use_facet<std::ctype<wchar_t>>(std::locale::classic())
        .tolower(folded.data(), folded.data() + folded.size());
    EXPECT_EQ(folded.substr(0, 8), L"@az[`az{");
    EXPECT_EQ(pathNameHash(text, false), pathNameHash(folded, true));

    const std::locale before = std::locale::global(std::locale(std::locale(), new FoldsAllToX));
    EXPECT_EQ(pathNameHash(L"ab", false), pathNameHash(L"xx", true));
    std::locale::global(std::locale(before, new Raises));
    EXPECT_EQ(pathNameHash(L"ab", false), pathNameHash(L"ab", true)) << "taken as it is when folding fails";
    std::locale::global(before);
}

TEST(PathName, FindsTheParts) {
    const struct {
        const wchar_t *path, *fileName, *extension, *directory, *directoryPathName;
    } cases[] = {{LR"(C:\Dir\)", LR"(Dir\)", L"", LR"(C:\Dir\)", L"C:"},
                 {LR"(rel\name.c)", L"name.c", L".c", LR"(rel\)", L"rel"},
                 {L"", L"", L"", L"", L""}};
    for (const auto& c : cases) {
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
    const SharedPathName& drive = directory.getDirectoryPathName();
    EXPECT_EQ(drive.getDirectory(), drive);
}

TEST(PathName, IsEditedIntoAnotherEntry) {
    constexpr const wchar_t* kChanges[][3] = {{L"x.TXT", L".txt", L"x.txt"},
                                              {L"x.txt", L".txt", L"x.txt"},
                                              {L"x.txt", nullptr, L"x"},
                                              {L"x", L".doc", L"x.doc"},
                                              {L"", L".doc", L""}};
    for (const auto& [text, extension, expected] : kChanges)
        EXPECT_STREQ(exact(text).changeExtension(extension, true).asString(), expected);
    SharedPathName name = exact(L"a/b/c");
    const SharedPathName before = name;
    EXPECT_STREQ(name.slashNormalize(true).asString(), LR"(a\b\c)");
    EXPECT_STREQ(before.asString(), L"a/b/c");
    EXPECT_STREQ(name.addBackslash(true).addBackslash(true).asString(), LR"(a\b\c\)");
    EXPECT_TRUE(SharedPathName().addBackslash(false).slashNormalize(false).empty());
}

TEST(PathName, MovesAndSwapsLikeAPointer) {
    const SharedPathName kept = exact(L"moves kept");
    SharedPathName a = kept;
    SharedPathName b = exact(L"moves other");
    a = std::move(b);
    EXPECT_STREQ(a.asString(), L"moves other");
    EXPECT_EQ(b, kept); // NOLINT(bugprone-use-after-move): a move assignment swaps
    const SharedPathName taken = std::move(a);
    EXPECT_TRUE(a.empty()); // NOLINT(bugprone-use-after-move): a move takes the pointer
    EXPECT_NE(taken.hash(), 0U);
    EXPECT_EQ(SharedPathName::null.hash(), 0U);
    EXPECT_TRUE(b.clear().empty());
}

TEST(PathName, TellsWhereAPathLies) {
    EXPECT_TRUE(anyCase(LR"(a\b)").isRelative());
    EXPECT_TRUE(anyCase(LR"(\\server\share\x)").isNetwork());
    EXPECT_FALSE(SharedPathName().isRelative());
    EXPECT_FALSE(SharedPathName().isNetwork());

    const SharedPathName null, inside = anyCase(LR"(C:\Dir\x)");
    EXPECT_TRUE(inside.isSubPath(anyCase(LR"(C:\dir\)")));
    EXPECT_FALSE(inside.isSubPath(inside));
    EXPECT_TRUE(inside.isSubPath(null));
    EXPECT_FALSE(null.isSubPath(inside));
    EXPECT_TRUE(anyCase(LR"(\\server\share)").isSubPath(CString()));
    EXPECT_FALSE(inside.isSubPath(CString()));
}

TEST(PathName, KeepsFileFactsOnlyWhileABlockLives) {
    const Support::TempFolder folder;
    const std::wstring path = folder.file(L"fact.txt");
    const SharedPathName name = anyCase(path);
    name.setUpToDate(true);
    EXPECT_FALSE(name.isUpToDate()) << "outside a block";
    EXPECT_FALSE(name.fileExists());
    EXPECT_TRUE(name.flags().empty());
    EXPECT_FALSE(name.isRelative());
    EXPECT_FALSE(name.isNetwork());
    const auto lasting = name.flags().bits();
    EXPECT_EQ(lasting, 0x140U) << "known, and neither";
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
    EXPECT_EQ(name.flags().bits(), lasting | 0x2) << "a value without its known bit means nothing, and stays";
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

// Between the count's fall to 0 and the look into the table, another thread may take the entry up.
TEST(PathName, ATakenUpEntryIsDestroyedOnce) {
    using namespace Vexel::Detail;
    constexpr std::uint32_t kHash = 7;
    SharedPathEntry* const entry = internPathName(L"Taken Up", kHash, true);
    entry->count = 0; // the first holder goes
    EXPECT_EQ(internPathName(L"taken up", kHash, false), entry);
    destroyUnusedEntry(entry, kHash); // the first holder looks: in use
    EXPECT_STREQ(internPathName(L"taken up", kHash, false)->text.GetString(), L"Taken Up");
    entry->count = 0;                 // the others go
    destroyUnusedEntry(entry, kHash); // one of them destroys it
    destroyUnusedEntry(entry, kHash); // the other finds nothing, and must not touch what is no more
    SharedPathEntry* const next = internPathName(L"TAKEN UP", kHash, false);
    EXPECT_STREQ(next->text.GetString(), L"TAKEN UP");
    next->count = 0;
    destroyUnusedEntry(next, kHash);
}

TEST(PathName, WithoutMemoryTheTableStaysAsItWas) {
    const SharedPathName directory = anyCase(LR"(C:\Scarce)");
    SharedPathName name = directory;
    const unsigned failures = Support::sweepFaults([&](unsigned spared) {
        try {
            return WithFailingAllocation(spared, [&] { name = anyCase(LR"(C:\Scarce\Memory)"); });
        } catch (CMemoryException* error) {
            error->Delete();
            EXPECT_STREQ(anyCase(LR"(C:\scarce\memory)").asString(), LR"(C:\scarce\memory)")
                << "none was left";
            return true;
        }
    });
    EXPECT_GE(failures, 2U) << "an entry and its place in the table";
    EXPECT_STREQ(name.asString(), LR"(C:\Scarce\Memory)");
}

} // namespace
