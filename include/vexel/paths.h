#pragma once

/// Questions about paths as texts, and the few operations on file-system entries that the library needs.
///
/// Rules for every function here:
/// - Paths are UTF-16. The backslash and the slash are both separators, everywhere.
/// - A drive prefix is an ASCII letter and a colon at the start of the text.
/// - Trailing separators are never removed below the protected root length: 4 for a text that begins with
///   two separators, a question mark and a separator (the long-path prefix), else 2 for one that begins
///   with two separators (a network path), else 1. A drive root therefore loses its separator: `C:\`
///   becomes `C:`.
/// - Nothing is kept between calls; all functions may be called from any thread. A returned view points into
///   the text that was passed.
/// - Texts need not end with a zero, but one inside a text ends it for the file-system functions.

#include <vexel/export.h>
#include <vexel/flag_set.h>
#include <vexel/framework.h>

#include <windows.h>

#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <system_error>

namespace Vexel {

/// How `CopyFileSystemEntry` copies.
enum class CopyingFlag : unsigned {
    Overwrite = 1,     ///< replace existing target files
    Recursive = 2,     ///< copy directories with all they hold
    ClearReadOnly = 4, ///< after a successful copy, clear the target's read-only attribute
};

constexpr FlagSet<CopyingFlag> operator|(CopyingFlag a, CopyingFlag b) noexcept {
    return FlagSet<CopyingFlag>(a) | b;
}

/// The type of a directory junction. Not every standard library has an enumerator for it; those that do give
/// it this value.
inline constexpr std::filesystem::file_type JunctionFileType = static_cast<std::filesystem::file_type>(10);

/// What a text is to serve as.
enum class PathType : unsigned {
    FileSystem = 0, ///< a path that is given to the file system as it stands
    Document = 1,   ///< a path kept in a document, which may begin with a marker for a place known elsewhere
};

/// What is wrong with a path, named by the first character that cannot stand where it does.
enum class PathValidationResult : unsigned {
    Valid = 0,
    Empty = 1,                 ///< or nothing behind the long-path prefix
    ControlCharacter = 2,      ///< below the blank
    ForbiddenCharacter = 3,    ///< one of *">|
    MisplacedColon = 4,        ///< not behind a drive letter
    MisplacedQuestionMark = 5, ///< not in the long-path prefix
    MisplacedMarker = 6,       ///< a "<" that is not the first character, or where no marker is allowed
    OpenMarker = 7,            ///< a marker without its ">"
};

// Parts of a path

/// The index at which the file-name part starts: one past the last separator, else past the drive prefix,
/// else 0. A text that ends with a separator yields its length, unless `ignoreTrailingSeparators` sets the
/// trailing ones (down to the protected root length) aside before the search.
VEXEL_API std::size_t FindFileName(std::wstring_view path, bool ignoreTrailingSeparators);

/// The file-name part as `FindFileName(path, false)` finds it; without its extension unless `withExtension`.
VEXEL_API std::wstring_view GetFileName(std::wstring_view path, bool withExtension);

/// The index of the dot that starts the extension: the last dot of the file-name part. `npos` of a view when
/// there is none: no dot, the names "." and "..", a dot that is the name's first character, a blank after
/// the dot. A dot at the very end is an extension of its own.
VEXEL_API std::size_t FindFileExtension(std::wstring_view path);

/// The extension from its dot on, or without `withDot` from behind it on. Empty when there is none.
VEXEL_API std::wstring_view GetFileExtension(std::wstring_view path, bool withDot);

/// Whether `path` lies inside `base`, by text and without regard to case: one trailing separator of `base`
/// is dropped (only one), then `path` must continue behind `base` with a separator. An empty `base` holds
/// every path that starts with a separator. A path that ends with a separator lies inside itself, by this;
/// no other does.
VEXEL_API bool IsSubPath(std::wstring_view path, std::wstring_view base);

// Changes to a path; the forms that take a pointer change the string in place and return it

/// `path` without its trailing separators, never shorter than the protected root length.
VEXEL_API std::wstring_view RemoveTrailingPathSeparators(std::wstring_view path);
VEXEL_API CString& RemoveTrailingPathSeparators(CString* path);
VEXEL_API std::wstring& RemoveTrailingPathSeparators(std::wstring* path);

/// Gives the file name the extension `extension`, with or without its leading dot; "" and "." both mean an
/// empty one. An extension that is there keeps its dot, so an empty `extension` turns `a.txt` into `a.`; a
/// name without an extension stays as it is then. `extension` may point into `*path`.
VEXEL_API std::wstring& ChangeFileExtension(std::wstring* path, std::wstring_view extension);
VEXEL_API CString& ChangeFileExtension(CString* path, std::wstring_view extension);

/// Spells the path in the plainest way that its text alone allows: backslashes for slashes, one for several,
/// no elements ".", and no ".." but at the start of a relative path: it goes with the element before it, and
/// vanishes at a root. Server and share of a network path are part of its root. A trailing separator stays.
/// Nothing is left of `a\..` but "."; `.\C:a` stays, as `C:a` is another file. Texts with the long-path
/// prefix and empty ones stay as they are.
VEXEL_API CString& CanonicalizeFileSystemPath(CString* path);
VEXEL_API std::wstring& CanonicalizeFileSystemPath(std::wstring* path);

/// Returns the path's text. Throws `std::length_error` for a text of 0x7FFFFFFF characters or more.
VEXEL_API CString ConvertFileSystemPath(const std::filesystem::path& path);

/// Whether the characters of `path` may stand in a path; elements are not looked at. A drive letter may
/// follow the long-path prefix. With `allowMarker`, and unless `type` is `PathType::FileSystem`, the text may
/// begin with a marker: "<", any characters from the blank upward, ">".
VEXEL_API PathValidationResult ValidatePath(std::wstring_view path, PathType type, bool allowMarker);

// File-system entries

/// Whether there is an entry of any type at `path`, links followed. A symbolic link, a junction or another
/// reparse point whose target cannot be examined counts as existing; one whose target is missing does not.
/// Never fails: what cannot be asked for (an invalid name, an unreachable server, an empty text) does not
/// exist.
VEXEL_API bool FileSystemEntryExists(std::wstring_view path);

/// The type of the entry at `path`, links not followed: `regular`, `directory`, `symlink` or
/// `JunctionFileType`; `not_found` when there is no entry, `none` for an empty text and when the entry
/// cannot be examined.
VEXEL_API std::filesystem::file_type GetFileSystemEntryType(std::wstring_view path);

/// Copies a file or directory as `std::filesystem::copy` does: a file onto a directory goes into it; a
/// directory without `CopyingFlag::Recursive` is made with its files only, or left alone with
/// `CopyingFlag::Overwrite`; an existing target file is an error without `CopyingFlag::Overwrite`. Links are
/// followed; where one leads back to a directory that it lies in, the error is
/// `std::errc::too_many_symbolic_link_levels` and nothing is copied. Returns whether the copy
/// succeeded, with its error in `*error` (when given; cleared on success). An empty text is
/// `std::errc::invalid_argument`. A read-only attribute that could not be cleared is stored in `*error` while
/// the result stays true.
VEXEL_API bool CopyFileSystemEntry(std::wstring_view source, std::wstring_view target,
                                   FlagSet<CopyingFlag> flags, std::error_code* error);

/// Creates every missing directory of the chain `path`; trailing separators are ignored. True when the
/// directory is there in the end. `*error`, if it is given, is cleared on success and receives the error
/// otherwise; for an empty text that is `std::errc::invalid_argument`. The last argument is reserved: pass 0.
VEXEL_API bool CreateDirectories(std::wstring_view path, std::error_code* error, int reserved);

/// Returns the path of the shell's folder `folderId`, or an empty text when the shell has none. With `create`
/// the folder is made first if it is missing.
VEXEL_API CString GetKnownFolderPath(const GUID& folderId, bool create);

/// Stores the user's local application-data folder in `*path`; false, with `*path` as it was, when the
/// shell has none.
VEXEL_API bool GetUserDataFolderPath(CString* path);
VEXEL_API bool GetUserDataFolderPath(std::wstring* path);

} // namespace Vexel

// Helpers on strings; extensions are found by the shell's PathFindExtensionW and given with their dot.
// The results are TRUE (1) and FALSE (0).

/// Whether the name has a non-empty extension; a dot alone is one.
VEXEL_API int VxwNameHasExt(const CString& name);

/// Appends `extension` unless the name has one. Returns TRUE.
VEXEL_API int VxwAddExt(CString& name, const wchar_t* extension);

/// Cuts the name before the last dot if it has an extension, then appends `extension`. Returns TRUE.
VEXEL_API int VxwReplaceExt(CString& name, const wchar_t* extension);

/// Whether the text may be a path: not empty, none of the characters *?"<>|, no double backslash but at the
/// very start, no double slash, and no colon but as the second character.
VEXEL_API int VxwIsThisAPath(const CString& text);

namespace vxio {

/// Finds a variant of the file name `name` that is free by the word of `probe`, which answers no error for a
/// free name and `std::errc::file_exists` for a taken one. Asks for the name itself first, then for the name
/// with " (n)" (`bracketStyle`) or "_n_processId" before its extension, n = 1, 2, ... With `stripCounter`, a
/// counter of that style is taken off the name before the first question; without it, the bracket style
/// still replaces a bracketed counter once the name itself is taken.
/// True with `name` set to the free name; false, `name` unchanged, when `probe` is empty, answers another
/// error, or no counter is left.
VEXEL_API bool MakeFileNameUnique(CString& name, const std::function<std::error_code(const CString&)>& probe,
                                  bool bracketStyle, bool stripCounter);

} // namespace vxio
