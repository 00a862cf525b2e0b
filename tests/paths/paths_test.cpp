#include "base/platform.h"
#include "support/compound_file.h"
#include "support/platform_guard.h"

#include <vexel/paths.h>

#include <windows.h>

#include <objbase.h>
#include <shlobj.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

using namespace Vexel;
namespace fs = std::filesystem;

namespace {

constexpr std::size_t kNpos = std::wstring_view::npos;

/// What a function makes of a text in place, the same for both kinds of text.
template <class Change>
std::wstring changed(std::wstring_view given, const Change& change) {
    std::wstring text(given);
    CString string(given.data());
    EXPECT_EQ(change(&text), &text);
    EXPECT_EQ(change(&string), &string);
    EXPECT_EQ(string, text.c_str());
    return text;
}

/// Takes a mark out of a text; where it stood.
std::size_t takeMark(std::wstring& text, wchar_t mark) {
    const std::size_t place = text.find(mark);
    if (place != kNpos)
        text.erase(place, 1);
    return place;
}

TEST(PathText, FindsNameAndExtension) {
    // "|" stands before the name, "<" before the one without separators behind it, "*" before the extension.
    for (std::wstring path :
         {L"|",           L"|a*.txt",    L"C:|a*.txt",   L"C:|",     L"C:<\\|",   L"|1:a*.b",
          L"C:\\<d/\\/|", L"C:/d.d\\|f", L"C:\\<d.d\\|", L"\\\\|",   L"\\\\?\\|", L"\\\\?\\<\\|",
          L"\\\\<s\\|",   L"|.rc",       L"C:|.x",       L"C:\\|..", L"|.",       L"|..*.",
          L"|a.b*.c",     L"|name*.",    L"|a.b c",      L"|a b*.c", L"|a.b.c d"}) {
        SCOPED_TRACE(fs::path(path).string());
        const std::size_t shortened = takeMark(path, L'<'), name = takeMark(path, L'|');
        const std::size_t extension = takeMark(path, L'*');
        EXPECT_EQ(FindFileName(path, false), name);
        EXPECT_EQ(FindFileName(path, true), (std::min)(name, shortened));
        EXPECT_EQ(FindFileExtension(path), extension);
        // The pieces are the path again.
        EXPECT_EQ(GetFileName(path, true), path.substr(name));
        EXPECT_EQ(std::wstring(GetFileName(path, false)).append(GetFileExtension(path, true)),
                  path.substr(name));
    }
    EXPECT_EQ(GetFileExtension(L"x\\a.tar.gz", false), L"gz");
    EXPECT_EQ(GetFileExtension(L"a.", false), L"");
}

TEST(PathText, KnowsPathsInsideOthers) {
    constexpr std::wstring_view kInside[][2] = {{L"C:\\D\\x", L"C:\\d\\"},
                                                {L"C:\\D\\x", L"c:\\d"},
                                                {L"C:\\D\\", L"C:\\D"},
                                                {L"C:\\D/x", L"C:\\D/"},
                                                {L"C:\\D\\\\x", L"C:\\D\\\\"},
                                                {L"\\x", L""},
                                                {L"/", L"\\"}};
    constexpr std::wstring_view kOutside[][2] = {
        {L"C:\\D", L"C:\\D"},   {L"C:\\Dx", L"C:\\D"}, {L"C:\\D\\x", L"C:\\D\\\\"},
        {L"C:/D\\x", L"C:\\D"}, {L"x", L""},           {L"", L""}};
    for (const auto& [path, base] : kInside)
        EXPECT_TRUE(IsSubPath(path, base)) << fs::path(path) << " in " << fs::path(base);
    for (const auto& [path, base] : kOutside)
        EXPECT_FALSE(IsSubPath(path, base)) << fs::path(path) << " in " << fs::path(base);
}

TEST(PathText, RemovesTrailingSeparators) {
    const auto remove = [](auto* text) { return &RemoveTrailingPathSeparators(text); };
    for (std::wstring path : {L"|", L"\\|", L"\\/|", L"\\\\|\\", L"C:|\\", L"a/\\b|/", L"\\\\s|\\",
                              L"\\\\?\\|", L"//?/|\\", L"\\\\?|"}) {
        const std::size_t kept = takeMark(path, L'|');
        EXPECT_EQ(RemoveTrailingPathSeparators(path), path.substr(0, kept)) << fs::path(path);
        EXPECT_EQ(changed(path, remove), path.substr(0, kept));
    }
}

TEST(PathText, ChangesExtension) {
    constexpr std::wstring_view kCases[][3] = {{L"a.txt", L"", L"a."},      {L"a.txt", L".", L"a."},
                                               {L"a.txt", L".7z", L"a.7z"}, {L"a.txt", L"..7z", L"a..7z"},
                                               {L"a.", L"x", L"a.x"},       {L"a", L"", L"a"},
                                               {L"a", L".", L"a"},          {L"a", L"x", L"a.x"},
                                               {L"a", L".x", L"a.x"},       {L"d.d\\a", L"x", L"d.d\\a.x"},
                                               {L".rc", L"x", L".rc.x"},    {L"a.tar.gz", L"7z", L"a.tar.7z"},
                                               {L"", L"x", L".x"},          {L"C:", L"x", L"C:.x"}};
    for (const auto& [path, extension, expected] : kCases) {
        const auto change = [&](auto* text) { return &ChangeFileExtension(text, extension); };
        EXPECT_EQ(changed(path, change), expected) << fs::path(path);
    }
    std::wstring own(L"a.longer");
    EXPECT_EQ(ChangeFileExtension(&own, std::wstring_view(own).substr(0, 6)), L"a.a.long");
    CString ownString(L"abc");
    EXPECT_EQ(ChangeFileExtension(&ownString, ownString.GetString()), L"abc.abc");
}

TEST(PathText, NameHelpers) {
    const struct {
        const wchar_t *name, *added, *replaced;
    } cases[] = {{L"a", L"a.x", L"a.x"}, {L"a.b", L"a.b", L"a.x"},
                 {L"a.", L"a.", L"a.x"}, {L"d.d\\a", L"d.d\\a.x", L"d.d\\a.x"},
                 {L".b", L".b", L".x"},  {L"a.b c", L"a.b c.x", L"a.b c.x"}};
    for (const auto& c : cases) {
        CString added(c.name);
        CString replaced(c.name);
        EXPECT_EQ(VxwAddExt(added, L".x"), TRUE);
        EXPECT_EQ(added, c.added);
        EXPECT_EQ(VxwReplaceExt(replaced, L".x"), TRUE);
        EXPECT_EQ(replaced, c.replaced);
        EXPECT_EQ(VxwNameHasExt(c.name), added == c.name ? TRUE : FALSE);
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
        {L"a\\..\\", L"."},
        {L"..\\..\\a\\..\\b/", L"..\\..\\b\\"},
        {L"...\\a.", L"...\\a."},
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
    const auto canonical = [](auto* text) { return &CanonicalizeFileSystemPath(text); };
    for (const auto& [given, expected] : kCases)
        EXPECT_EQ(changed(given, canonical), expected) << fs::path(given);
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
    const std::pair<PathValidationResult, std::vector<std::wstring_view>> plain[] = {
        {Empty, {L"", L"//?/"}},
        {Valid, {L"a b\\c.d/\x7F\xD800", L"z:", L"C:\\a", L"\\\\?\\C:\\a", L"//?/a", L"\\\\srv\\a"}},
        {MisplacedColon, {L"1:", L"ab:", L"\\C:", L"\\\\?\\C:\\a:b"}},
        {MisplacedQuestionMark, {L"\\\\?", L"\\\\?\\?", L"\\\\\\?\\"}},
        {ControlCharacter, {L"a\x1F*", L"\x1F"}},
        {ForbiddenCharacter, {L"a*", L"\"a", L">", L"a\\|"}}};
    for (const auto& [result, paths] : plain) {
        for (const std::wstring_view path : paths) {
            EXPECT_EQ(ValidatePath(path, PathType::FileSystem, true), result) << fs::path(path);
            EXPECT_EQ(ValidatePath(path, PathType::Document, false), result) << fs::path(path);
            EXPECT_EQ(ValidatePath(path, PathType::Document, true), result) << fs::path(path);
        }
    }
    const std::pair<std::wstring_view, PathValidationResult> marked[] = {
        {L"a<b>", MisplacedMarker},    {L"<>", Valid},      {L"<a:*?\"|<\\>\\b", Valid},
        {L"<a\tb>", ControlCharacter}, {L"<a", OpenMarker}, {L"<a>C:", MisplacedColon},
        {L"<a><b>", MisplacedMarker}};
    for (const auto& [path, result] : marked) {
        EXPECT_EQ(ValidatePath(path, PathType::FileSystem, true), MisplacedMarker) << fs::path(path);
        EXPECT_EQ(ValidatePath(path, PathType::Document, false), MisplacedMarker) << fs::path(path);
        EXPECT_EQ(ValidatePath(path, PathType::Document, true), result) << fs::path(path);
    }
}

/// A directory of its own, with a small language to fill and read it.
class Entries : public testing::Test {
protected:
    std::wstring at(std::wstring_view relative) const { return folder_.file(relative); }
    void write(std::wstring_view file, std::string_view text) const { Support::writeFile(at(file), text); }
    std::string read(std::wstring_view file) const { return Support::readFile(at(file)); }
    /// The copy's error, after checking that result and error agree.
    std::error_code copy(std::wstring_view source, std::wstring_view target,
                         FlagSet<CopyingFlag> flags) const {
        std::error_code error = std::make_error_code(std::errc::io_error);
        const bool copied = CopyFileSystemEntry(at(source), at(target), flags, &error);
        EXPECT_EQ(copied, !error);
        return error;
    }

    PlatformGuard platform_;
    Support::TempFolder folder_;
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
struct Answers {
    DWORD linkError = 0, targetError = 0;
    Detail::EntryInfo link = {};
};
Answers answers;

TEST_F(Entries, FollowTheSystemsAnswers) {
    constexpr auto kJunction = static_cast<fs::file_type>(10);
    constexpr DWORD kLink = FILE_ATTRIBUTE_REPARSE_POINT, kLinkToDirectory = kLink | FILE_ATTRIBUTE_DIRECTORY;
    constexpr DWORD kSymbolic = IO_REPARSE_TAG_SYMLINK, kMounted = IO_REPARSE_TAG_MOUNT_POINT,
                    kOther = 0x80000013;
    const struct {
        Answers given;
        const char* existence;
        fs::file_type type;
    } cases[] = {
        {{ERROR_FILE_NOT_FOUND}, "missing", fs::file_type::not_found},
        {{ERROR_NETNAME_DELETED}, "missing", fs::file_type::not_found},
        {{ERROR_ACCESS_DENIED}, "missing", fs::file_type::none},
        {{ERROR_SHARING_VIOLATION}, "there", fs::file_type::none},
        {{0, 0, {kLink, kSymbolic}}, "there", fs::file_type::symlink},
        {{0, ERROR_FILE_NOT_FOUND, {kLink, kSymbolic}}, "missing", fs::file_type::symlink},
        {{0, ERROR_ACCESS_DENIED, {kLinkToDirectory, kMounted}}, "there", kJunction},
        {{0, ERROR_BAD_NETPATH, {kLinkToDirectory, kMounted}}, "missing", kJunction},
        {{0, 0, {kLinkToDirectory, kOther}}, "there", fs::file_type::directory},
        {{0, ERROR_ACCESS_DENIED, {kLink, kOther}}, "there", fs::file_type::regular},
    };
    Detail::platform().readEntry = [](const wchar_t*, bool followLinks, Detail::EntryInfo& info) {
        info = answers.link;
        return followLinks ? answers.targetError : answers.linkError;
    };
    for (const auto& c : cases) {
        answers = c.given;
        EXPECT_STREQ(FileSystemEntryExists(L"x") ? "there" : "missing", c.existence) << &c - cases;
        EXPECT_EQ(GetFileSystemEntryType(L"x"), c.type) << &c - cases;
    }
}

TEST_F(Entries, Copy) {
    constexpr std::errc kDone{};
    constexpr FlagSet<CopyingFlag> kNone{}, kOverwrite = CopyingFlag::Overwrite,
                                            kTree = CopyingFlag::Recursive;
    for (auto* directory : {L"dir", L"from\\sub", L"old\\sub"})
        ASSERT_TRUE(CreateDirectories(at(directory), nullptr, 0));
    for (auto* file : {L"a", L"from\\f", L"from\\sub\\g"})
        write(file, "new");
    for (auto* file : {L"b", L"old\\sub\\g"})
        write(file, "old");
    const struct {
        const wchar_t *source, *target;
        FlagSet<CopyingFlag> flags;
        std::errc error;
        const wchar_t* file;
        const char* contents;
    } cases[] = {
        {L"a", L"b", kNone, std::errc::file_exists, L"b", "old"},
        {L"a", L"b", kOverwrite, kDone, L"b", "new"},
        {L"a", L"dir\\..\\a", kOverwrite, std::errc::file_exists, L"a", "new"}, // itself
        {L"a", L"dir", kNone, kDone, L"dir\\a", "new"},
        {L"a", L"dir", kNone, std::errc::file_exists, L"dir\\a", "new"},
        {L"none", L"c", kNone, std::errc::no_such_file_or_directory, L"c", ""},
        {L"a", L"none\\c", kNone, std::errc::no_such_file_or_directory, L"none\\c", ""},
        {L"from", L"files", kNone, kDone, L"files\\f", "new"}, // with its files only
        {L"from", L"files too", CopyingFlag::ClearReadOnly, kDone, L"files too\\f", "new"},
        {L"from", L"nothing", kOverwrite, kDone, L"nothing", ""},
        {L"from", L"all", kTree, kDone, L"all\\sub\\g", "new"},
        {L"from", L"old", kTree, std::errc::file_exists, L"old\\sub\\g", "old"},
        {L"from", L"old", kTree | kOverwrite, kDone, L"old\\sub\\g", "new"},
        {L"from", L"from\\f", kTree, std::errc::is_a_directory, L"from\\f", "new"},
        {L"from", L"from", kTree, std::errc::file_exists, L"from\\f", "new"},
        {L"from", L"from\\sub\\inside", kTree, kDone, L"from\\sub\\inside\\f", "new"}, // comes to an end
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(fs::path(c.target).string() + " from " + fs::path(c.source).string());
        EXPECT_EQ(copy(c.source, c.target, c.flags), c.error);
        EXPECT_EQ(read(c.file), c.contents);
    }
    EXPECT_FALSE(FileSystemEntryExists(at(L"files\\sub")));
    EXPECT_FALSE(FileSystemEntryExists(at(L"nothing")));

    // A bare drive is the current directory there, as target and as source.
    const fs::path before = fs::current_path();
    fs::current_path(at(L"dir"));
    EXPECT_TRUE(CopyFileSystemEntry(at(L"b"), L"C:", {}, nullptr));
    EXPECT_EQ(read(L"dir\\b"), "new");
    EXPECT_TRUE(CopyFileSystemEntry(L"C:", at(L"listed"), {}, nullptr));
    EXPECT_EQ(read(L"listed\\a"), "new");
    fs::current_path(before);

    for (const auto& [source, target] : {std::pair(std::wstring(), at(L"c")), {at(L"a"), std::wstring()}}) {
        std::error_code error;
        EXPECT_FALSE(CopyFileSystemEntry(source, target, {}, &error));
        EXPECT_EQ(error, std::errc::invalid_argument);
    }
    refuse(Detail::platform().copyFile, 0); // and names no error
    EXPECT_EQ(copy(L"from", L"refused", kTree).value(), ERROR_GEN_FAILURE);
}

TEST_F(Entries, CopyTreesThatLeadBackOrDeep) {
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
    EXPECT_FALSE(copy(L"a", L"kept", {}));
    EXPECT_NE(GetFileAttributesW(at(L"kept").c_str()) & FILE_ATTRIBUTE_READONLY, 0U);
    EXPECT_FALSE(copy(L"a", L"cleared", CopyingFlag::ClearReadOnly));
    EXPECT_EQ(GetFileAttributesW(at(L"cleared").c_str()) & FILE_ATTRIBUTE_READONLY, 0U);

    refuse(Detail::platform().setAttributes, ERROR_WRITE_PROTECT);
    std::error_code error;
    EXPECT_TRUE(CopyFileSystemEntry(at(L"a"), at(L"stuck"), CopyingFlag::ClearReadOnly, &error));
    EXPECT_EQ(error, std::error_code(ERROR_WRITE_PROTECT, std::system_category()));
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
    for (const HRESULT status : {S_OK, S_FALSE, E_FAIL}) {
        const bool found = status == S_OK;
        folder = {status, found ? L"X:\\data" : L"", 1};
        const std::wstring text = changed(L"as it was", [&](auto* path) {
            EXPECT_EQ(GetUserDataFolderPath(path), found);
            EXPECT_EQ(folder.flags, 0U);
            return path;
        });
        EXPECT_EQ(text, found ? folder.path : L"as it was");
        EXPECT_EQ(GetKnownFolderPath(FOLDERID_LocalAppData, true), folder.path);
        EXPECT_EQ(folder.flags, static_cast<DWORD>(KF_FLAG_CREATE));
    }
}

} // namespace
