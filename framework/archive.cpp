#include <vexel/framework.h>

#include <windows.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>
#include <string>

namespace {

constexpr UINT kSmallestBuffer = 128;

constexpr BYTE kLonger8 = 0xFF;
constexpr WORD kWideMark = 0xFFFE;
constexpr WORD kLonger16 = 0xFFFF;
constexpr DWORD kLonger32 = 0xFFFFFFFF;

/// Reads a text of `length` characters in growing steps: memory is taken for what came, not for what a
/// damaged length promises. `room(n)` gives the whole text's memory with room for n characters.
template <class Character, class Room>
void readText(CArchive& archive, int length, Room room) {
    constexpr int kFirstStep = 4096;
    for (int done = 0; done < length;) {
        const int step = std::min(length - done, std::max(done, kFirstStep));
        const UINT bytes = static_cast<UINT>(step) * UINT{sizeof(Character)};
        if (archive.Read(room(done + step) + done, bytes) != bytes)
            AfxThrowArchiveException(CArchiveException::endOfFile, archive.m_strFileName);
        done += step;
    }
}

CStringW readWide(CArchive& archive, int length) {
    CStringW text;
    readText<wchar_t>(archive, length, [&](int room) { return text.GetBufferSetLength(room); });
    return text;
}

CStringW readNarrow(CArchive& archive, int length) try {
    std::string text;
    readText<char>(archive, length, [&](int room) {
        text.resize(static_cast<std::size_t>(room));
        return text.data();
    });
    return {text.data(), length};
} catch (const std::bad_alloc&) {
    AfxThrowMemoryException();
}

} // namespace

CArchive::CArchive(CFile* file, UINT mode, int bufferSize)
    : file_(file), mode_(mode), size_(std::max(static_cast<UINT>(std::max(bufferSize, 0)), kSmallestBuffer)),
      buffer_(new (std::nothrow) BYTE[size_]) {
    if (!file)
        AfxThrowInvalidArgException();
    if (!buffer_)
        AfxThrowMemoryException();
    m_strFileName = file->GetFilePath();
}

CArchive::~CArchive() {
    if (!file_ || (mode_ & bNoFlushOnDelete))
        return;
    try {
        Close();
    } catch (CException* exception) {
        exception->Delete();
    } catch (...) {
        // A destructor has nobody to tell.
    }
}

UINT CArchive::takeBuffered(BYTE* data, UINT count) noexcept {
    const UINT taken = std::min(count, end_ - begin_);
    if (taken != 0)
        std::memcpy(data, buffer_.get() + begin_, taken);
    begin_ += taken;
    return taken;
}

namespace {

/// Of a file that may be of others' making.
UINT readFile(CFile& file, BYTE* data, UINT count, const CString& name) {
    const UINT done = file.Read(data, count);
    if (done > count)
        AfxThrowArchiveException(CArchiveException::genericException, name);
    return done;
}

} // namespace

bool CArchive::fill() {
    begin_ = end_ = 0;
    end_ = readFile(*file_, buffer_.get(), size_, m_strFileName);
    return end_ != 0;
}

UINT CArchive::Read(void* data, UINT count) {
    if (IsStoring())
        AfxThrowArchiveException(CArchiveException::writeOnly, m_strFileName);
    if (!file_)
        AfxThrowArchiveException(CArchiveException::genericException, m_strFileName);

    auto* target = static_cast<BYTE*>(data);
    UINT done = takeBuffered(target, count);
    while (done < count) {
        UINT came = 0;
        if (count - done >= size_)
            came = readFile(*file_, target + done, count - done, m_strFileName);
        else if (fill())
            came = takeBuffered(target + done, count - done);
        if (came == 0)
            break;
        done += came;
    }
    return done;
}

void CArchive::readAll(void* data, UINT count) {
    if (Read(data, count) != count)
        AfxThrowArchiveException(CArchiveException::endOfFile, m_strFileName);
}

void CArchive::Write(const void* data, UINT count) {
    if (IsLoading())
        AfxThrowArchiveException(CArchiveException::readOnly, m_strFileName);
    if (!file_)
        AfxThrowArchiveException(CArchiveException::genericException, m_strFileName);
    if (count == 0)
        return;

    if (count > size_ - end_)
        Flush();
    if (count >= size_) {
        file_->Write(data, count);
        return;
    }
    std::memcpy(buffer_.get() + end_, data, count);
    end_ += count;
}

void CArchive::Flush() {
    if (!file_)
        return;
    // What cannot be written now is dropped: the destructor shall not try it again.
    const UINT first = std::exchange(begin_, 0);
    const UINT last = std::exchange(end_, 0);
    if (IsStoring())
        file_->Write(buffer_.get(), last);
    else if (first != last)
        file_->Seek(-static_cast<LONGLONG>(last - first), CFile::current);
}

void CArchive::Close() {
    Flush();
    file_ = nullptr;
}

void CArchive::Abort() noexcept {
    begin_ = end_ = 0;
    file_ = nullptr;
}

CArchive& operator<<(CArchive& archive, const CStringW& text) {
    AfxWriteStringLength(archive, static_cast<UINT_PTR>(text.GetLength()), TRUE);
    archive.Write(text.GetString(), static_cast<UINT>(text.GetLength()) * UINT{sizeof(wchar_t)});
    return archive;
}

CArchive& operator>>(CArchive& archive, CStringW& text) {
    int characterSize = 0;
    const UINT_PTR length = AfxReadStringLength(archive, characterSize);
    if (length > static_cast<UINT_PTR>(INT_MAX))
        AfxThrowArchiveException(CArchiveException::genericException, archive.m_strFileName);
    const int count = static_cast<int>(length);
    text = characterSize == 1 ? readNarrow(archive, count) : readWide(archive, count);
    return archive;
}

void AfxWriteStringLength(CArchive& archive, UINT_PTR length, BOOL wide) {
    if (wide)
        archive << kLonger8 << kWideMark;
    if (length < kLonger8)
        archive << static_cast<BYTE>(length);
    else if (length < kWideMark)
        archive << kLonger8 << static_cast<WORD>(length);
    else if (length < kLonger32)
        archive << kLonger8 << kLonger16 << static_cast<DWORD>(length);
    else
        archive << kLonger8 << kLonger16 << kLonger32 << static_cast<ULONGLONG>(length);
}

UINT_PTR AfxReadStringLength(CArchive& archive, int& characterSize) {
    characterSize = 1;
    BYTE length8 = 0;
    archive >> length8;
    if (length8 < kLonger8)
        return length8;

    WORD length16 = 0;
    archive >> length16;
    if (length16 == kWideMark) {
        characterSize = 2;
        archive >> length8;
        if (length8 < kLonger8)
            return length8;
        archive >> length16;
    }
    if (length16 < kLonger16)
        return length16;

    DWORD length32 = 0;
    archive >> length32;
    if (length32 < kLonger32)
        return length32;

    ULONGLONG length64 = 0;
    archive >> length64;
    return static_cast<UINT_PTR>(length64);
}
