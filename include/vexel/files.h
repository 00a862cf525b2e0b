#pragma once

/// Plain files: a handle that knows its errors, byte streams over it (byte_streams.h, whose rules hold), and
/// lines of text in whatever encoding a file has.
///
/// Nothing here throws but std::bad_alloc and the framework's memory exception, where text is handed out.
/// What failed is told by `GetLastErrorCode`: the system's error code of the last call that failed since
/// opening, 0 if none did. A path that is null or empty is ERROR_INVALID_PARAMETER, a file that is not open
/// ERROR_INVALID_HANDLE. Objects close their file when they go. Each belongs to one thread at a time.

#include <vexel/byte_streams.h>
#include <vexel/export.h>
#include <vexel/framework.h>

#include <windows.h>

#include <cstddef>
#include <string_view>
#include <vector>

namespace vxio {

/// What others may do with a file while it is open.
enum FileStreamProtectedType : unsigned {
    ProtectAll = 0x10,     ///< nothing
    ProtectWriting = 0x20, ///< read
    ProtectReading = 0x30, ///< write
    ProtectNothing = 0x40, ///< read, write and delete
};

enum class FileAccess { Read, Write, ReadWrite };

enum class FileCreation {
    OpenExisting, ///< ERROR_FILE_NOT_FOUND when there is none
    OpenOrCreate, ///< with its contents, if there are any
    CreateNew,    ///< ERROR_FILE_EXISTS when there is one
    Truncate,     ///< made, or emptied
};

/// A file of the system, unbuffered. Movable; the source is closed then.
class VEXEL_API SimpleFile {
public:
    SimpleFile() noexcept = default;
    SimpleFile(SimpleFile&& other) noexcept;
    SimpleFile& operator=(SimpleFile&& other) noexcept;
    SimpleFile(const SimpleFile&) = delete;
    SimpleFile& operator=(const SimpleFile&) = delete;
    ~SimpleFile();

    /// Closes what was open, then opens.
    bool Open(const wchar_t* path, FileAccess access, FileCreation creation,
              FileStreamProtectedType protection) noexcept;
    void Close() noexcept;
    bool IsOpen() const noexcept { return handle_ != nullptr; }
    /// Borrowed; null while closed.
    HANDLE GetHandle() const noexcept { return handle_; }
    DWORD GetLastErrorCode() const noexcept { return error_; }
    /// Sets the error, for a class that finds one in what it has read; false.
    bool Fail(DWORD error) noexcept {
        error_ = error;
        return false;
    }

    /// The bytes moved: fewer than asked for at the end, or when an error is set.
    unsigned long long Read(void* buffer, unsigned long long count) noexcept;
    unsigned long long Write(const void* buffer, unsigned long long count) noexcept;
    /// `origin` is one of FILE_BEGIN, FILE_CURRENT, FILE_END. `position`, where not null, receives the new
    /// one.
    bool Seek(long long offset, DWORD origin, unsigned long long* position) noexcept;
    /// 0 when it cannot be asked.
    unsigned long long GetPosition() const noexcept;
    unsigned long long GetLength() const noexcept;
    /// Cuts the file off, or extends it by zeros; the position stays.
    bool SetLength(unsigned long long length) noexcept;
    /// Has the system bring all to the disk.
    bool Flush() noexcept;

private:
    bool check(bool done) const noexcept;

    HANDLE handle_ = nullptr;
    mutable DWORD error_ = 0;
};

/// A file as a byte stream for reading.
class VEXEL_API FileReadStream : public IReadStream {
public:
    bool Open(const wchar_t* path, FileStreamProtectedType protection);
    void Close() noexcept { file_.Close(); }
    bool IsOpen() const noexcept { return file_.IsOpen(); }
    DWORD GetLastErrorCode() const noexcept { return file_.GetLastErrorCode(); }

    unsigned long long SeekToEnd() override;
    void SeekToBegin() override;
    unsigned long long GetLength() override;
    unsigned long long Seek(SeekPosition origin, long long offset) override;
    unsigned long long GetPosition() const override;
    unsigned long long ReadBytes(void* buffer, unsigned long long count) override;

private:
    SimpleFile file_;
};

/// How a file is opened for writing.
struct WriteStreamOpenArgs {
    const wchar_t* path = nullptr;
    FileCreation creation = FileCreation::Truncate;
    FileStreamProtectedType protection = ProtectAll;
    bool append = false; ///< begin at the end of what is there
};

/// A file as a byte stream for writing. Unbuffered.
class VEXEL_API FileWriteStream : public IWriteStream {
public:
    bool Open(const WriteStreamOpenArgs& args);
    /// Whatever failed before is still told afterwards.
    void Close() noexcept { file_.Close(); }
    bool IsOpen() const noexcept { return file_.IsOpen(); }
    bool Flush() noexcept { return file_.Flush(); }
    DWORD GetLastErrorCode() const noexcept { return file_.GetLastErrorCode(); }

    unsigned long long SeekToEnd() override;
    void SeekToBegin() override;
    unsigned long long GetLength() override;
    unsigned long long Seek(SeekPosition origin, long long offset) override;
    unsigned long long GetPosition() const override;
    unsigned long long WriteBytes(const void* buffer, unsigned long long count) override;

private:
    SimpleFile file_;
};

enum class TextEncoding {
    /// Reading: by the byte-order mark, else by all of the contents, which are read twice for it. Contents
    /// with zero bytes are UTF-16 or UTF-32 if all of them can be that, and most characters or all line feeds
    /// say so. Else what is valid UTF-8 is that; what is valid in the system's code page is Ansi; the rest is
    /// Latin1, which has a character for every byte. Of a pipe or device only the first 64 KiB count.
    /// Writing: UTF-8.
    Detect = 0,
    Ansi = 1,   ///< the system's code page
    Latin1 = 2, ///< ISO 8859-1
    Utf8 = 3,
    Utf16LE = 4,
    Utf16BE = 5,
    Utf32LE = 6,
    Utf32BE = 7,
};

/// Reads a file line by line, buffered.
class VEXEL_API TextFileReadStream {
public:
    TextFileReadStream() noexcept;
    TextFileReadStream(const TextFileReadStream&) = delete;
    TextFileReadStream& operator=(const TextFileReadStream&) = delete;
    ~TextFileReadStream();

    /// Passes over a byte-order mark of the encoding. With `binary` the carriage return before a line feed
    /// belongs to the line.
    bool Open(const wchar_t* path, FileStreamProtectedType protection, TextEncoding encoding, bool binary);
    void Close() noexcept;
    bool IsOpen() const noexcept { return file_.IsOpen(); }
    DWORD GetLastErrorCode() const noexcept { return file_.GetLastErrorCode(); }
    /// What is read as; the one that was found instead of Detect.
    TextEncoding GetEncoding() const noexcept { return encoding_; }

    /// The next line, without its end: a line feed or a zero unit. False, with an empty line, when nothing is
    /// left or reading fails, which differ by position and error. Bytes that the encoding has no characters
    /// for become U+FFFD, or in Ansi the stand-in of the code page.
    bool ReadString(CStringW& line);

    /// Whether lines so far had bytes that the encoding has no characters for.
    bool HasReplaced() const noexcept { return hasReplaced_; }

    /// In bytes: behind the last line read, and the file's.
    unsigned long long GetPosition() const noexcept { return position_; }
    unsigned long long GetLength() const noexcept { return file_.GetLength(); }

private:
    bool fill();
    TextEncoding detect();
    std::size_t findLineEnd(std::size_t from) const noexcept;
    void decode(const unsigned char* bytes, std::size_t size, CStringW& line);

    SimpleFile file_;
    std::vector<unsigned char> buffer_; // read ahead; what begins at `start_` is not handed out yet
    std::size_t start_ = 0;
    std::vector<wchar_t> text_; // of the line, while it is decoded
    unsigned long long position_ = 0;
    TextEncoding encoding_ = TextEncoding::Utf8;
    std::size_t unit_ = 1; // bytes
    bool binary_ = false;
    bool hasReplaced_ = false;
};

/// Writes text to a file, buffered.
class VEXEL_API TextFileWriteStream {
public:
    TextFileWriteStream() noexcept = default;
    TextFileWriteStream(const TextFileWriteStream&) = delete;
    TextFileWriteStream& operator=(const TextFileWriteStream&) = delete;
    /// As Close.
    ~TextFileWriteStream();

    /// `mark`: begin an empty file with a byte-order mark, where the encoding has one.
    bool Open(const WriteStreamOpenArgs& args, TextEncoding encoding, bool mark);
    /// Writes what is left. False when this or an earlier write failed.
    bool Close();
    /// The same, and has the system bring it to the disk.
    bool Flush();
    bool IsOpen() const noexcept { return file_.IsOpen(); }
    DWORD GetLastErrorCode() const noexcept { return error_ ? error_ : file_.GetLastErrorCode(); }

    /// Appends the text as it is: line ends are the caller's. Characters that the encoding lacks become "?"
    /// or one that looks alike, lone surrogates, which only UTF-16 has, U+FFFD. A failure may show only
    /// later, at the latest in Close.
    bool WriteString(std::wstring_view text);

private:
    bool writeBuffered();

    FileWriteStream file_;
    std::vector<unsigned char> buffer_;
    TextEncoding encoding_ = TextEncoding::Utf8;
    DWORD error_ = 0; // of the first write that failed
};

} // namespace vxio
