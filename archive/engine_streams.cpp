// The engine asks for bytes in small pieces and often. Files are therefore read ahead, more and more as long
// as the reading goes on in order, and written in large parts. Failures are kept beside the stream, since the
// engine may report them under another name.

#include "archive/engine_streams.h"

#include "base/handles.h"
#include "base/process_end.h"
#include "base/status.h"

#include <7zCrc.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <optional>

namespace Vexel::Storage::Engine {

namespace {

constexpr std::uint32_t kLeastReadAhead = 0x8000;
constexpr std::uint32_t kMostReadAhead = 0x100000;
constexpr std::uint32_t kWriteBehind = 0x100000;
/// Larger requests are made of several calls: some drivers fail when too much is asked for at once.
constexpr std::uint32_t kLargestCall = 0x1000000;

constexpr std::uint64_t kUnknownPosition = ~std::uint64_t{0};

bool moveTo(HANDLE file, std::uint64_t offset) noexcept {
    LARGE_INTEGER position;
    position.QuadPart = static_cast<LONGLONG>(offset);
    return Detail::platform().setPosition(file, position, nullptr, FILE_BEGIN) != FALSE;
}

/// Nothing for an unknown origin or a position before the beginning.
std::optional<std::uint64_t> moved(std::uint64_t position, std::uint64_t size, std::int64_t offset,
                                   std::uint32_t origin) noexcept {
    std::uint64_t from = 0;
    if (origin == STREAM_SEEK_CUR)
        from = position;
    else if (origin == STREAM_SEEK_END)
        from = size;
    else if (origin != STREAM_SEEK_SET)
        return std::nullopt;
    if (offset < 0 && std::uint64_t{0} - static_cast<std::uint64_t>(offset) > from)
        return std::nullopt;
    return from + static_cast<std::uint64_t>(offset);
}

HRESULT seekStream(::IStream* stream, Int64 offset, UInt32 origin, UInt64* newPosition) noexcept {
    LARGE_INTEGER distance;
    distance.QuadPart = offset;
    ULARGE_INTEGER reached{};
    const HRESULT status = Detail::asStatus(stream->Seek(distance, origin, &reached), STG_E_SEEKERROR);
    if (status == S_OK && newPosition)
        *newPosition = reached.QuadPart;
    return status;
}

void tell(UInt32* processed, std::uint32_t count) noexcept {
    if (processed)
        *processed = count;
}

} // namespace

HRESULT InStreamBase::QueryInterface(const GUID& iid, void** ppv) noexcept {
    if (!ppv)
        return E_POINTER;
    if (iid == IID_IStreamGetSize) {
        *ppv = static_cast<IStreamGetSize*>(this);
        AddRef();
        return S_OK;
    }
    *ppv = nullptr;
    if (iid == IID_IInStream || iid == IID_ISequentialInStream || iid == __uuidof(IUnknown)) {
        *ppv = static_cast<IInStream*>(this);
        AddRef();
        return S_OK;
    }
    return E_NOINTERFACE;
}

std::unique_lock<std::mutex> lockUnlessEnding(std::mutex& mutex) noexcept {
    return Detail::isProcessEnding() ? std::unique_lock(mutex, std::try_to_lock) : std::unique_lock(mutex);
}

bool SharedFile::isOpen() const noexcept {
    const auto lock = lockUnlessEnding(turn_);
    return lock && file_;
}

bool SharedFile::times(FILETIME* creation, FILETIME* lastAccess, FILETIME* lastWrite) const noexcept {
    const auto lock = lockUnlessEnding(turn_);
    return lock && file_ && Detail::platform().getFileTime(file_.get(), creation, lastAccess, lastWrite);
}

HRESULT SharedFile::read(std::uint64_t offset, void* data, std::uint32_t size, std::uint32_t& done) noexcept {
    const auto lock = lockUnlessEnding(turn_);
    if (!lock)
        return STG_E_INUSE;
    if (offset != systemPosition_) {
        if (!moveTo(file_.get(), offset)) {
            const DWORD error = GetLastError();
            systemPosition_ = kUnknownPosition;
            return Detail::storageStatus(error);
        }
        systemPosition_ = offset;
    }
    DWORD count = 0;
    if (!Detail::platform().readFile(file_.get(), data, (std::min)(size, kLargestCall), &count, nullptr)) {
        const DWORD error = GetLastError();
        systemPosition_ = kUnknownPosition;
        return Detail::storageStatus(error);
    }
    systemPosition_ += count;
    done = count;
    return S_OK;
}

void SharedFile::reset(Detail::FileHandle file) noexcept {
    const auto lock = lockUnlessEnding(turn_);
    file_.close();
    file_ = std::move(file);
    systemPosition_ = 0;
}

HRESULT FileInStream::readFile(std::uint64_t offset, void* data, std::uint32_t size,
                               std::uint32_t& done) noexcept {
    const HRESULT status = file_.read(offset, data, size, done);
    if (status == S_OK)
        lastEnd_ = offset + done;
    return failure_.note(status);
}

std::size_t FileInStream::takeBuffered(void* data, std::size_t size) noexcept {
    if (position_ < bufferOffset_ || position_ >= bufferOffset_ + buffered_)
        return 0;
    const auto start = static_cast<std::size_t>(position_ - bufferOffset_);
    const std::size_t count = (std::min)(size, buffered_ - start);
    std::memcpy(data, buffer_.get() + start, count);
    position_ += count;
    return count;
}

// Reads the next part into a buffer twice as large as the last one. Without memory for it, none is kept.
HRESULT FileInStream::fill() noexcept {
    const std::uint32_t wanted = std::clamp(room_ * 2, kLeastReadAhead, kMostReadAhead);
    if (wanted > room_) {
        buffered_ = room_ = 0;
        buffer_.reset(new (std::nothrow) std::byte[wanted]);
        if (!buffer_)
            return S_OK;
        room_ = wanted;
    }
    bufferOffset_ = position_;
    buffered_ = 0;
    return readFile(position_, buffer_.get(), room_, buffered_);
}

HRESULT FileInStream::Read(void* data, UInt32 size, UInt32* processed) noexcept {
    tell(processed, 0);
    if (size == 0 || position_ >= size_)
        return S_OK;
    auto count = static_cast<std::uint32_t>(takeBuffered(data, size));
    if (count == 0 && position_ == lastEnd_ && size < kMostReadAhead) {
        const HRESULT status = fill();
        if (status != S_OK)
            return status;
        count = static_cast<std::uint32_t>(takeBuffered(data, size));
    }
    if (count == 0) {
        const HRESULT status = readFile(position_, data, size, count);
        if (status != S_OK)
            return status;
        position_ += count;
    }
    tell(processed, count);
    return S_OK;
}

HRESULT FileInStream::Seek(Int64 offset, UInt32 origin, UInt64* newPosition) noexcept {
    const auto target = moved(position_, size_, offset, origin);
    if (!target)
        return STG_E_INVALIDFUNCTION;
    position_ = *target;
    if (newPosition)
        *newPosition = position_;
    return S_OK;
}

HRESULT FileInStream::GetSize(UInt64* size) noexcept {
    *size = size_;
    return S_OK;
}

HRESULT IStreamInStream::Read(void* data, UInt32 size, UInt32* processed) noexcept {
    ULONG count = 0;
    const HRESULT status = stream_->Read(data, size, &count);
    tell(processed, (std::min)(static_cast<UInt32>(count), size));
    if (status == S_FALSE) // some streams' word for the end, and the engine's for bad data
        return S_OK;
    return failure_.note(Detail::asStatus(status, STG_E_READFAULT));
}

HRESULT IStreamInStream::Seek(Int64 offset, UInt32 origin, UInt64* newPosition) noexcept {
    return failure_.note(seekStream(stream_.Get(), offset, origin, newPosition));
}

HRESULT IStreamInStream::GetSize(UInt64* size) noexcept {
    STATSTG entry{};
    const HRESULT status = Detail::asStatus(stream_->Stat(&entry, STATFLAG_NONAME));
    *size = status == S_OK ? entry.cbSize.QuadPart : 0;
    return status;
}

HRESULT OutStream::QueryInterface(const GUID& iid, void** ppv) noexcept {
    if (ppv && (iid == IID_IOutStream || iid == IID_ISequentialOutStream))
        return hand(ppv);
    return IUnknownImpl::QueryInterface(iid, ppv);
}

TemporaryFile::TemporaryFile(const wchar_t* path)
    : path_(path), buffer_(std::make_unique_for_overwrite<std::byte[]>(kWriteBehind)) {}

TemporaryFile::~TemporaryFile() {
    file_.close();
    if (created_)
        Detail::platform().deleteFile(path_.c_str());
}

HRESULT TemporaryFile::create() noexcept {
    file_ = Detail::FileHandle(Detail::platform().createFile(path_.c_str(), GENERIC_WRITE, 0, nullptr,
                                                             CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file_)
        return fail();
    created_ = true;
    return S_OK;
}

HRESULT TemporaryFile::finish() noexcept {
    if (const HRESULT status = writeBuffered(); status != S_OK)
        return status;
    if (!Detail::platform().flushFile(file_.get()))
        return fail();
    file_.close();
    return S_OK;
}

HRESULT TemporaryFile::writeFile(const std::byte* data, std::uint32_t size) noexcept {
    // Bytes that were taken and then could not be written are missing from then on.
    if (failure_.status() != S_OK)
        return failure_.status();
    if (fileOffset_ != systemPosition_ && !moveTo(file_.get(), fileOffset_))
        return fail();
    while (size > 0) {
        DWORD count = 0;
        if (!Detail::platform().writeFile(file_.get(), data, (std::min)(size, kLargestCall), &count, nullptr))
            return fail();
        if (count == 0 || count > size)
            return failure_.note(count == 0 ? STG_E_MEDIUMFULL : STG_E_WRITEFAULT);
        data += count;
        size -= count;
        fileOffset_ += count;
    }
    systemPosition_ = fileOffset_;
    size_ = (std::max)(size_, fileOffset_);
    return S_OK;
}

HRESULT TemporaryFile::writeBuffered() noexcept {
    return writeFile(buffer_.get(), std::exchange(buffered_, 0));
}

HRESULT TemporaryFile::Write(const void* data, UInt32 size, UInt32* processed) noexcept {
    tell(processed, 0);
    if (size > kWriteBehind - buffered_)
        if (const HRESULT status = writeBuffered(); status != S_OK)
            return status;
    if (size >= kWriteBehind) {
        if (const HRESULT status = writeFile(static_cast<const std::byte*>(data), size); status != S_OK)
            return status;
    } else {
        std::memcpy(buffer_.get() + buffered_, data, size);
        buffered_ += size;
    }
    size_ = (std::max)(size_, position());
    tell(processed, size);
    return S_OK;
}

HRESULT TemporaryFile::Seek(Int64 offset, UInt32 origin, UInt64* newPosition) noexcept {
    const auto target = moved(position(), size_, offset, origin);
    if (!target)
        return STG_E_INVALIDFUNCTION;
    if (*target != position()) {
        if (const HRESULT status = writeBuffered(); status != S_OK)
            return status;
        fileOffset_ = *target;
    }
    if (newPosition)
        *newPosition = *target;
    return S_OK;
}

HRESULT TemporaryFile::SetSize(UInt64 newSize) noexcept {
    if (const HRESULT status = writeBuffered(); status != S_OK)
        return status;
    systemPosition_ = kUnknownPosition;
    if (!moveTo(file_.get(), newSize) || !Detail::platform().setEndOfFile(file_.get()))
        return fail();
    size_ = newSize;
    return S_OK;
}

HRESULT PassThroughOutStream::Write(const void* data, UInt32 size, UInt32* processed) noexcept {
    ULONG count = 0;
    HRESULT status = Detail::asStatus(stream_->Write(data, size, &count), STG_E_WRITEFAULT);
    tell(processed, (std::min)(static_cast<UInt32>(count), size));
    if (status == S_OK && size > 0 && count == 0)
        status = STG_E_MEDIUMFULL;
    return failure_.note(status);
}

HRESULT PassThroughOutStream::Seek(Int64 offset, UInt32 origin, UInt64* newPosition) noexcept {
    return failure_.note(seekStream(stream_.Get(), offset, origin, newPosition));
}

HRESULT PassThroughOutStream::SetSize(UInt64 newSize) noexcept {
    ULARGE_INTEGER size;
    size.QuadPart = newSize;
    return failure_.note(Detail::asStatus(stream_->SetSize(size), STG_E_WRITEFAULT));
}

std::uint32_t InMemoryOutStream::crc() const noexcept { return ~crc_; }

HRESULT InMemoryOutStream::Write(const void* data, UInt32 size, UInt32* processed) noexcept {
    tell(processed, 0);
    if (size > buffer_.capacity - buffer_.size)
        return E_FAIL;
    if (size > 0)
        std::memcpy(buffer_.data + buffer_.size, data, size);
    buffer_.size += size;
    crc_ = CrcUpdate(crc_, data, size);
    tell(processed, size);
    return S_OK;
}

} // namespace Vexel::Storage::Engine
