// The engine asks for bytes in small pieces and often. Files are therefore read ahead, more and more as long
// as the reading goes on in order. Failures are kept beside the stream, since the engine may report them
// under another name.

#include "archive/engine_inputs.h"

#include "archive/stream_calls.h"
#include "base/platform.h"
#include "base/process_end.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace Vexel::Storage::Engine {

namespace {

constexpr std::uint32_t kLeastReadAhead = 0x8000;
constexpr std::uint32_t kMostReadAhead = 0x100000;

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
    const DWORD asked = (std::min)(size, kLargestCall);
    DWORD count = 0;
    if (!Detail::platform().readFile(file_.get(), data, asked, &count, nullptr)) {
        const DWORD error = GetLastError();
        systemPosition_ = kUnknownPosition;
        return Detail::storageStatus(error);
    }
    if (count > asked) {
        systemPosition_ = kUnknownPosition;
        return STG_E_READFAULT;
    }
    systemPosition_ += count;
    done = count;
    return S_OK;
}

void SharedFile::reset(Detail::FileHandle file) noexcept {
    const auto lock = lockUnlessEnding(turn_);
    file_.close();
    file_ = std::move(file);
    systemPosition_ = kUnknownPosition; // the handle may have been read from
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
    reportCount(processed, 0);
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
    reportCount(processed, count);
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
    const bool isPossible = count <= size;
    reportCount(processed, isPossible ? count : 0);
    if (status == S_FALSE && isPossible) // some streams' word for the end, and the engine's for bad data
        return S_OK;
    return failure_.note(Detail::asStatus(isPossible ? status : STG_E_READFAULT, STG_E_READFAULT));
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

} // namespace Vexel::Storage::Engine
