#include "io/com_stream.h"

#include <vexel/byte_streams.h>

#include <utility>

using Microsoft::WRL::ComPtr;

namespace vxio {

// Pointers are exchanged by Swap: with mingw-w64, assigning a moved pointer leaves the source as it was, and
// assigning a plain one lets go of the old stream before it holds the new one, and == only tells null from
// not null.

IStreamStream::~IStreamStream() = default;

IStreamStream& IStreamStream::operator=(IStreamStream&& other) noexcept {
    if (stream_.Get() != other.stream_.Get())
        ComPtr<::IStream>(std::move(other.stream_)).Swap(stream_);
    return *this;
}

void IStreamStream::Attach(::IStream* stream) {
    if (stream_.Get() != stream)
        ComPtr<::IStream>(stream).Swap(stream_);
}

// The pointer is cleared first: letting go of the stream may lead back here.
void IStreamStream::Close() { ComPtr<::IStream>().Swap(stream_); }

unsigned long long IStreamStream::WriteBytes(::IStream* stream, const void* buffer,
                                             unsigned long long count) {
    return Vexel::Detail::writeBytes(stream, buffer, count);
}

unsigned long long IStreamStream::SeekToEnd() {
    unsigned long long reached = 0;
    return Vexel::Detail::seek(stream_.Get(), STREAM_SEEK_END, 0, reached) ? reached : 0;
}

void IStreamStream::SeekToBegin() {
    unsigned long long reached = 0;
    Vexel::Detail::seek(stream_.Get(), STREAM_SEEK_SET, 0, reached);
}

unsigned long long IStreamStream::GetLength() {
    STATSTG record{};
    return stream_ && SUCCEEDED(stream_->Stat(&record, STATFLAG_NONAME)) ? record.cbSize.QuadPart : 0;
}

unsigned long long IStreamStream::Seek(SeekPosition origin, long long offset) {
    unsigned long long reached = 0;
    const bool known =
        origin == SeekPosition::Begin || origin == SeekPosition::Current || origin == SeekPosition::End;
    if (known && Vexel::Detail::seek(stream_.Get(), static_cast<DWORD>(origin), offset, reached))
        return reached;
    return GetPosition();
}

unsigned long long IStreamStream::GetPosition() const { return Vexel::Detail::position(stream_.Get()); }

unsigned long long IStreamStream::ReadBytes(void* buffer, unsigned long long count) {
    return Vexel::Detail::readBytes(stream_.Get(), buffer, count);
}

unsigned long long IStreamStream::WriteBytes(const void* buffer, unsigned long long count) {
    return WriteBytes(stream_.Get(), buffer, count);
}

} // namespace vxio
