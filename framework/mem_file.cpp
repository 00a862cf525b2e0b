#include <vexel/framework.h>

#include <windows.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

void Vexel::Detail::BlockDeleter::operator()(BYTE* block) const noexcept {
    if (owned)
        std::free(block);
}

CMemFile::CMemFile(UINT growBytes) noexcept : growBytes_(growBytes) {}

CMemFile::CMemFile(BYTE* memory, UINT size, UINT growBytes) noexcept : growBytes_(growBytes) {
    Attach(memory, size, growBytes);
}

CMemFile::~CMemFile() = default;

void CMemFile::Attach(BYTE* memory, UINT size, UINT growBytes) noexcept {
    block_ = {memory, {.owned = false}};
    growBytes_ = growBytes;
    capacity_ = memory ? size : 0;
    length_ = growBytes == 0 ? capacity_ : 0;
    position_ = 0;
}

BYTE* CMemFile::Detach() noexcept {
    capacity_ = length_ = position_ = 0;
    BYTE* memory = block_.release();
    block_.get_deleter().owned = true;
    return memory;
}

BOOL CMemFile::Open(const wchar_t* fileName, UINT /*openFlags*/, CFileException* error) {
    if (error) {
        error->m_cause = CFileException::genericException;
        error->m_lOsError = -1;
        error->m_strFileName = fileName;
    }
    return FALSE;
}

void CMemFile::Close() {
    block_ = {};
    capacity_ = length_ = position_ = 0;
}

void CMemFile::Abort() { CMemFile::Close(); }

void CMemFile::reserve(ULONGLONG capacity) {
    if (capacity <= capacity_)
        return;
    // In whole steps, and at least by half of what there is, so that a row of writes stays linear.
    const SIZE_T step = std::max<SIZE_T>(growBytes_, capacity_ / 2);
    if (growBytes_ == 0 || capacity > static_cast<ULONGLONG>(LLONG_MAX) - step)
        AfxThrowMemoryException();
    const SIZE_T grown = (capacity + step - 1) / step * step;
    auto* memory = static_cast<BYTE*>(std::realloc(block_.get(), grown));
    if (!memory)
        AfxThrowMemoryException();
    static_cast<void>(block_.release()); // realloc has dealt with it
    block_.reset(memory);
    capacity_ = grown;
}

UINT CMemFile::Read(void* data, UINT count) {
    if (position_ >= length_)
        return 0;
    const UINT done = count < length_ - position_ ? count : static_cast<UINT>(length_ - position_);
    if (done != 0)
        std::memcpy(data, block_.get() + position_, done);
    position_ += done;
    return done;
}

void CMemFile::Write(const void* data, UINT count) {
    if (count == 0)
        return;
    reserve(position_ + count);
    if (position_ > length_)
        std::memset(block_.get() + length_, 0, position_ - length_);
    std::memcpy(block_.get() + position_, data, count);
    position_ += count;
    length_ = std::max(length_, position_);
}

void CMemFile::Flush() {}

ULONGLONG CMemFile::Seek(LONGLONG offset, UINT origin) {
    SIZE_T base = origin == current ? position_ : length_;
    if (origin == begin)
        base = 0;
    // Positions stay below 2^63, so that adding a count never wraps.
    const bool valid = origin <= end && (offset < 0 ? base >= 0 - static_cast<ULONGLONG>(offset)
                                                    : offset <= LLONG_MAX - static_cast<LONGLONG>(base));
    if (!valid)
        AfxThrowFileException(CFileException::badSeek);
    position_ = base + static_cast<SIZE_T>(offset);
    return position_;
}

ULONGLONG CMemFile::GetPosition() const { return position_; }

ULONGLONG CMemFile::GetLength() const { return length_; }

void CMemFile::SetLength(ULONGLONG length) {
    reserve(length);
    if (length > length_)
        std::memset(block_.get() + length_, 0, length - length_);
    length_ = length;
    if (position_ > length_)
        position_ = length_;
}
