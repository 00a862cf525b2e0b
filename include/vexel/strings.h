#pragma once

/// Strings in documents. Integers are little-endian; four layouts stand side by side, and the function that
/// is called decides which one is meant:
///
///  U  32-bit count of bytes, then UTF-16 text
///  W  32-bit count of characters (code units), then UTF-16 text
///  A  32-bit count of bytes, then text in the ANSI code page; only read, in documents of versions below 2861
///  M  the layout of the framework's archives, for wide text:
///       FF FE FF, then the length in characters in the shortest of
///         one byte below FF | FF and 16 bits, below FFFE | FF FFFF and 32 bits, below FFFFFFFF
///         | FF FFFF FFFFFFFF and 64 bits,
///       then UTF-16 text
///
/// When there are fewer data than a count promises, the string has as many characters as arrived, and the
/// last one may lack its high byte. Memory is taken as data arrive, never on the word of a count alone.
/// Exhausted memory raises std::bad_alloc or the framework's memory exception. Streams do not throw here;
/// the functions on file handles raise CFileException* with the system's error. The functions keep nothing
/// and may be called on any thread.

#include <vexel/byte_streams.h>
#include <vexel/export.h>
#include <vexel/framework.h>

#include <windows.h>

#include <objidl.h>

#include <string>
#include <string_view>

class StreamRef;

/// Writes U.
VEXEL_API void VxwWriteString(vxio::IWriteStream& stream, const CStringW& text);
/// Writes W. The text has at most 0xFFFFFFFF characters.
VEXEL_API void VxwWriteString(vxio::IWriteStream& stream, std::wstring_view text);

/// Reads A where `version` is below 2861, up to its first zero byte and in the calling thread's code page.
/// From that version on it reads U.
VEXEL_API void VxwReadString(vxio::IReadStream& stream, CStringW& text, int version);
/// Reads A where `version` is below 2861, else W. Read from A, the text has as many characters as there were
/// bytes: where the bytes make fewer characters, the rest are zeros. A count of 0 in A leaves `text` as it
/// was.
VEXEL_API void VxwReadString(vxio::IReadStream& stream, std::wstring& text, int version);
/// Reads A without converting it.
VEXEL_API void VxwReadStringA(vxio::IReadStream& stream, std::string& text);
/// Reads W.
VEXEL_API void VxwReadStringW(vxio::IReadStream& stream, std::wstring& text);
/// Reads `count` characters without a count in front.
VEXEL_API void VxwReadStringW(vxio::IReadStream& stream, std::wstring& text, unsigned count);

// These read U, and drop zeros at the end of the text. The result tells whether all the bytes came that the
// count promised, the four bytes of the count among them.

VEXEL_API bool VxwReadUniString(vxio::IReadStream& stream, CStringW& text);
/// Does nothing when `stream` is null.
VEXEL_API void VxwReadUniString(::IStream* stream, CStringW& text);
/// Reads from the handle's COM stream.
VEXEL_API void VxwReadUniString(const StreamRef& stream, CStringW& text);
/// Reads from a Win32 file. The result is always true: at the end of the file the text is short or empty, and
/// a failure raises.
VEXEL_API bool VxwReadUniString(void* fileHandle, CStringW& text);

// These write U. The statuses of COM streams are not looked at.

/// Does nothing when `stream` is null.
VEXEL_API void VxwWriteUniString(::IStream* stream, const CStringW& text);
VEXEL_API void VxwWriteUniString(const StreamRef& stream, const CStringW& text);
/// Writes to a Win32 file. The result is always true; a failure raises.
VEXEL_API bool VxwWriteUniString(void* fileHandle, const CStringW& text);

/// Writes M.
VEXEL_API void VxwWriteCArchiveString(vxio::IWriteStream& stream, const CStringW& text);
/// Reads M. Text without the mark FF FE FF is read as wide text too: our writers always mark theirs. A length
/// above 0x7FFFFFFF raises CArchiveException* (genericException).
VEXEL_API void VxwReadCArchiveString(vxio::IReadStream& stream, CStringW& text);

/// Returns the low half of a Win32 file's position. Raises CFileException* when that is 0xFFFFFFFF, which
/// cannot be told from a failure.
VEXEL_API unsigned VxwGetFilePointer(void* fileHandle);
