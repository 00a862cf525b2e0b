#pragma once

/// Seekable byte streams without COM: what readers and writers of strings and documents are written against,
/// so that one routine serves a stream of a structured file, a plain file and a COM stream alike.
///
/// 1. Positions and lengths are byte counts from the start of the stream.
/// 2. No operation throws or reports a status. A failure shows as a short count, as 0 or as a position that
///    did not change; a caller that needs to know compares counts.
/// 3. A stream belongs to one thread at a time.
/// 4. The interfaces own nothing and cannot be deleted through.
/// 5. A class that reads and writes derives from both IReadStream and IWriteStream. It then has two IStream
///    bases (the inheritance is not virtual, the order of the slots is part of the binary interface), which
///    share one implementation: name the side where a plain IStream is wanted.

#include <vexel/export.h>

#include <windows.h>

#include <objidl.h>
#include <wrl/client.h>

namespace vxio {

/// Positioning, common to both directions.
class IStream {
public:
    enum SeekPosition : int { Begin = 0, Current = 1, End = 2 };

    /// Moves to the end and returns the new position.
    virtual unsigned long long SeekToEnd() = 0;
    virtual void SeekToBegin() = 0;
    virtual unsigned long long GetLength() = 0;
    /// Moves to `offset` bytes from `origin` and returns the new position; the present one when the origin is
    /// none of the three or the move fails.
    virtual unsigned long long Seek(SeekPosition origin, long long offset) = 0;
    virtual unsigned long long GetPosition() const = 0;

protected:
    ~IStream() = default;
};

class IReadStream : public IStream {
public:
    /// Reads up to `count` bytes from the position on and returns how many were read: fewer than asked only
    /// at the end or on an error. `buffer` holds at least `count` bytes.
    virtual unsigned long long ReadBytes(void* buffer, unsigned long long count) = 0;

protected:
    ~IReadStream() = default;
};

class IWriteStream : public IStream {
public:
    /// Writes `count` bytes at the position and returns how many were written: fewer only on an error.
    virtual unsigned long long WriteBytes(const void* buffer, unsigned long long count) = 0;

protected:
    ~IWriteStream() = default;
};

/// A COM stream as a byte stream of the library. Holds a reference on it; without a stream everything is 0
/// and nothing moves. Statuses are not looked at: what the COM stream says it has moved counts.
class VEXEL_API IStreamStream : public IReadStream, public IWriteStream {
public:
    IStreamStream() noexcept = default;
    /// Takes a reference of its own.
    explicit IStreamStream(::IStream* stream) : stream_(stream) {}
    /// A copy shares the COM stream, and so its position.
    IStreamStream(const IStreamStream&) = default;
    IStreamStream(IStreamStream&&) noexcept = default;
    IStreamStream& operator=(const IStreamStream&) = default;
    /// Leaves `other` without a stream, unless both hold the same one: then nothing happens.
    IStreamStream& operator=(IStreamStream&& other) noexcept;
    ~IStreamStream();

    /// Holds `stream`, which may be null, in place of the present one, by a reference of its own.
    void Attach(::IStream* stream);
    void Close();

    /// The COM stream, borrowed; null when there is none.
    ::IStream* GetStream() const noexcept { return stream_.Get(); }
    explicit operator bool() const noexcept { return stream_ != nullptr; }

    /// Writes to any COM stream, in as many calls as COM's counts require. Returns 0 when `stream` is null.
    static unsigned long long WriteBytes(::IStream* stream, const void* buffer, unsigned long long count);

    /// Returns 0 when the move fails.
    unsigned long long SeekToEnd() override;
    void SeekToBegin() override;
    unsigned long long GetLength() override;
    unsigned long long Seek(SeekPosition origin, long long offset) override;
    unsigned long long GetPosition() const override;
    unsigned long long ReadBytes(void* buffer, unsigned long long count) override;
    unsigned long long WriteBytes(const void* buffer, unsigned long long count) override;

private:
    Microsoft::WRL::ComPtr<::IStream> stream_;
};

} // namespace vxio
