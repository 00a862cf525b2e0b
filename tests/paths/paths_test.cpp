#include "base/platform.h"
#include "support/platform_guard.h"

#include <vexel/paths.h>

#include <windows.h>

#include <objbase.h>
#include <shlobj.h>

#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <vector>

using namespace Vexel;
namespace fs = std::filesystem;

namespace {

constexpr std::size_t kNpos = std::wstring_view::npos;

struct NameCase {
    std::wstring_view path;
    std::size_t name;
    std::size_t nameIgnoringSeparators;
    std::size_t extension;
};

TEST(PathText, FindsNameAndExtension) {
    const NameCase cases[] = {
        {L"", 0, 0, kNpos},
        {L"a.txt", 0, 0, 1},
        {L"C:a.txt", 2, 2, 3},
        {L"C:", 2, 2, kNpos},
        {L"C:\\", 3, 2, kNpos},
        {L"1:a.b", 0, 0, 3},
        {L"C:\\Dir\\", 7, 3, kNpos},
        {L"C:\\Dir/\\/", 9, 3, kNpos},
        {L"C:/dir.d\\file", 9, 9, kNpos},
        {L"C:\\dir.d\\", 9, 3, kNpos},
        {L"\\\\", 2, 2, kNpos},
        {L"\\\\?\\", 4, 4, kNpos},
        {L"\\\\?\\\\", 5, 4, kNpos},
        {L"\\\\srv\\", 6, 2, kNpos},
        {L".profile", 0, 0, kNpos},
        {L"C:.x", 2, 2, kNpos},
        {L"C:\\..", 3, 3, kNpos},
        {L".", 0, 0, kNpos},
        {L"...", 0, 0, 2},
        {L"a.tar.gz", 0, 0, 5},
        {L"name.", 0, 0, 4},
        {L"a.b c", 0, 0, kNpos},
        {L"a b.c", 0, 0, 3},
        {L"a.b.c d", 0, 0, kNpos},
        {L"a.b\tc", 0, 0, 1},
    };
    for (const NameCase& c : cases) {
        SCOPED_TRACE(fs::path(c.path).string());
        EXPECT_EQ(FindFileName(c.path, false), c.name);
        EXPECT_EQ(FindFileName(c.path, true), c.nameIgnoringSeparators);
        EXPECT_EQ(FindFileExtension(c.path), c.extension);
        // The pieces are the path again.
        EXPECT_EQ(GetFileName(c.path, true), c.path.substr(c.name));
        EXPECT_EQ(std::wstring(GetFileName(c.path, false)).append(GetFileExtension(c.path, true)),
                  GetFileName(c.path, true));
    }
    EXPECT_EQ(GetFileExtension(L"x\\a.tar.gz", false), L"gz");
    EXPECT_EQ(GetFileExtension(L"a.", false), L"");
    EXPECT_EQ(GetFileExtension(L"a.", true), L".");
}

TEST(PathText, KnowsPathsInsideOthers) {
    struct {
        std::wstring_view path, base;
        bool inside;
    } const cases[] = {
        {L"C:\\Dir\\x", L"C:\\dir\\", true},
        {L"C:\\Dir\\x", L"c:\\dIR", true},
        {L"C:\\Dir", L"C:\\Dir", false},
        {L"C:\\Dir\\", L"C:\\Dir", true},
        {L"C:\\Dirx", L"C:\\Dir", false},
        {L"C:\\Dir/x", L"C:\\Dir/", true},
        {L"C:\\Dir\\x", L"C:\\Dir\\\\", false},
        {L"C:\\Dir\\\\x", L"C:\\Dir\\\\", true},
        {L"C:/Dir\\x", L"C:\\Dir", false},
        {L"\\x", L"", true},
        {L"x", L"", false},
        {L"", L"", false},
        {L"/", L"\\", true},
    };
    for (const auto& c : cases)
        EXPECT_EQ(IsSubPath(c.path, c.base), c.inside) << fs::path(c.path) << " in " << fs::path(c.base);
}

TEST(PathText, RemovesTrailingSeparators) {
    constexpr std::wstring_view kCases[][2] = {
        {L"", L""},
        {L"\\", L"\\"},
        {L"/", L"/"},
        {L"\\/", L"\\/"},
        {L"\\\\\\", L"\\\\"},
        {L"C:\\", L"C:"},
        {L"a\\\\\\", L"a"},
        {L"a/\\b/", L"a/\\b"},
        {L"\\\\s\\", L"\\\\s"},
        {L"\\\\?\\", L"\\\\?\\"},
        {L"//?/\\", L"//?/"},
        {L"\\\\?", L"\\\\?"},
    };
    for (const auto& [given, expected] : kCases) {
        EXPECT_EQ(RemoveTrailingPathSeparators(given), expected) << fs::path(given);
        std::wstring text(given);
        EXPECT_EQ(&RemoveTrailingPathSeparators(&text), &text);
        EXPECT_EQ(text, expected);
        CString string(given.data());
        EXPECT_EQ(RemoveTrailingPathSeparators(&string), expected.data());
    }
}

TEST(PathText, ChangesExtension) {
    constexpr std::wstring_view kCases[][3] = {
        {L"a.txt", L"", L"a."},
        {L"a.txt", L".", L"a."},
        {L"a.txt", L"7z", L"a.7z"},
        {L"a.txt", L".7z", L"a.7z"},
        {L"a.txt", L"..7z", L"a..7z"},
        {L"a.", L"x", L"a.x"},
        {L"a", L"", L"a"},
        {L"a", L".", L"a"},
        {L"a", L"x", L"a.x"},
        {L"a", L".x", L"a.x"},
        {L"d.d\\a", L"x", L"d.d\\a.x"},
        {L".rc", L"x", L".rc.x"},
        {L"a.tar.gz", L"7z", L"a.tar.7z"},
        {L"", L"x", L".x"},
        {L"C:", L"x", L"C:.x"},
    };
    for (const auto& [path, extension, expected] : kCases) {
        std::wstring text(path);
        EXPECT_EQ(ChangeFileExtension(&text, extension), expected) << fs::path(path);
        CString string(path.data());
        EXPECT_EQ(ChangeFileExtension(&string, extension), expected.data());
    }
    std::wstring own(L"a.longer");
    EXPECT_EQ(ChangeFileExtension(&own, std::wstring_view(own).substr(0, 6)), L"a.a.long");
    CString ownString(L"abc");
    EXPECT_EQ(ChangeFileExtension(&ownString, ownString.GetString()), L"abc.abc");
}

TEST(PathText, NameHelpers) {
    struct {
        const wchar_t *name, *added, *replaced;
        int has;
    } const cases[] = {
        {L"a", L"a.x", L"a.x", FALSE},
        {L"a.b", L"a.b", L"a.x", TRUE},
        {L"a.", L"a.", L"a.x", TRUE},
        {L"d.d\\a", L"d.d\\a.x", L"d.d\\a.x", FALSE},
        {L".b", L".b", L".x", TRUE},
        {L"", L".x", L".x", FALSE},
        {L"a.b c", L"a.b c.x", L"a.b c.x", FALSE},
    };
    for (const auto& c : cases) {
        CString added(c.name);
        CString replaced(c.name);
        EXPECT_EQ(VxwNameHasExt(added), c.has);
        EXPECT_EQ(VxwAddExt(added, L".x"), TRUE);
        EXPECT_EQ(added, c.added);
        EXPECT_EQ(VxwReplaceExt(replaced, L".x"), TRUE);
        EXPECT_EQ(replaced, c.replaced);
    }
}

TEST(PathText, TellsPathsFromOtherTexts) {
    for (auto* path : {L"\\\\srv\\share", L"C:\\a.txt", L"a", L"a/b\\c", L"\\", L"/a", L"x:y", L"a\\/b"})
        EXPECT_EQ(VxwIsThisAPath(path), TRUE) << fs::path(path);
    for (auto* text : {L"", L"a\\\\b", L"\\\\\\a", L"C:\\a:b", L"//a", L"a//b", L":", L"C::", L"abc:", L"a*",
                       L"a?", L"\"a\"", L"<a", L"a>", L"a|b"})
        EXPECT_EQ(VxwIsThisAPath(text), FALSE) << fs::path(text);
}

TEST(PathText, IsMadeCanonical) {
    constexpr std::wstring_view kCases[][2] = {
        {L"", L""},
        {L"a/b\\\\c", L"a\\b\\c"},
        {L".\\a\\.\\b\\", L"a\\b\\"},
        {L"a\\..", L"."},
        {L"a\\..\\", L"."},
        {L".", L"."},
        {L"a\\..\\..\\b", L"..\\b"},
        {L"..\\..\\a\\..\\b/", L"..\\..\\b\\"},
        {L"...\\a.", L"...\\a."},
        {L"C:\\", L"C:\\"},
        {L"C:", L"C:"},
        {L"c:/a/../../b", L"c:\\b"},
        {L"C:a\\..\\..\\b", L"C:..\\b"},
        {L"C:a\\..", L"C:"},
        {L"\\..\\a", L"\\a"},
        {L"//srv/share/../a/..", L"\\\\srv\\share"},
        {L"\\\\srv\\..\\a\\.", L"\\\\srv\\..\\a"},
        {L"\\\\.\\pipe\\a\\..\\b", L"\\\\.\\pipe\\b"},
        {L"\\\\?\\C:\\a\\..\\b/", L"\\\\?\\C:\\a\\..\\b/"},
        {L"a. \\ \\con.\\..\\nul", L"a. \\ \\nul"},
        {L"\xD800\\..\\\xDC00", L"\xDC00"},
        {L"a/../C:\\b", L".\\C:\\b"},
    };
    for (const auto& [given, expected] : kCases) {
        std::wstring text(given);
        EXPECT_EQ(CanonicalizeFileSystemPath(&text), expected) << fs::path(given);
        CString string = ConvertFileSystemPath(fs::path(given));
        EXPECT_EQ(CanonicalizeFileSystemPath(&string), expected.data());
    }
    EXPECT_EQ(ConvertFileSystemPath(fs::path(std::wstring(L"a\0b", 3))).GetLength(), 3);
}

// By the system's own reading, too.
TEST(PathText, MadeCanonicalNamesTheSameEntry) {
    std::mt19937 random(3);
    const auto any = [&random](std::vector<const wchar_t*> of) { return of[random() % of.size()]; };
    const auto full = [](const std::wstring& path) {
        wchar_t text[1000];
        const DWORD size = GetFullPathNameW(path.c_str(), 1000, text, nullptr);
        return std::wstring(RemoveTrailingPathSeparators({text, size}));
    };
    for (int round = 0; round < 2000; ++round) {
        std::wstring path = any({L"", L"\\", L"C:", L"c:/", L"\\\\srv\\share\\"});
        for (auto elements = random() % 6 + 1; elements != 0; --elements)
            path.append(any({L"a", L"b c", L".", L"..", L"C:x"})).append(any({L"\\", L"/", L"\\/"}));
        path.resize(path.size() - random() % 2);
        std::wstring canonical = path;
        EXPECT_EQ(full(CanonicalizeFileSystemPath(&canonical)), full(path)) << fs::path(path);
        std::wstring again = canonical;
        EXPECT_EQ(CanonicalizeFileSystemPath(&again), canonical) << fs::path(path);
    }
}

TEST(PathText, IsValidatedByItsCharacters) {
    using enum PathValidationResult;
    struct {
        std::wstring_view path;
        PathValidationResult result, withMarker;
    } const cases[] = {
        {L"", Empty, Empty},
        {L"a b\\c.d/\x7F\xD800", Valid, Valid},
        {L"z:", Valid, Valid},
        {L"C:\\a", Valid, Valid},
        {L"\\\\?\\C:\\a", Valid, Valid},
        {L"//?/a", Valid, Valid},
        {L"//?/", Empty, Empty},
        {L"\\\\srv\\a", Valid, Valid},
        {L"1:", MisplacedColon, MisplacedColon},
        {L"ab:", MisplacedColon, MisplacedColon},
        {L"\\C:", MisplacedColon, MisplacedColon},
        {L"\\\\?\\C:\\a:b", MisplacedColon, MisplacedColon},
        {L"\\\\?", MisplacedQuestionMark, MisplacedQuestionMark},
        {L"\\\\?\\?", MisplacedQuestionMark, MisplacedQuestionMark},
        {L"\\\\\\?\\", MisplacedQuestionMark, MisplacedQuestionMark},
        {L"a\x1F*", ControlCharacter, ControlCharacter},
        {L"a*", ForbiddenCharacter, ForbiddenCharacter},
        {L"\"a", ForbiddenCharacter, ForbiddenCharacter},
        {L">", ForbiddenCharacter, ForbiddenCharacter},
        {L"a\\|", ForbiddenCharacter, ForbiddenCharacter},
        {L"\x1F", ControlCharacter, ControlCharacter},
        {L"a<b>", MisplacedMarker, MisplacedMarker},
        {L"<>", MisplacedMarker, Valid},
        {L"<a:*?\"|<\\>\\b", MisplacedMarker, Valid},
        {L"<a\tb>", MisplacedMarker, ControlCharacter},
        {L"<a", MisplacedMarker, OpenMarker},
        {L"<a>C:", MisplacedMarker, MisplacedColon},
        {L"<a><b>", MisplacedMarker, MisplacedMarker},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ValidatePath(c.path, PathType::FileSystem, true), c.result) << &c - cases;
        EXPECT_EQ(ValidatePath(c.path, PathType::Document, false), c.result) << &c - cases;
        EXPECT_EQ(ValidatePath(c.path, PathType::Document, true), c.withMarker) << &c - cases;
    }
}

/// A directory of its own under the temporary one, with a small language to fill and read it.
class Entries : public testing::Test {
protected:
    Entries()
        : root_(fs::temp_directory_path() / (L"vexel entries " + std::to_wstring(GetCurrentProcessId()))) {
        fs::create_directories(root_);
    }
    ~Entries() override {
        std::error_code error;
        fs::remove_all(root_, error);
        EXPECT_FALSE(error) << error.message();
    }

    std::wstring at(std::wstring_view relative) const { return (root_ / relative).wstring(); }
    void write(std::wstring_view relative, std::string_view text) const {
        std::ofstream(root_ / relative, std::ios::binary) << text;
    }
    std::string read(std::wstring_view relative) const {
        std::ifstream file(root_ / relative, std::ios::binary);
        std::string text;
        std::getline(file, text, '\0');
        return text;
    }
    /// The copy's error, after checking that result and error agree.
    std::error_code copy(std::wstring_view source, std::wstring_view target,
                         FlagSet<CopyingFlag> flags) const {
        std::error_code error = std::make_error_code(std::errc::io_error);
        const bool copied = CopyFileSystemEntry(at(source), at(target), flags, &error);
        EXPECT_EQ(copied, !error);
        return error;
    }

    PlatformGuard platform_;

private:
    fs::path root_;
};

TEST_F(Entries, Exist) {
    write(L"file", "x");
    for (const std::wstring& path : {at(L"file"), at(L""), at(L"") + L"\\", std::wstring(L"C:"),
                                     std::wstring(L"C:\\"), L"\\\\?\\" + at(L"file")})
        EXPECT_TRUE(FileSystemEntryExists(path)) << fs::path(path);
    for (const std::wstring& path : {at(L"no"), at(L"no\\file"), at(L"file\\x"), at(L"fi*"), at(L"fi?e"),
                                     at(L"a|b"), std::wstring(L"\\\\?\\"), std::wstring()})
        EXPECT_FALSE(FileSystemEntryExists(path)) << fs::path(path);
    EXPECT_EQ(GetFileSystemEntryType(at(L"file")), fs::file_type::regular);
    EXPECT_EQ(GetFileSystemEntryType(at(L"")), fs::file_type::directory);
    EXPECT_EQ(GetFileSystemEntryType(at(L"fi*")), fs::file_type::not_found);
    EXPECT_EQ(GetFileSystemEntryType(L""), fs::file_type::none);
}

/// What a made-up system answers for one entry: about itself, and about what it leads to.
struct {
    DWORD linkError, targetError;
    Detail::EntryInfo link;
} answers;

TEST_F(Entries, FollowTheSystemsAnswers) {
    constexpr DWORD kLink = FILE_ATTRIBUTE_REPARSE_POINT;
    constexpr DWORD kDirectory = FILE_ATTRIBUTE_DIRECTORY;
    struct {
        decltype(answers) given;
        bool exists;
        fs::file_type type;
    } const cases[] = {
        {{2, 0, {}}, false, fs::file_type::not_found},
        {{3, 0, {}}, false, fs::file_type::not_found},
        {{53, 0, {}}, false, fs::file_type::not_found},
        {{64, 0, {}}, false, fs::file_type::not_found},
        {{123, 0, {}}, false, fs::file_type::not_found},
        {{267, 0, {}}, false, fs::file_type::not_found},
        {{5, 0, {}}, false, fs::file_type::none},
        {{32, 0, {}}, true, fs::file_type::none},
        {{0, 0, {kLink, IO_REPARSE_TAG_SYMLINK}}, true, fs::file_type::symlink},
        {{0, 2, {kLink, IO_REPARSE_TAG_SYMLINK}}, false, fs::file_type::symlink},
        {{0, 5, {kLink | kDirectory, IO_REPARSE_TAG_SYMLINK}}, true, fs::file_type::symlink},
        {{0, 5, {kLink | kDirectory, IO_REPARSE_TAG_MOUNT_POINT}}, true, static_cast<fs::file_type>(10)},
        {{0, 53, {kLink | kDirectory, IO_REPARSE_TAG_MOUNT_POINT}}, false, static_cast<fs::file_type>(10)},
        {{0, 0, {kLink | kDirectory, 0x80000013}}, true, fs::file_type::directory},
        {{0, 0, {kLink, 0x80000013}}, true, fs::file_type::regular},
        {{0, 5, {kLink, 0x80000013}}, true, fs::file_type::regular},
    };
    Detail::platform().readEntry = [](const wchar_t*, bool followLinks, Detail::EntryInfo& info) {
        info = answers.link;
        return followLinks ? answers.targetError : answers.linkError;
    };
    for (const auto& c : cases) {
        answers = c.given;
        EXPECT_EQ(FileSystemEntryExists(L"x"), c.exists) << &c - cases;
        EXPECT_EQ(GetFileSystemEntryType(L"x"), c.type) << &c - cases;
    }
}

TEST_F(Entries, CopyFiles) {
    write(L"a", "new");
    write(L"b", "old");
    ASSERT_TRUE(CreateDirectories(at(L"dir"), nullptr, 0));

    EXPECT_EQ(copy(L"a", L"b", {}), std::errc::file_exists);
    EXPECT_EQ(read(L"b"), "old");
    EXPECT_FALSE(copy(L"a", L"b", CopyingFlag::Overwrite));
    EXPECT_EQ(read(L"b"), "new");
    EXPECT_EQ(copy(L"a", L"dir\\..\\a", CopyingFlag::Overwrite), std::errc::file_exists); // itself
    EXPECT_EQ(read(L"a"), "new");

    EXPECT_FALSE(copy(L"a", L"dir", {})); // into the directory
    EXPECT_EQ(read(L"dir\\a"), "new");
    EXPECT_EQ(copy(L"a", L"dir", {}), std::errc::file_exists);
    EXPECT_EQ(copy(L"none", L"c", {}), std::errc::no_such_file_or_directory);
    EXPECT_EQ(copy(L"a", L"none\\c", {}), std::errc::no_such_file_or_directory);

    // A bare drive is the current directory there, as target and as source.
    const fs::path before = fs::current_path();
    fs::current_path(at(L"dir"));
    EXPECT_TRUE(CopyFileSystemEntry(at(L"b"), L"C:", {}, nullptr));
    EXPECT_EQ(read(L"dir\\b"), "new");
    EXPECT_TRUE(CopyFileSystemEntry(L"C:", at(L"listed"), {}, nullptr));
    EXPECT_EQ(read(L"listed\\a"), "new");
    fs::current_path(before);

    EXPECT_FALSE(CopyFileSystemEntry(at(L"none"), at(L"c"), {}, nullptr));
    for (const auto& [source, target] : {std::pair(std::wstring(), at(L"c")), {at(L"a"), std::wstring()}}) {
        std::error_code error;
        EXPECT_FALSE(CopyFileSystemEntry(source, target, {}, &error));
        EXPECT_EQ(error, std::errc::invalid_argument);
    }
}

TEST_F(Entries, CopyDirectories) {
    ASSERT_TRUE(CreateDirectories(at(L"from\\sub"), nullptr, 0));
    write(L"from\\f", "1");
    write(L"from\\sub\\g", "2");

    EXPECT_FALSE(copy(L"from", L"files", {})); // with its files only
    EXPECT_EQ(read(L"files\\f"), "1");
    EXPECT_FALSE(FileSystemEntryExists(at(L"files\\sub")));
    EXPECT_FALSE(copy(L"from", L"files too", CopyingFlag::ClearReadOnly));
    EXPECT_EQ(read(L"files too\\f"), "1");
    EXPECT_FALSE(copy(L"from", L"nothing", CopyingFlag::Overwrite));
    EXPECT_FALSE(FileSystemEntryExists(at(L"nothing")));

    EXPECT_FALSE(copy(L"from", L"all", CopyingFlag::Recursive));
    EXPECT_EQ(read(L"all\\sub\\g"), "2");
    write(L"from\\sub\\g", "3");
    EXPECT_EQ(copy(L"from", L"all", CopyingFlag::Recursive), std::errc::file_exists);
    EXPECT_FALSE(copy(L"from", L"all", CopyingFlag::Recursive | CopyingFlag::Overwrite));
    EXPECT_EQ(read(L"all\\sub\\g"), "3");

    EXPECT_EQ(copy(L"from", L"from\\f", CopyingFlag::Recursive), std::errc::is_a_directory);
    EXPECT_EQ(copy(L"from", L"from", CopyingFlag::Recursive), std::errc::file_exists);
    EXPECT_FALSE(copy(L"from", L"from\\sub\\inside", CopyingFlag::Recursive)); // comes to an end
    EXPECT_EQ(read(L"from\\sub\\inside\\f"), "1");

    // Links that lead back are no way down.
    if (fs::exists(VEXEL_TEST_LINKS_DIR "/below/one")) {
        std::error_code error;
        EXPECT_FALSE(CopyFileSystemEntry(fs::path(VEXEL_TEST_LINKS_DIR).wstring(), at(L"round"),
                                         CopyingFlag::Recursive, &error));
        EXPECT_EQ(error, std::errc::too_many_symbolic_link_levels);
        EXPECT_FALSE(FileSystemEntryExists(at(L"round")));
    }

    // Longer than the paths of old, and too long for the standard library to remove.
    const std::wstring outer = L'\\' + std::wstring(120, L'x');
    const std::wstring inner = outer + L'\\' + std::wstring(120, L'y');
    const std::wstring source = L"\\\\?\\" + at(L"long");
    const std::wstring target = L"\\\\?\\" + at(L"copied");
    ASSERT_TRUE(CreateDirectories(source + inner, nullptr, 0));
    EXPECT_TRUE(CopyFileSystemEntry(source, target, CopyingFlag::Recursive, nullptr));
    for (const std::wstring& root : {source, target}) {
        EXPECT_TRUE(RemoveDirectoryW((root + inner).c_str()));
        EXPECT_TRUE(RemoveDirectoryW((root + outer).c_str()));
    }
}

TEST_F(Entries, CopyClearsReadOnlyByRequest) {
    write(L"a", "x");
    ASSERT_TRUE(SetFileAttributesW(at(L"a").c_str(), FILE_ATTRIBUTE_READONLY));
    const auto readOnly = [this](std::wstring_view name) {
        return (GetFileAttributesW(at(name).c_str()) & FILE_ATTRIBUTE_READONLY) != 0;
    };
    EXPECT_FALSE(copy(L"a", L"kept", {}));
    EXPECT_TRUE(readOnly(L"kept"));
    EXPECT_FALSE(copy(L"a", L"cleared", CopyingFlag::ClearReadOnly));
    EXPECT_FALSE(readOnly(L"cleared"));

    Detail::platform().setAttributes = [](const wchar_t*, DWORD) -> BOOL {
        SetLastError(ERROR_WRITE_PROTECT);
        return FALSE;
    };
    std::error_code error;
    EXPECT_TRUE(CopyFileSystemEntry(at(L"a"), at(L"stuck"), CopyingFlag::ClearReadOnly, &error));
    EXPECT_EQ(error, std::error_code(ERROR_WRITE_PROTECT, std::system_category()));
    for (auto* name : {L"a", L"kept", L"stuck"})
        SetFileAttributesW(at(name).c_str(), FILE_ATTRIBUTE_NORMAL);
}

int copiesLeft;
DWORD copyError; // 0: the system names none

TEST_F(Entries, EveryFailingCopyIsReported) {
    ASSERT_TRUE(CreateDirectories(at(L"from\\sub"), nullptr, 0));
    for (auto* name : {L"from\\a", L"from\\b", L"from\\sub\\c"})
        write(name, "x");
    Detail::platform().copyFile = [](const wchar_t* source, const wchar_t* target,
                                     BOOL failIfExists) -> BOOL {
        if (copiesLeft-- > 0)
            return CopyFileW(source, target, failIfExists);
        SetLastError(copyError);
        return FALSE;
    };
    for (const auto& [given, reported] :
         {std::pair{ERROR_DISK_FULL, ERROR_DISK_FULL}, {0L, ERROR_GEN_FAILURE}})
        for (int n = 0; n <= 3; ++n) {
            copiesLeft = n;
            copyError = static_cast<DWORD>(given);
            const std::wstring target = L"to" + std::to_wstring(given) + L"-" + std::to_wstring(n);
            const std::error_code error = copy(L"from", target, CopyingFlag::Recursive);
            EXPECT_EQ(error.value(), n < 3 ? reported : 0);
        }
}

TEST_F(Entries, CreateDirectories) {
    write(L"file", "x");
    std::error_code error = std::make_error_code(std::errc::io_error);
    for (const std::wstring& path :
         {at(L"a\\b/c"), at(L"a\\b/c"), at(L"d\\e\\\\"), at(L""), L"\\\\?\\" + at(L"f\\g"),
          std::wstring(L"C:\\"), std::wstring(L"C:"), std::wstring(L"\\")}) {
        EXPECT_TRUE(CreateDirectories(path, &error, 0)) << fs::path(path) << error.message();
        EXPECT_FALSE(error);
        EXPECT_EQ(GetFileSystemEntryType(path), fs::file_type::directory);
    }
    EXPECT_TRUE(FileSystemEntryExists(at(L"d\\e")));

    const std::pair<std::wstring, std::errc> failures[] = {
        {L"", std::errc::invalid_argument},
        {at(L"file"), std::errc::file_exists},
        {at(L"file\\x"), std::errc::file_exists},
        {at(L"new\\a|b\\c"), std::errc::no_such_file_or_directory},
        {L"Q:\\x\\y", std::errc::no_such_file_or_directory},
    };
    for (const auto& [path, expected] : failures) {
        error.clear();
        EXPECT_FALSE(CreateDirectories(path, &error, 0));
        EXPECT_EQ(error, expected) << fs::path(path) << error.value();
        EXPECT_FALSE(CreateDirectories(path, nullptr, 0));
    }
}

struct FolderAnswer {
    HRESULT status;
    const wchar_t* path;
    DWORD flags;
} folder;

TEST_F(Entries, KnownFoldersComeFromTheShell) {
    CString data;
    ASSERT_TRUE(GetUserDataFolderPath(&data));
    EXPECT_EQ(data, GetKnownFolderPath(FOLDERID_LocalAppData, true));
    EXPECT_TRUE(FileSystemEntryExists(data.GetString()));
    EXPECT_EQ(GetKnownFolderPath(GUID{}, false), L"");

    Detail::platform().getKnownFolder = [](REFKNOWNFOLDERID, DWORD flags, HANDLE, PWSTR* path) -> HRESULT {
        folder.flags = flags;
        *path = static_cast<PWSTR>(CoTaskMemAlloc(32)); // on failure, too
        wcscpy(*path, folder.path);
        return folder.status;
    };
    for (const FolderAnswer answer :
         {FolderAnswer{S_OK, L"X:\\data", 1}, FolderAnswer{S_FALSE, L"", 1}, FolderAnswer{E_FAIL, L"", 1}}) {
        folder = answer;
        const bool found = answer.status == S_OK;
        CString text(L"as it was");
        std::wstring sameText = L"as it was";
        EXPECT_EQ(GetUserDataFolderPath(&text), found);
        EXPECT_EQ(folder.flags, 0U);
        EXPECT_EQ(GetUserDataFolderPath(&sameText), found);
        EXPECT_EQ(text, found ? answer.path : L"as it was");
        EXPECT_EQ(sameText, text.GetString());
        EXPECT_EQ(GetKnownFolderPath(FOLDERID_LocalAppData, true), answer.path);
        EXPECT_EQ(folder.flags, static_cast<DWORD>(KF_FLAG_CREATE));
    }
}

} // namespace
