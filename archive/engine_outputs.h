#pragma once

#include "archive/engine_api.h"
#include "base/handles.h"
#include "base/status.h"

#include <vexel/com.h>
#include <vexel/memory_streams.h>

#include <windows.h>

#include <objidl.h>
#include <wrl/client.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

/// What the engine writes to.
namespace Vexel::Storage::Engine {

using Microsoft::WRL::ComPtr;

/// A seekable output; the engine asks for that interface by its identifier.
class OutStream : public IUnknownImpl<IOutStream> {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(const GUID& iid, void** ppv) noexcept override;
    const Detail::FirstFailure& failure() const noexcept { return failure_; }

protected:
    Detail::FirstFailure failure_;
};

/// A new file that is deleted when this object goes, unless it is kept. What is written is collected and
/// written in large parts: a failure may show only in a later call, and shows in all from then on, at the
/// latest in `finish`.
class TemporaryFile final : public OutStream {
public:
    explicit TemporaryFile(const wchar_t* path);
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile() override;

    /// Creates the file, over whatever is there, with nobody else allowed to open it.
    HRESULT create() noexcept;
    /// Writes what is left, has the system bring it to the disk, and closes the file.
    HRESULT finish() noexcept;
    /// From now on the file is no longer ours to delete.
    void keep() noexcept { created_ = false; }

    HRESULT STDMETHODCALLTYPE Write(const void* data, UInt32 size, UInt32* processed) noexcept override;
    HRESULT STDMETHODCALLTYPE Seek(Int64 offset, UInt32 origin, UInt64* newPosition) noexcept override;
    HRESULT STDMETHODCALLTYPE SetSize(UInt64 newSize) noexcept override;

private:
    HRESULT writeFile(const std::byte* data, std::uint32_t size) noexcept;
    HRESULT writeBuffered() noexcept;
    HRESULT fail() noexcept { return failure_.note(Detail::storageStatus(GetLastError())); }
    std::uint64_t position() const noexcept { return fileOffset_ + buffered_; }

    std::wstring path_;
    Detail::FileHandle file_;
    bool created_ = false;
    std::unique_ptr<std::byte[]> buffer_;
    std::uint32_t buffered_ = 0;
    std::uint64_t fileOffset_ = 0; // where the collected bytes belong
    std::uint64_t systemPosition_ = 0;
    std::uint64_t size_ = 0; // the file's with the collected bytes
};

/// Passes all on to a caller's stream.
class PassThroughOutStream final : public OutStream {
public:
    explicit PassThroughOutStream(::IStream* stream) noexcept : stream_(stream) {}

    HRESULT STDMETHODCALLTYPE Write(const void* data, UInt32 size, UInt32* processed) noexcept override;
    HRESULT STDMETHODCALLTYPE Seek(Int64 offset, UInt32 origin, UInt64* newPosition) noexcept override;
    HRESULT STDMETHODCALLTYPE SetSize(UInt64 newSize) noexcept override;

private:
    ComPtr<::IStream> stream_;
};

/// Appends to a buffer of fixed capacity, and keeps the CRC-32 of what it was given.
class InMemoryOutStream final : public IUnknownImpl<ISequentialOutStream> {
public:
    explicit InMemoryOutStream(DynamicBuffer& buffer) noexcept : buffer_(buffer) {}

    std::uint32_t crc() const noexcept;

    /// E_FAIL for more than there is room for.
    HRESULT STDMETHODCALLTYPE Write(const void* data, UInt32 size, UInt32* processed) noexcept override;

private:
    DynamicBuffer& buffer_;
    std::uint32_t crc_ = 0xFFFFFFFF;
};

} // namespace Vexel::Storage::Engine
