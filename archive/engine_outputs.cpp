// The engine writes small pieces, which reach the file in large parts. Failures are kept beside the stream,
// as the inputs keep theirs.

#include "archive/engine_outputs.h"

#include "archive/stream_calls.h"
#include "base/flushing.h"
#include "base/platform.h"

#include <7zCrc.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace Vexel::Storage::Engine {

namespace {

constexpr std::uint32_t kWriteBehind = 0x100000;

} // namespace

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
    if (!Detail::flushed(file_.get()))
        return fail();
    return file_.close() ? S_OK : fail();
}

HRESULT TemporaryFile::writeFile(const std::byte* data, std::uint32_t size) noexcept {
    // Bytes that were taken and then could not be written are missing from then on.
    if (failure_.status() != S_OK)
        return failure_.status();
    if (fileOffset_ != systemPosition_ && !moveTo(file_.get(), fileOffset_))
        return fail();
    while (size > 0) {
        const DWORD asked = (std::min)(size, kLargestCall);
        DWORD count = 0;
        if (!Detail::platform().writeFile(file_.get(), data, asked, &count, nullptr))
            return fail();
        if (count == 0 || count > asked)
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
    reportCount(processed, 0);
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
    reportCount(processed, size);
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
    reportCount(processed, (std::min)(static_cast<UInt32>(count), size));
    if (status == S_OK && count > size)
        status = STG_E_WRITEFAULT;
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
    reportCount(processed, 0);
    if (size > buffer_.capacity - buffer_.size)
        return E_FAIL;
    if (size > 0)
        std::memcpy(buffer_.data + buffer_.size, data, size);
    buffer_.size += size;
    crc_ = CrcUpdate(crc_, data, size);
    reportCount(processed, size);
    return S_OK;
}

} // namespace Vexel::Storage::Engine
