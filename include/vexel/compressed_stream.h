#pragma once

/// Gzip-compressed streams, which documents of older versions hold, read as if they were not compressed. The
/// library never writes any.
///
/// The format is RFC 1952's, one member. A stream with a stored file name or comment in its header does not
/// count as compressed but as damaged; documents never had such ones. Faults of header and trailer are logged
/// as errors.

#include <vexel/byte_streams.h>
#include <vexel/export.h>
#include <vexel/framework.h>
#include <vexel/storage.h>

#include <windows.h>

#include <objidl.h>

#include <memory>

namespace Vexel::Detail {
class GzipReader;
} // namespace Vexel::Detail

/// Reads a stream of a structured file, or any COM stream: inflated if it begins as gzip does, else as it is.
/// Errors are the framework's file exceptions, unlike those of other byte streams:
///  - CFileException* (endOfFile): fewer bytes than asked for, unless these are to be ignored. What there was
///    stands in the buffer.
///  - CFileException* (badSeek): while inflating, moving back except to the begin, moving to or from the end,
///    and asking for the length, which nobody knows in advance.
/// Belongs to one thread at a time.
class VEXEL_API COleStreamCompressFile : public vxio::IReadStream {
public:
    enum OpenFlags : unsigned {
        OpenDefault = 0,    ///< as StreamRef::open for writing, which empties the stream
        OpenReadOnly = 1,   ///< for reading
        OpenForWriting = 2, ///< marks a stream that is going to be written: it is never read as compressed
    };
    friend constexpr OpenFlags operator|(OpenFlags a, OpenFlags b) noexcept {
        return static_cast<OpenFlags>(static_cast<unsigned>(a) | static_cast<unsigned>(b));
    }

    /// Empty. Without `decompress` every stream is read as it is.
    explicit COleStreamCompressFile(bool decompress);
    /// Reads `stream` from its present position on, as compressed where it is, whatever
    /// SetAutoOpenCompression would say.
    COleStreamCompressFile(bool decompress, StreamRef stream);
    COleStreamCompressFile(const COleStreamCompressFile&) = delete;
    COleStreamCompressFile& operator=(const COleStreamCompressFile&) = delete;
    /// As CloseCompression and Close.
    ~COleStreamCompressFile();

    // Opening closes what was open. False leaves the file closed: there is no such stream, it begins as gzip
    // does but cannot be read as that, or it is marked OpenForWriting and yet to be decompressed.

    /// On failure to open the stream `error`, where not null, receives the cause and a code: of a status of
    /// the storage facility the system's error, else the status.
    bool OpenStream(const StorageRef& parent, const SharedPathName& name, OpenFlags flags,
                    CFileException* error);
    /// Rewinds `stream` and takes a reference on it; false for null.
    bool OpenStream(::IStream* stream);
    bool OpenStream(StreamRef stream);

    /// Begins to read as compressed at the present position; true also where the bytes turn out not to be, or
    /// nothing is to be inflated.
    bool OpenCompression();
    /// Ends that, and logs what the trailer says of the contents if they were read to their end. Reading goes
    /// on with the bytes as they are, behind what was read ahead.
    void CloseCompression();

    /// Whether opening a stream opens its compression; true at first.
    bool GetAutoOpenCompression() const noexcept { return autoOpenCompression_; }
    void SetAutoOpenCompression(bool open) noexcept { autoOpenCompression_ = open; }
    /// Whether short reads return what there was; false at first.
    bool GetIgnoreEndOfFile() const noexcept { return ignoreEndOfFile_; }
    /// Returns the previous value.
    bool SetIgnoreEndOfFile(bool ignore) noexcept;

    unsigned long long SeekToEnd() override;
    void SeekToBegin() override;
    unsigned long long GetLength() override;
    /// While inflating, moves forward by reading and returns 0. From the begin starts again at the first byte
    /// of the stream.
    unsigned long long Seek(vxio::IStream::SeekPosition origin, long long offset) override;
    /// While inflating, too, the position in the stream as it is stored, bytes read ahead included: callers
    /// show their progress by it.
    unsigned long long GetPosition() const override;
    unsigned long long ReadBytes(void* buffer, unsigned long long count) override;

    virtual void Close();

private:
    bool inflating() const noexcept;
    bool open(::IStream* stream);
    bool openCompressionIfWanted();
    unsigned long long ReadPart(void* buffer, unsigned long long count);
    unsigned long long readInParts(void* buffer, unsigned long long count);

    StreamRef stream_; // what was opened by name or handle
    vxio::IStreamStream raw_;
    std::unique_ptr<Vexel::Detail::GzipReader> gzip_; // made when first needed
    OpenFlags openFlags_{};
    bool decompress_;
    bool ignoreEndOfFile_ = false;
    bool autoOpenCompression_ = true;
    bool compressionOpen_ = false;
};

/// Inflates the gzip member that `source` holds from its position to its end into `destination` at its
/// position. A source that is something else, or has bytes left over when nothing more can be inflated, is
/// copied as it is instead, and what was inflated taken back.
///
/// Up to 4096 bytes are read ahead and count as used. So damage, a cut or a further member within the last of
/// them goes unnoticed: that is success with what could be inflated. A trailer that does not fit is logged
/// and no failure either.
///  - The failures of copying. A failed write of inflated bytes is one, even if copying succeeds then.
///    STG_E_SEEKERROR: `source` cannot be rewound to be copied. STG_E_WRITEFAULT: what was inflated cannot be
///    taken back.
///  - STG_E_INVALIDPOINTER: null.
VEXEL_API HRESULT DecompressStream(::IStream* source, ::IStream* destination);
