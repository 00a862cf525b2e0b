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

/// Reads a stream of a structured file, or any COM stream. A stream that begins as gzip does is inflated; any
/// other is read as it is. Unlike other byte streams, this one reports errors by the framework's file
/// exceptions:
///  - CFileException* (endOfFile): there were fewer bytes than asked for, and short reads are not to be
///    ignored. The bytes that there were stand in the buffer.
///  - CFileException* (badSeek): while inflating, the position was to be moved back (except to the begin) or
///    to or from the end, or the length was asked, which nobody knows in advance.
/// An object belongs to one thread at a time.
class VEXEL_API COleStreamCompressFile : public vxio::IReadStream {
public:
    enum OpenFlags : unsigned {
        OpenDefault = 0,    ///< opens as StreamRef::open for writing does, which empties the stream
        OpenReadOnly = 1,   ///< opens for reading
        OpenForWriting = 2, ///< marks a stream that is going to be written: it is never read as compressed
    };
    friend constexpr OpenFlags operator|(OpenFlags a, OpenFlags b) noexcept {
        return static_cast<OpenFlags>(static_cast<unsigned>(a) | static_cast<unsigned>(b));
    }

    /// Makes an object without a stream. Without `decompress` every stream is read as it is.
    explicit COleStreamCompressFile(bool decompress);
    /// Reads `stream` from its present position on. If it is compressed, it is inflated, whatever
    /// SetAutoOpenCompression would say.
    COleStreamCompressFile(bool decompress, StreamRef stream);
    COleStreamCompressFile(const COleStreamCompressFile&) = delete;
    COleStreamCompressFile& operator=(const COleStreamCompressFile&) = delete;
    /// Does what CloseCompression and Close do.
    ~COleStreamCompressFile();

    // Opening closes what was open. The result is false, and the object is closed, when there is no such
    // stream, when the stream begins as gzip does but cannot be read as that, or when it is marked
    // OpenForWriting although it is to be decompressed.

    /// When the stream cannot be opened, `error`, if it is not null, receives the cause and a code. The code
    /// is the system's error for a status of the storage facility, and the status itself for any other.
    bool OpenStream(const StorageRef& parent, const SharedPathName& name, OpenFlags flags,
                    CFileException* error);
    /// Rewinds `stream` and takes a reference on it. False when it is null.
    bool OpenStream(::IStream* stream);
    bool OpenStream(StreamRef stream);

    /// Begins to read compressed bytes at the present position. True also when the bytes turn out not to be
    /// compressed, or when nothing is to be inflated.
    bool OpenCompression();
    /// Ends inflating. If the contents were read to their end, faults in the trailer are logged. Reading goes
    /// on with the bytes as they are stored, behind those that were read ahead.
    void CloseCompression();

    /// Whether opening a stream also opens its compression; true at first.
    bool GetAutoOpenCompression() const noexcept { return autoOpenCompression_; }
    void SetAutoOpenCompression(bool open) noexcept { autoOpenCompression_ = open; }
    /// Whether a read that finds too few bytes returns them instead of throwing; false at first.
    bool GetIgnoreEndOfFile() const noexcept { return ignoreEndOfFile_; }
    /// Returns the previous value.
    bool SetIgnoreEndOfFile(bool ignore) noexcept;

    unsigned long long SeekToEnd() override;
    void SeekToBegin() override;
    unsigned long long GetLength() override;
    /// While inflating, moves forward by reading, and returns 0. A move from the begin starts again at the
    /// first byte of the stream.
    unsigned long long Seek(vxio::IStream::SeekPosition origin, long long offset) override;
    /// Returns the position in the stream as it is stored, also while inflating; bytes that were read ahead
    /// count. Callers show their progress by it.
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

/// Inflates the gzip member that `source` holds from its position to its end, and writes the bytes to
/// `destination` at its position. A source that is something else, or that has bytes left over when nothing
/// more can be inflated, is copied as it is instead; the bytes that were inflated are taken back then.
///
/// Up to 4096 bytes are read ahead, and count as used. So damage, a cut or a further member within the last
/// 4096 bytes goes unnoticed: the call succeeds with the bytes that could be inflated. A trailer that does
/// not fit the contents is logged and is no failure either.
///
/// The destination may be emptied on the way. For the stream of a handle ask for the interface anew for each
/// call (storage.h, rule 7).
///  - The failures of copying. A failed write of inflated bytes is a failure even if copying succeeds then.
///  - STG_E_SEEKERROR: `source` cannot be rewound to be copied.
///  - STG_E_WRITEFAULT: what was inflated cannot be taken back.
///  - STG_E_INVALIDPOINTER: `source` or `destination` is null.
VEXEL_API HRESULT DecompressStream(::IStream* source, ::IStream* destination);
