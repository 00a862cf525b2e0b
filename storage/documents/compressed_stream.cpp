// Three readers stand one on the other: a stream of a document or of the caller, the same as a byte stream
// (raw_), and the inflating reader over that. Which one answers a call depends on whether inflating has
// begun. Positions are those of the stored bytes, because nobody knows the inflated length before the end.

#include "io/gzip_reader.h"

#include <vexel/compressed_stream.h>

#include <algorithm>
#include <utility>

namespace {

constexpr unsigned long long kLargestPart = 16384;

[[noreturn]] void throwFileException(int cause) { AfxThrowFileException(cause, -1, nullptr); }

/// Statuses of the storage facility carry the system's error codes.
bool isSystemError(long status) { return (status & 0x1FFF0000) == 0x00030000 && (status & 0xFFFF) < 256; }

void explain(long status, CFileException& error) {
    error.m_lOsError = status;
    if (isSystemError(status)) {
        error.m_lOsError = status & 0xFFFF;
        error.m_cause = CFileException::OsErrorToException(error.m_lOsError);
    } else if (status == STG_E_INUSE || status == STG_E_SHAREREQUIRED) {
        error.m_cause = CFileException::sharingViolation;
    } else {
        error.m_cause = CFileException::genericException;
    }
}

} // namespace

COleStreamCompressFile::COleStreamCompressFile(bool decompress) : decompress_(decompress) {}

COleStreamCompressFile::COleStreamCompressFile(bool decompress, StreamRef stream)
    : stream_(std::move(stream)), openFlags_(OpenReadOnly), decompress_(decompress) {
    raw_.Attach(stream_.stream());
    if (raw_)
        OpenCompression();
}

COleStreamCompressFile::~COleStreamCompressFile() { COleStreamCompressFile::Close(); }

bool COleStreamCompressFile::OpenStream(const StorageRef& parent, const SharedPathName& name, OpenFlags flags,
                                        CFileException* error) {
    Close();
    const long status = stream_.open(name, parent, (flags & OpenReadOnly) != 0);
    ::IStream* const stream = SUCCEEDED(status) ? stream_.stream() : nullptr;
    if (!stream) {
        if (error)
            explain(status, *error);
        return false;
    }
    raw_.Attach(stream);
    openFlags_ = flags;
    return openCompressionIfWanted();
}

bool COleStreamCompressFile::OpenStream(::IStream* stream) {
    const Microsoft::WRL::ComPtr<::IStream> kept(stream); // closing may let go of the last reference
    Close();
    return kept && open(kept.Get());
}

bool COleStreamCompressFile::OpenStream(StreamRef stream) {
    Close();
    if (!stream.stream())
        return false;
    stream_ = std::move(stream);
    return open(stream_.stream());
}

bool COleStreamCompressFile::open(::IStream* stream) {
    raw_.Attach(stream);
    stream->Seek({}, STREAM_SEEK_SET, nullptr);
    openFlags_ = OpenReadOnly;
    return openCompressionIfWanted();
}

bool COleStreamCompressFile::openCompressionIfWanted() {
    if (!autoOpenCompression_ || OpenCompression())
        return true;
    Close();
    return false;
}

bool COleStreamCompressFile::OpenCompression() {
    if (!decompress_)
        return true;
    if (!gzip_)
        gzip_ = std::make_unique<Vexel::Detail::GzipReader>();
    if (openFlags_ & OpenForWriting)
        return false;
    return compressionOpen_ = gzip_->open(raw_, false);
}

void COleStreamCompressFile::CloseCompression() {
    if (std::exchange(compressionOpen_, false))
        gzip_->close();
}

void COleStreamCompressFile::Close() {
    CloseCompression();
    raw_.Close();
    stream_.close();
}

bool COleStreamCompressFile::SetIgnoreEndOfFile(bool ignore) noexcept {
    return std::exchange(ignoreEndOfFile_, ignore);
}

bool COleStreamCompressFile::inflating() const noexcept { return compressionOpen_ && gzip_->inflating(); }

unsigned long long COleStreamCompressFile::ReadPart(void* buffer, unsigned long long count) {
    return gzip_->read(buffer, count);
}

unsigned long long COleStreamCompressFile::readInParts(void* buffer, unsigned long long count) {
    auto* const bytes = static_cast<unsigned char*>(buffer);
    unsigned long long done = 0;
    while (done < count) {
        const auto part = ReadPart(bytes + done, (std::min)(count - done, kLargestPart));
        if (part == 0)
            break;
        done += part;
    }
    return done;
}

unsigned long long COleStreamCompressFile::ReadBytes(void* buffer, unsigned long long count) {
    unsigned long long done = 0;
    if (compressionOpen_)
        done = count > kLargestPart ? readInParts(buffer, count) : ReadPart(buffer, count);
    else if (count)
        done = raw_.ReadBytes(buffer, count);
    if (done != count && !ignoreEndOfFile_)
        throwFileException(CFileException::endOfFile);
    return done;
}

unsigned long long COleStreamCompressFile::Seek(vxio::IStream::SeekPosition origin, long long offset) {
    if (!inflating())
        return raw_.Seek(origin, offset);
    if (offset < 0 || (origin != vxio::IStream::Begin && origin != vxio::IStream::Current))
        throwFileException(CFileException::badSeek);
    if (origin == vxio::IStream::Begin) {
        CloseCompression();
        raw_.SeekToBegin();
        OpenCompression();
    }
    unsigned char dropped = 0;
    for (long long at = 0; at < offset && ReadBytes(&dropped, 1) == 1; ++at) {
    }
    return 0; // not the position, which nobody keeps
}

void COleStreamCompressFile::SeekToBegin() { Seek(vxio::IStream::Begin, 0); }

unsigned long long COleStreamCompressFile::SeekToEnd() { return Seek(vxio::IStream::End, 0); }

unsigned long long COleStreamCompressFile::GetLength() {
    const auto before = GetPosition();
    const auto length = SeekToEnd();
    Seek(vxio::IStream::Begin, static_cast<long long>(before));
    return length;
}

unsigned long long COleStreamCompressFile::GetPosition() const { return raw_.GetPosition(); }
