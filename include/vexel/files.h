#pragma once

/// Plain files: a handle that knows its errors, byte streams over it (byte_streams.h, whose rules hold), and
/// lines of text in whatever encoding a file has.
///
/// Nothing here throws except where memory is exhausted: std::bad_alloc, and where text is handed out also
/// the framework's memory exception. `GetLastErrorCode` returns the system's error code of the last call that
/// failed since opening, or 0 if none did. It is ERROR_INVALID_PARAMETER for a path that is null or empty,
/// and ERROR_INVALID_HANDLE for a file that is not open. An object closes its file when it is destroyed, and
/// belongs to one thread at a time.

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
    OpenExisting, ///< opens a file; ERROR_FILE_NOT_FOUND when there is none
    OpenOrCreate, ///< opens a file with its contents, or makes an empty one
    CreateNew,    ///< makes a file; ERROR_FILE_EXISTS when there is one
    Truncate,     ///< makes a file, or empties the one that is there
};

/// A file of the system, unbuffered. It can be moved; the object that it is moved from is closed then.
class VEXEL_API SimpleFile {
public:
    SimpleFile() noexcept = default;
    SimpleFile(SimpleFile&& other) noexcept;
    SimpleFile& operator=(SimpleFile&& other) noexcept;
    SimpleFile(const SimpleFile&) = delete;
    SimpleFile& operator=(const SimpleFile&) = delete;
    ~SimpleFile();

    /// Closes the file that was open, then opens this one.
    bool Open(const wchar_t* path, FileAccess access, FileCreation creation,
              FileStreamProtectedType protection) noexcept;
    void Close() noexcept;
    bool IsOpen() const noexcept { return handle_ != nullptr; }
    /// The handle, borrowed. It is null while no file is open.
    HANDLE GetHandle() const noexcept { return handle_; }
    DWORD GetLastErrorCode() const noexcept { return error_; }
    /// Sets the error, for a class that finds a fault in what it has read. Returns false.
    bool Fail(DWORD error) noexcept {
        error_ = error;
        return false;
    }

    /// Both return the number of bytes moved. It is less than asked for at the end of the file, or when an
    /// error is set. A pipe ends when its writer has closed it.
    unsigned long long Read(void* buffer, unsigned long long count) noexcept;
    unsigned long long Write(const void* buffer, unsigned long long count) noexcept;
    /// `origin` is one of FILE_BEGIN, FILE_CURRENT, FILE_END. `position`, if it is not null, receives the new
    /// position.
    bool Seek(long long offset, DWORD origin, unsigned long long* position) noexcept;
    /// Both return 0 when the file cannot be asked.
    unsigned long long GetPosition() const noexcept;
    unsigned long long GetLength() const noexcept;
    /// Cuts the file off, or extends it by zeros; the position stays.
    bool SetLength(unsigned long long length) noexcept;
    /// Has the system bring everything to the disk, where the volume knows such a thing.
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
    /// An error of an earlier call can still be asked afterwards.
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
    /// For reading, the encoding is found by the byte-order mark, or where there is none by all of the
    /// contents, which are then read twice. Contents with zero bytes are UTF-16 or UTF-32 if all of them can
    /// be that, and most characters or all line feeds say so. Other contents are UTF-8 if they are valid as
    /// that, Ansi if they are valid in the system's code page, and else Latin1, which has a character for
    /// every byte. Of a pipe or device only the first 64 KiB count. For writing this stands for UTF-8.
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

    /// Opens the file and passes over a byte-order mark of the encoding. With `binary` the carriage return
    /// before a line feed belongs to the line; otherwise it belongs to the line's end.
    bool Open(const wchar_t* path, FileStreamProtectedType protection, TextEncoding encoding, bool binary);
    void Close() noexcept;
    bool IsOpen() const noexcept { return file_.IsOpen(); }
    DWORD GetLastErrorCode() const noexcept { return file_.GetLastErrorCode(); }
    /// The encoding that is read; instead of Detect, the one that was found.
    TextEncoding GetEncoding() const noexcept { return encoding_; }

    /// Reads the next line, without its end, which is a line feed or a zero unit. False, with an empty line,
    /// when nothing is left or reading fails; the position and the error tell which. Bytes for which the
    /// encoding has no characters become U+FFFD, or in Ansi the stand-in of the code page.
    ///
    /// A last line without an end is as much as is there; what someone appends to it later is the next line.
    /// It comes only when the file is known to end there: where the length of a file on a disk cannot be had,
    /// or is more than can be read, reading fails (so does Open, when it meets such an end).
    bool ReadString(CStringW& line);

    /// Whether the lines read so far had bytes for which the encoding has no characters.
    bool HasReplaced() const noexcept { return hasReplaced_; }

    /// The position behind the last line that was read, and the length of the file, both in bytes.
    unsigned long long GetPosition() const noexcept { return position_; }
    unsigned long long GetLength() const noexcept { return file_.GetLength(); }

private:
    std::size_t readFully(unsigned char* bytes, std::size_t count, unsigned long long at);
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
    /// Does what Close does.
    ~TextFileWriteStream();

    /// With `mark` an empty file begins with a byte-order mark, if the encoding has one.
    bool Open(const WriteStreamOpenArgs& args, TextEncoding encoding, bool mark);
    /// Writes what is still in the buffer, and closes the file. False when this or an earlier write failed.
    bool Close();
    /// Writes what is still in the buffer, and has the system bring it to the disk. False when this or an
    /// earlier write failed.
    bool Flush();
    bool IsOpen() const noexcept { return file_.IsOpen(); }
    DWORD GetLastErrorCode() const noexcept { return error_ ? error_ : file_.GetLastErrorCode(); }

    /// Appends the text as it is: the caller writes the ends of lines. A character that the encoding lacks
    /// becomes "?" or one that looks alike; a lone surrogate, which only UTF-16 can hold, becomes U+FFFD. A
    /// failure may show only later, at the latest in Close.
    bool WriteString(std::wstring_view text);

private:
    bool writeBuffered();

    FileWriteStream file_;
    std::vector<unsigned char> buffer_;
    TextEncoding encoding_ = TextEncoding::Utf8;
    DWORD error_ = 0; // of the first write that failed
};

} // namespace vxio
