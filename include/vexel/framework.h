#pragma once

/// The application framework's string, exception, file and archive types, as far as the library uses them.
///
/// With VEXEL_FRAMEWORK_MFC defined this is the framework itself. Otherwise it is a stand-in with the same
/// names and the same behaviour; code that uses this header compiles against both. Therefore never declare
/// these classes ahead: include this header.

#include <vexel/export.h>

#if !defined(VEXEL_FRAMEWORK_MFC)

#include <windows.h>

#include <wchar.h>

#include <atomic>
#include <compare>
#include <concepts>
#include <cstdarg>
#include <memory>
#include <type_traits>
#include <utility>

namespace Vexel::Detail {

struct BlockDeleter {
    bool owned = true;
    VEXEL_FRAMEWORK_API void operator()(BYTE* block) const noexcept;
};

} // namespace Vexel::Detail

class IAtlStringMgr;

/// Head of a string's memory; the characters and a terminating zero follow it.
struct CStringData {
    IAtlStringMgr* pStringMgr; ///< that gets the memory back
    int nDataLength;
    int nAllocLength; ///< in characters, without the terminating zero
    std::atomic<long> nRefs;

    void* data() noexcept { return this + 1; }
};

/// Where strings get their memory, for those who make many and have a cheaper source than the heap. It is
/// used from all threads that have strings of it, and must outlive these and their copies. Lengths are in
/// characters, without the terminating zero, and sizes in bytes.
class IAtlStringMgr {
public:
    /// Memory for an empty string with room for `length` characters, its head filled in: one reference, and
    /// the manager that is to free it. Null when there is none.
    virtual CStringData* Allocate(int length, int characterSize) noexcept = 0;
    virtual void Free(CStringData* data) noexcept = 0;
    /// Puts a string that has one reference into memory for `length` characters, no fewer than it has, and
    /// frees the old one. Null, with nothing changed, when there is none.
    virtual CStringData* Reallocate(CStringData* data, int length, int characterSize) noexcept = 0;
    /// The head of an empty string, which nobody changes or frees.
    virtual CStringData* GetNilString() noexcept = 0;
    /// The manager of copies. Copies share memory, so that it must be the manager itself.
    virtual IAtlStringMgr* Clone() noexcept = 0;

protected:
    ~IAtlStringMgr() = default;
};

/// A UTF-16 string with value semantics. Copies share one buffer until one of them is changed, so copying
/// costs one atomic increment. Lengths and indices count code units and fit an `int`.
///
/// Distinct strings may be used on distinct threads even while they share a buffer; one string object belongs
/// to one thread at a time unless nobody changes it.
///
/// Comparing stops at the first zero character, as in the framework. Null pointers count as empty texts.
/// Exhausted memory and texts longer than an `int` counts throw `CMemoryException*`, bad arguments throw
/// `CInvalidArgException*`.
class VEXEL_FRAMEWORK_API CStringW {
public:
    CStringW() noexcept = default;
    CStringW(const CStringW& other) noexcept : buffer_(other.buffer_) {
        if (buffer_)
            buffer_->nRefs.fetch_add(1, std::memory_order_relaxed);
    }
    CStringW(CStringW&& other) noexcept : buffer_(std::exchange(other.buffer_, nullptr)) {}
    CStringW(const wchar_t* text);
    CStringW(const wchar_t* text, int length);
    /// With memory of that manager. An empty string needs none.
    CStringW(const wchar_t* text, int length, IAtlStringMgr* manager);
    /// Narrow text is in the calling thread's ANSI code page.
    explicit CStringW(const char* text);
    CStringW(const char* text, int length);
    explicit CStringW(wchar_t character, int count = 1);
    ~CStringW() { release(); }

    CStringW& operator=(const CStringW& other) noexcept {
        CStringW(other).swap(*this);
        return *this;
    }
    CStringW& operator=(CStringW&& other) noexcept {
        CStringW(std::move(other)).swap(*this);
        return *this;
    }
    /// The text may be part of this string's own.
    CStringW& operator=(const wchar_t* text);
    CStringW& operator=(const char* text);
    void SetString(const wchar_t* text);
    void SetString(const wchar_t* text, int length);

    int GetLength() const noexcept { return buffer_ ? buffer_->nDataLength : 0; }
    bool IsEmpty() const noexcept { return GetLength() == 0; }
    /// The zero-terminated text; never null. Valid until the string is changed or destroyed.
    const wchar_t* GetString() const noexcept { return buffer_ ? textOf(buffer_) : L""; }
    operator const wchar_t*() const noexcept { return GetString(); }
    /// The character at `index`, which may be that of the terminating zero.
    wchar_t GetAt(int index) const {
        checkIndex(index, GetLength());
        return GetString()[index];
    }
    wchar_t operator[](int index) const { return GetAt(index); }
    void SetAt(int index, wchar_t character);

    /// Where the string has its memory from, or would get it.
    IAtlStringMgr* GetManager() const noexcept;

    /// The text for writing, with room for `minimumLength` characters and a zero. `ReleaseBuffer` must follow
    /// before anything else is done with the string.
    wchar_t* GetBuffer() { return GetBuffer(GetLength()); }
    wchar_t* GetBuffer(int minimumLength);
    /// The same, with the length set at once.
    wchar_t* GetBufferSetLength(int length);
    /// Sets the length after writing; -1 finds it by the terminating zero.
    void ReleaseBuffer(int length = -1);
    void ReleaseBufferSetLength(int length);
    void Preallocate(int length);

    void Empty() noexcept {
        release();
        buffer_ = nullptr;
    }
    /// Cuts to `length` characters, at most the present length.
    void Truncate(int length);

    void Append(const wchar_t* text);
    void Append(const wchar_t* text, int length);
    void Append(const CStringW& text);
    void AppendChar(wchar_t character) { Append(&character, 1); }
    CStringW& operator+=(const CStringW& text) {
        Append(text);
        return *this;
    }
    CStringW& operator+=(const wchar_t* text) {
        Append(text);
        return *this;
    }
    CStringW& operator+=(wchar_t character) {
        AppendChar(character);
        return *this;
    }

    /// The result is negative, zero or positive. `CompareNoCase` folds case as the C library's locale does.
    int Compare(const wchar_t* other) const noexcept { return wcscmp(GetString(), other ? other : L""); }
    int CompareNoCase(const wchar_t* other) const noexcept {
        return _wcsicmp(GetString(), other ? other : L"");
    }

    /// Parts of the text. Counts and starts outside it are brought inside.
    CStringW Left(int count) const;
    CStringW Right(int count) const;
    CStringW Mid(int first) const { return Mid(first, GetLength()); }
    CStringW Mid(int first, int count) const;

    /// These return the index of the first (or last) place, -1 when there is none.
    int Find(wchar_t character, int start = 0) const noexcept;
    int Find(const wchar_t* text, int start = 0) const noexcept;
    int ReverseFind(wchar_t character) const noexcept;
    int FindOneOf(const wchar_t* characters) const noexcept;

    /// These return the number of places that were replaced.
    int Replace(wchar_t from, wchar_t to);
    int Replace(const wchar_t* from, const wchar_t* to);
    /// These return the new length. An index beyond the end means the end.
    int Insert(int index, wchar_t character);
    int Insert(int index, const wchar_t* text);
    int Delete(int index, int count = 1);

    CStringW& MakeLower();
    CStringW& MakeUpper();
    /// Without an argument these remove white space.
    CStringW& TrimLeft();
    CStringW& TrimLeft(wchar_t character);
    CStringW& TrimLeft(const wchar_t* characters);
    CStringW& TrimRight();
    CStringW& TrimRight(wchar_t character);
    CStringW& TrimRight(const wchar_t* characters);
    CStringW& Trim() { return TrimRight().TrimLeft(); }

    /// Wide formats: `%s` and `%ls` are both wide, `%hs` is narrow. Arguments may point into this string.
    void Format(const wchar_t* format, ...);
    void FormatV(const wchar_t* format, va_list arguments);
    void AppendFormat(const wchar_t* format, ...);

    friend bool operator==(const CStringW& a, const CStringW& b) noexcept {
        return a.buffer_ == b.buffer_ || a.Compare(b.GetString()) == 0;
    }
    friend bool operator==(const CStringW& a, const wchar_t* b) noexcept { return a.Compare(b) == 0; }
    friend std::weak_ordering operator<=>(const CStringW& a, const CStringW& b) noexcept {
        return a.Compare(b.GetString()) <=> 0;
    }
    friend std::weak_ordering operator<=>(const CStringW& a, const wchar_t* b) noexcept {
        return a.Compare(b) <=> 0;
    }

    friend VEXEL_FRAMEWORK_API CStringW operator+(const CStringW& a, const CStringW& b);
    friend VEXEL_FRAMEWORK_API CStringW operator+(const CStringW& a, const wchar_t* b);
    friend VEXEL_FRAMEWORK_API CStringW operator+(const wchar_t* a, const CStringW& b);
    friend VEXEL_FRAMEWORK_API CStringW operator+(const CStringW& a, wchar_t b);
    friend VEXEL_FRAMEWORK_API CStringW operator+(wchar_t a, const CStringW& b);

private:
    static wchar_t* textOf(CStringData* buffer) noexcept { return static_cast<wchar_t*>(buffer->data()); }
    void swap(CStringW& other) noexcept { std::swap(buffer_, other.buffer_); }
    void release() noexcept {
        if (buffer_ && buffer_->nRefs.fetch_sub(1, std::memory_order_acq_rel) == 1)
            buffer_->pStringMgr->Free(buffer_);
    }
    static void checkIndex(int index, int limit) {
        if (index < 0 || index > limit)
            throwInvalidArgument();
    }
    bool shared() const noexcept { return buffer_->nRefs.load(std::memory_order_acquire) != 1; }

    static IAtlStringMgr& heap() noexcept;
    static CStringData* create(int capacity, IAtlStringMgr& manager = heap());
    [[noreturn]] static void throwInvalidArgument();
    static CStringW join(const wchar_t* a, int lengthA, const wchar_t* b, int lengthB);
    void reserve(int capacity);
    void setLength(int length) noexcept;

    CStringData* buffer_ = nullptr; ///< null: the empty string
};

using CString = CStringW;

/// Base of the framework's exceptions. They are thrown as pointers; who catches one calls `Delete` on it.
class VEXEL_FRAMEWORK_API CException {
public:
    CException() noexcept = default;
    CException(const CException&) = delete;
    CException& operator=(const CException&) = delete;
    virtual ~CException();

    /// Frees the exception if it was made by `new`; those made ahead of need stay.
    void Delete();

    /// Puts a short text, cut to fit, into the buffer of `size` characters. FALSE when there is no text.
    virtual BOOL GetErrorMessage(wchar_t* buffer, UINT size, UINT* helpContext = nullptr) const;

protected:
    explicit CException(bool autoDelete) noexcept : autoDelete_(autoDelete) {}

private:
    bool autoDelete_ = true;
};

class VEXEL_FRAMEWORK_API CMemoryException : public CException {
public:
    CMemoryException() noexcept = default;
    explicit CMemoryException(bool autoDelete) noexcept : CException(autoDelete) {}
    ~CMemoryException() override;
    BOOL GetErrorMessage(wchar_t* buffer, UINT size, UINT* helpContext = nullptr) const override;
};

class VEXEL_FRAMEWORK_API CInvalidArgException : public CException {
public:
    CInvalidArgException() noexcept = default;
    explicit CInvalidArgException(bool autoDelete) noexcept : CException(autoDelete) {}
    ~CInvalidArgException() override;
    BOOL GetErrorMessage(wchar_t* buffer, UINT size, UINT* helpContext = nullptr) const override;
};

class VEXEL_FRAMEWORK_API CFileException : public CException {
public:
    enum {
        none,
        genericException,
        fileNotFound,
        badPath,
        tooManyOpenFiles,
        accessDenied,
        invalidFile,
        removeCurrentDir,
        directoryFull,
        badSeek,
        hardIO,
        sharingViolation,
        lockViolation,
        diskFull,
        endOfFile
    };

    explicit CFileException(int cause = none, LONG osError = -1, const wchar_t* fileName = nullptr);
    ~CFileException() override;

    /// The cause that stands for a platform error code; `genericException` for codes without one.
    static int OsErrorToException(LONG osError) noexcept;
    [[noreturn]] static void ThrowOsError(LONG osError, const wchar_t* fileName = nullptr);

    BOOL GetErrorMessage(wchar_t* buffer, UINT size, UINT* helpContext = nullptr) const override;

    int m_cause;
    LONG m_lOsError; ///< -1: none
    CString m_strFileName;
};

class VEXEL_FRAMEWORK_API CArchiveException : public CException {
public:
    enum {
        none,
        genericException,
        readOnly, ///< storing into an archive that loads
        endOfFile,
        writeOnly, ///< loading from an archive that stores
        badIndex,
        badClass,
        badSchema,
        bufferFull
    };

    explicit CArchiveException(int cause = none, const wchar_t* fileName = nullptr);
    ~CArchiveException() override;

    BOOL GetErrorMessage(wchar_t* buffer, UINT size, UINT* helpContext = nullptr) const override;

    int m_cause;
    CString m_strFileName;
};

/// Throws an exception that was made ahead, so that no memory is needed.
[[noreturn]] VEXEL_FRAMEWORK_API void AfxThrowMemoryException();
[[noreturn]] VEXEL_FRAMEWORK_API void AfxThrowInvalidArgException();
[[noreturn]] VEXEL_FRAMEWORK_API void AfxThrowFileException(int cause, LONG osError = -1,
                                                            const wchar_t* fileName = nullptr);
[[noreturn]] VEXEL_FRAMEWORK_API void AfxThrowArchiveException(int cause, const wchar_t* fileName = nullptr);

/// A file, unbuffered. Failures throw `CFileException*`. Not synchronised.
class VEXEL_FRAMEWORK_API CFile {
public:
    enum OpenFlags : UINT {
        modeRead = 0x0000,
        modeWrite = 0x0001,
        modeReadWrite = 0x0002,
        shareCompat = 0x0000, ///< as `shareExclusive`
        shareExclusive = 0x0010,
        shareDenyWrite = 0x0020,
        shareDenyRead = 0x0030,
        shareDenyNone = 0x0040,
        modeNoInherit = 0x0080,
        modeCreate = 0x1000,     ///< makes the file; an existing one is emptied
        modeNoTruncate = 0x2000, ///< with `modeCreate`: an existing one is kept
        typeText = 0x4000,       ///< without effect here
        typeBinary = 0x8000
    };
    enum SeekPosition : UINT { begin, current, end };

    CFile() noexcept = default;
    /// Opens, or throws.
    CFile(const wchar_t* fileName, UINT openFlags);
    CFile(const CFile&) = delete;
    CFile& operator=(const CFile&) = delete;
    /// Closes; a failure to do so is dropped.
    virtual ~CFile();

    /// FALSE on failure; `error`, if it is given, receives the reason.
    virtual BOOL Open(const wchar_t* fileName, UINT openFlags, CFileException* error = nullptr);
    virtual void Close();
    /// Closes without throwing.
    virtual void Abort();

    /// Returns the number of bytes read, which is less than asked for only at the end of the file.
    virtual UINT Read(void* data, UINT count);
    /// Writes all the bytes, or throws.
    virtual void Write(const void* data, UINT count);
    virtual void Flush();

    /// Returns the new position, counted from the beginning. A position before the beginning throws
    /// `badSeek`.
    virtual ULONGLONG Seek(LONGLONG offset, UINT origin);
    virtual ULONGLONG GetPosition() const;
    virtual ULONGLONG GetLength() const;
    /// Cuts or extends the file; the position afterwards is its end.
    virtual void SetLength(ULONGLONG length);
    void SeekToBegin() { Seek(0, begin); }
    ULONGLONG SeekToEnd() { return Seek(0, end); }

    /// The full path, and its last part. Empty when there is no file.
    virtual CString GetFilePath() const;
    virtual CString GetFileName() const;

    HANDLE m_hFile = INVALID_HANDLE_VALUE;

protected:
    CString m_strFileName; ///< full path
};

/// A file in memory.
class VEXEL_FRAMEWORK_API CMemFile : public CFile {
public:
    /// Makes an empty file whose memory grows in steps of `growBytes`; with 0 it cannot grow.
    explicit CMemFile(UINT growBytes = 1024) noexcept;
    /// Does what `Attach` does.
    CMemFile(BYTE* memory, UINT size, UINT growBytes = 0) noexcept;
    ~CMemFile() override;

    /// Uses the caller's memory, which the file never frees. With `growBytes` 0 its contents are the file,
    /// which cannot grow. Otherwise the file begins empty, and the memory must come from `malloc`: it may be
    /// reallocated, and `Detach` gives it back.
    void Attach(BYTE* memory, UINT size, UINT growBytes = 0) noexcept;
    /// Hands out the memory, to be freed by `free` unless it was attached; the file is empty afterwards.
    BYTE* Detach() noexcept;

    BOOL Open(const wchar_t* fileName, UINT openFlags, CFileException* error = nullptr) override;
    void Close() override;
    void Abort() override;
    UINT Read(void* data, UINT count) override;
    void Write(const void* data, UINT count) override;
    void Flush() override;
    ULONGLONG Seek(LONGLONG offset, UINT origin) override;
    ULONGLONG GetPosition() const override;
    ULONGLONG GetLength() const override;
    /// Bytes that come into being this way, or by writing beyond the end, are zero.
    void SetLength(ULONGLONG length) override;

private:
    void reserve(ULONGLONG capacity);

    std::unique_ptr<BYTE, Vexel::Detail::BlockDeleter> block_;
    SIZE_T growBytes_;
    SIZE_T capacity_ = 0;
    SIZE_T length_ = 0;
    SIZE_T position_ = 0;
};

/// A buffered sequence of values stored into, or loaded from, a file. Not synchronised.
///
/// Values are little-endian. `CArchiveException*` is thrown with `readOnly` for storing into an archive that
/// loads, with `writeOnly` for loading from one that stores, and with `endOfFile` for loading beyond the end
/// of the file. What the file throws passes through.
class VEXEL_FRAMEWORK_API CArchive {
public:
    enum Mode : UINT { store = 0, load = 1, bNoFlushOnDelete = 2 };

    /// The file must outlive the archive; its position moves in steps of the buffer's size (in bytes).
    CArchive(CFile* file, UINT mode, int bufferSize = 4096);
    CArchive(const CArchive&) = delete;
    CArchive& operator=(const CArchive&) = delete;
    /// Closes, dropping failures: call `Close` to see them.
    ~CArchive();

    BOOL IsLoading() const noexcept { return (mode_ & load) != 0; }
    BOOL IsStoring() const noexcept { return (mode_ & load) == 0; }
    CFile* GetFile() const noexcept { return file_; }

    /// Returns the number of bytes read, which is less than asked for only at the end of the file.
    UINT Read(void* data, UINT count);
    void Write(const void* data, UINT count);
    /// Writes what is buffered, or gives back what was read ahead, so that the file's position is the
    /// archive's.
    void Flush();
    /// Flushes and lets go of the file, which stays open.
    void Close();
    /// Lets go of the file without flushing.
    void Abort() noexcept;

    /// `int` and `long` are 4 bytes, `bool` is 1.
    template <class T>
    requires std::is_arithmetic_v<T> &&(!std::same_as<T, long double>)CArchive& operator<<(T value) {
        Write(&value, sizeof(value));
        return *this;
    }
    template <class T>
    requires std::is_arithmetic_v<T> &&(!std::same_as<T, long double>)CArchive& operator>>(T& value) {
        readAll(&value, sizeof(value));
        return *this;
    }
    /// True for any byte but zero.
    CArchive& operator>>(bool& value) {
        BYTE stored = 0;
        *this >> stored;
        value = stored != 0;
        return *this;
    }

    CString m_strFileName; ///< named by the archive's exceptions

private:
    void readAll(void* data, UINT count);
    UINT takeBuffered(BYTE* data, UINT count) noexcept;
    bool fill();

    CFile* file_;
    UINT mode_;
    UINT size_;
    UINT begin_ = 0; ///< loading: what of the buffer was handed out
    UINT end_ = 0;   ///< what of the buffer holds data
    std::unique_ptr<BYTE[]> buffer_;
};

/// A string is stored as its length (see `AfxWriteStringLength`, wide) and its UTF-16 code units.
VEXEL_FRAMEWORK_API CArchive& operator<<(CArchive& archive, const CStringW& text);
/// Loads strings of both widths; narrow ones are in the thread's ANSI code page. The target changes only when
/// the whole string came. Lengths beyond an `int` throw `CArchiveException*` with `genericException`. Memory
/// is taken as the characters come, not as the length promises.
VEXEL_FRAMEWORK_API CArchive& operator>>(CArchive& archive, CStringW& text);

/// Stores the length of a string, in characters:
///
///     [0xFF, 0xFFFE (16 bits)]       only if `wide`
///     L (8 bits)                     L < 0xFF
///     0xFF, L (16 bits)              L < 0xFFFE
///     0xFF, 0xFFFF, L (32 bits)      L < 0xFFFFFFFF
///     0xFF, 0xFFFF, 0xFFFFFFFF, L (64 bits)
VEXEL_FRAMEWORK_API void AfxWriteStringLength(CArchive& archive, UINT_PTR length, BOOL wide);
/// Loads such a length, unchecked, and the size of a character: 1 or 2 bytes.
VEXEL_FRAMEWORK_API UINT_PTR AfxReadStringLength(CArchive& archive, int& characterSize);

#endif
