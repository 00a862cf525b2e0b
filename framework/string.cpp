#include <vexel/framework.h>

#include <windows.h>

#include <climits>
#include <cstring>
#include <functional>
#include <string_view>

namespace {

int checkedLength(std::size_t length) {
    if (length > static_cast<std::size_t>(INT_MAX))
        AfxThrowMemoryException();
    return static_cast<int>(length);
}

int lengthOf(const wchar_t* text) { return text ? checkedLength(wcslen(text)) : 0; }

int sum(int a, int b) { return checkedLength(static_cast<std::size_t>(a) + static_cast<std::size_t>(b)); }

void copyText(wchar_t* target, const wchar_t* source, int length) {
    if (length > 0)
        std::memmove(target, source, static_cast<std::size_t>(length) * sizeof(wchar_t));
}

std::wstring_view viewOf(const CStringW& text) {
    return {text.GetString(), static_cast<std::size_t>(text.GetLength())};
}

int indexOf(std::size_t found) { return found == std::wstring_view::npos ? -1 : static_cast<int>(found); }

std::wstring_view viewOf(const wchar_t* text) { return text ? text : std::wstring_view(); }

template <class Unwanted>
void trimLeft(CStringW& text, Unwanted unwanted) {
    const std::wstring_view view = viewOf(text);
    std::size_t count = 0;
    while (count < view.size() && unwanted(view[count]))
        ++count;
    text.Delete(0, static_cast<int>(count));
}

template <class Unwanted>
void trimRight(CStringW& text, Unwanted unwanted) {
    const std::wstring_view view = viewOf(text);
    std::size_t length = view.size();
    while (length > 0 && unwanted(view[length - 1]))
        --length;
    text.Truncate(static_cast<int>(length));
}

bool isSpace(wchar_t character) { return iswspace(character) != 0; }

auto equalTo(wchar_t character) {
    return [=](wchar_t other) { return other == character; };
}

auto oneOf(const wchar_t* characters) {
    return [set = viewOf(characters)](wchar_t c) { return set.find(c) != std::wstring_view::npos; };
}

} // namespace

// Buffers

void CStringW::throwInvalidArgument() { AfxThrowInvalidArgException(); }

/// Gives the string a buffer of its own with room for `capacity` characters; the text stays.
void CStringW::reserve(int capacity) {
    const bool own = buffer_ && !shared();
    if (own && buffer_->nAllocLength >= capacity)
        return;

    const int length = GetLength();
    int room = capacity < length ? length : capacity;
    // Growing by halves keeps a row of appends linear.
    if (own && buffer_->nAllocLength < INT_MAX / 2 &&
        room < buffer_->nAllocLength + buffer_->nAllocLength / 2)
        room = buffer_->nAllocLength + buffer_->nAllocLength / 2;
    if (own) {
        CStringData* grown = buffer_->pStringMgr->Reallocate(buffer_, room, sizeof(wchar_t));
        if (!grown)
            AfxThrowMemoryException();
        buffer_ = grown;
        return;
    }
    CStringData* grown = create(room, *GetManager());
    copyText(textOf(grown), GetString(), length);
    release();
    buffer_ = grown;
    setLength(length);
}

void CStringW::setLength(int length) noexcept {
    if (!buffer_)
        return;
    buffer_->nDataLength = length;
    textOf(buffer_)[length] = 0;
}

wchar_t* CStringW::GetBuffer(int minimumLength) {
    checkIndex(minimumLength, INT_MAX);
    reserve(minimumLength > GetLength() ? minimumLength : GetLength());
    return textOf(buffer_);
}

wchar_t* CStringW::GetBufferSetLength(int length) {
    wchar_t* text = GetBuffer(length);
    setLength(length);
    return text;
}

void CStringW::ReleaseBuffer(int length) {
    if (length == -1) {
        const int capacity = buffer_ ? buffer_->nAllocLength : 0;
        length = static_cast<int>(wcsnlen(GetString(), static_cast<std::size_t>(capacity)));
    }
    ReleaseBufferSetLength(length);
}

void CStringW::ReleaseBufferSetLength(int length) {
    checkIndex(length, buffer_ ? buffer_->nAllocLength : 0);
    if (buffer_ && shared())
        reserve(length);
    setLength(length);
}

void CStringW::Preallocate(int length) { GetBuffer(length); }

// Making and assigning

CStringW::CStringW(const wchar_t* text) : CStringW(text, lengthOf(text)) {}

CStringW::CStringW(const wchar_t* text, int length) : CStringW(text, length, &heap()) {}

CStringW::CStringW(const wchar_t* text, int length, IAtlStringMgr* manager) {
    checkIndex(length, text ? INT_MAX : 0);
    if (length == 0)
        return;
    buffer_ = create(length, *manager);
    copyText(textOf(buffer_), text, length);
    setLength(length);
}

IAtlStringMgr* CStringW::GetManager() const noexcept { return buffer_ ? buffer_->pStringMgr : &heap(); }

CStringW::CStringW(const char* text) : CStringW(text, text ? checkedLength(std::strlen(text)) : 0) {}

CStringW::CStringW(const char* text, int length) {
    checkIndex(length, text ? INT_MAX : 0);
    if (length == 0)
        return;
    const int wide = MultiByteToWideChar(CP_THREAD_ACP, 0, text, length, nullptr, 0);
    buffer_ = create(wide);
    setLength(MultiByteToWideChar(CP_THREAD_ACP, 0, text, length, textOf(buffer_), wide));
}

CStringW::CStringW(wchar_t character, int count) {
    if (count <= 0)
        return;
    buffer_ = create(count);
    wmemset(textOf(buffer_), character, static_cast<std::size_t>(count));
    setLength(count);
}

CStringW& CStringW::operator=(const wchar_t* text) {
    SetString(text);
    return *this;
}

CStringW& CStringW::operator=(const char* text) {
    *this = CStringW(text);
    return *this;
}

void CStringW::SetString(const wchar_t* text) { SetString(text, lengthOf(text)); }

void CStringW::SetString(const wchar_t* text, int length) {
    const bool fits = buffer_ && text && length >= 0 && length <= buffer_->nAllocLength && !shared();
    if (!fits) {
        *this = CStringW(text, length);
        return;
    }
    copyText(textOf(buffer_), text, length);
    setLength(length);
}

void CStringW::SetAt(int index, wchar_t character) {
    checkIndex(index, GetLength() - 1);
    GetBuffer()[index] = character;
}

void CStringW::Truncate(int length) {
    checkIndex(length, INT_MAX);
    if (length < GetLength()) {
        reserve(length);
        setLength(length);
    }
}

// Joining

void CStringW::Append(const wchar_t* text) { Append(text, lengthOf(text)); }

void CStringW::Append(const CStringW& text) {
    if (IsEmpty())
        *this = text;
    else
        Append(text.GetString(), text.GetLength());
}

void CStringW::Append(const wchar_t* text, int length) {
    checkIndex(length, text ? INT_MAX : 0);
    if (length == 0)
        return;
    const int oldLength = GetLength();
    const int newLength = sum(oldLength, length);
    // A text of our own stays alive while the buffer moves.
    const bool ours = !std::less<>()(text, GetString()) && !std::less<>()(GetString() + oldLength, text);
    const CStringW source = ours ? *this : CStringW();
    reserve(newLength);
    copyText(textOf(buffer_) + oldLength, text, length);
    setLength(newLength);
}

CStringW CStringW::join(const wchar_t* a, int lengthA, const wchar_t* b, int lengthB) {
    CStringW result;
    wchar_t* text = result.GetBufferSetLength(sum(lengthA, lengthB));
    copyText(text, a, lengthA);
    copyText(text + lengthA, b, lengthB);
    return result;
}

CStringW operator+(const CStringW& a, const CStringW& b) {
    return CStringW::join(a.GetString(), a.GetLength(), b.GetString(), b.GetLength());
}

CStringW operator+(const CStringW& a, const wchar_t* b) {
    return CStringW::join(a.GetString(), a.GetLength(), b, lengthOf(b));
}

CStringW operator+(const wchar_t* a, const CStringW& b) {
    return CStringW::join(a, lengthOf(a), b.GetString(), b.GetLength());
}

CStringW operator+(const CStringW& a, wchar_t b) {
    return CStringW::join(a.GetString(), a.GetLength(), &b, 1);
}

CStringW operator+(wchar_t a, const CStringW& b) {
    return CStringW::join(&a, 1, b.GetString(), b.GetLength());
}

// Parts and places

CStringW CStringW::Left(int count) const { return Mid(0, count); }

CStringW CStringW::Right(int count) const {
    const int length = GetLength();
    return count >= length ? *this : Mid(count < 0 ? length : length - count);
}

CStringW CStringW::Mid(int first, int count) const {
    const int length = GetLength();
    if (first < 0)
        first = 0;
    if (first >= length || count <= 0)
        return {};
    if (count > length - first)
        count = length - first;
    return count == length ? *this : CStringW(GetString() + first, count);
}

int CStringW::Find(wchar_t character, int start) const noexcept {
    return start < 0 ? -1 : indexOf(viewOf(*this).find(character, static_cast<std::size_t>(start)));
}

int CStringW::Find(const wchar_t* text, int start) const noexcept {
    return start < 0 || !text ? -1 : indexOf(viewOf(*this).find(text, static_cast<std::size_t>(start)));
}

int CStringW::ReverseFind(wchar_t character) const noexcept {
    return indexOf(viewOf(*this).rfind(character));
}

int CStringW::FindOneOf(const wchar_t* characters) const noexcept {
    return indexOf(viewOf(*this).find_first_of(viewOf(characters)));
}

// Changes

int CStringW::Replace(wchar_t from, wchar_t to) {
    if (from == to)
        return 0;
    int count = 0;
    for (int index = Find(from); index >= 0; index = Find(from, index + 1)) {
        GetBuffer()[index] = to;
        ++count;
    }
    return count;
}

int CStringW::Replace(const wchar_t* from, const wchar_t* to) {
    const int fromLength = lengthOf(from);
    const int toLength = lengthOf(to);
    if (fromLength == 0)
        return 0;
    int count = 0;
    int done = 0;
    CStringW result;
    for (int index = Find(from); index >= 0; index = Find(from, done)) {
        result.Append(GetString() + done, index - done);
        result.Append(to, toLength);
        done = index + fromLength;
        ++count;
    }
    if (count > 0) {
        result.Append(GetString() + done, GetLength() - done);
        swap(result);
    }
    return count;
}

int CStringW::Insert(int index, wchar_t character) {
    index = index < 0 ? 0 : index;
    *this = Left(index) + character + Mid(index);
    return GetLength();
}

int CStringW::Insert(int index, const wchar_t* text) {
    index = index < 0 ? 0 : index;
    *this = Left(index) + text + Mid(index);
    return GetLength();
}

int CStringW::Delete(int index, int count) {
    index = index < 0 ? 0 : index;
    const int length = GetLength();
    if (count <= 0 || index >= length)
        return length;
    const int rest = count < length - index ? length - index - count : 0;
    wchar_t* text = GetBuffer();
    copyText(text + index, text + length - rest, rest);
    setLength(index + rest);
    return GetLength();
}

CStringW& CStringW::MakeLower() {
    wchar_t* text = GetBuffer();
    for (int i = 0; i < GetLength(); ++i)
        text[i] = towlower(text[i]);
    return *this;
}

CStringW& CStringW::MakeUpper() {
    wchar_t* text = GetBuffer();
    for (int i = 0; i < GetLength(); ++i)
        text[i] = towupper(text[i]);
    return *this;
}

CStringW& CStringW::TrimLeft() {
    trimLeft(*this, isSpace);
    return *this;
}

CStringW& CStringW::TrimLeft(wchar_t character) {
    trimLeft(*this, equalTo(character));
    return *this;
}

CStringW& CStringW::TrimLeft(const wchar_t* characters) {
    trimLeft(*this, oneOf(characters));
    return *this;
}

CStringW& CStringW::TrimRight() {
    trimRight(*this, isSpace);
    return *this;
}

CStringW& CStringW::TrimRight(wchar_t character) {
    trimRight(*this, equalTo(character));
    return *this;
}

CStringW& CStringW::TrimRight(const wchar_t* characters) {
    trimRight(*this, oneOf(characters));
    return *this;
}

// Formatting

void CStringW::FormatV(const wchar_t* format, va_list arguments) {
    va_list measured = {};
    va_copy(measured, arguments);
    const int length = format ? _vscwprintf(format, measured) : -1;
    va_end(measured);
    checkIndex(length, INT_MAX);

    CStringW result;
    _vsnwprintf(result.GetBuffer(length), static_cast<std::size_t>(length) + 1, format, arguments);
    result.ReleaseBufferSetLength(length);
    swap(result);
}

void CStringW::Format(const wchar_t* format, ...) {
    va_list arguments = {};
    va_start(arguments, format);
    CStringW result;
    result.FormatV(format, arguments);
    va_end(arguments);
    swap(result);
}

void CStringW::AppendFormat(const wchar_t* format, ...) {
    va_list arguments = {};
    va_start(arguments, format);
    CStringW tail;
    tail.FormatV(format, arguments);
    va_end(arguments);
    Append(tail);
}
