#pragma once

#include "archive/engine_api.h"
#include "base/handles.h"
#include "base/status.h"

#include <vexel/com.h>

#include <windows.h>

#include <objidl.h>
#include <wrl/client.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>

/// What the engine reads from.
namespace Vexel::Storage::Engine {

using Microsoft::WRL::ComPtr;

struct IInStreamIStreamGetSize : IInStream, IStreamGetSize {};

/// A seekable input that knows its size.
class InStreamBase : public IUnknownImpl<IInStreamIStreamGetSize> {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(const GUID& iid, void** ppv) noexcept override;
    const Detail::FirstFailure& failure() const noexcept { return failure_; }

protected:
    Detail::FirstFailure failure_;
};

/// Locks it, but at the end of the process only if nobody held it who was ended.
std::unique_lock<std::mutex> lockUnlessEnding(std::mutex& mutex) noexcept;

/// A file open for reading, for any number of readers on any threads. They take turns: a read at a place
/// given with it, which needs no turns, costs as much as twenty of those below under Wine, and the system
/// lets no two calls at such a file at the same time anyway.
class SharedFile {
public:
    SharedFile() noexcept = default;
    explicit SharedFile(Detail::FileHandle file) noexcept : file_(std::move(file)) {}

    bool isOpen() const noexcept;
    bool times(FILETIME* creation, FILETIME* lastAccess, FILETIME* lastWrite) const noexcept;

    /// `done`: less than `size` where the file ends, or where the system reads no more at once; 0 at the end.
    HRESULT read(std::uint64_t offset, void* data, std::uint32_t size, std::uint32_t& done) noexcept;

    /// Takes the other's file over. Not for while somebody reads, as the next.
    void takeOver(SharedFile& other) noexcept { reset(std::move(other.file_)); }
    void close() noexcept { reset({}); }

private:
    void reset(Detail::FileHandle file) noexcept;

    Detail::FileHandle file_;
    mutable std::mutex turn_;
    std::uint64_t systemPosition_ = 0;
};

/// Reads a file through a position of its own. The file is shared, and must stay as long. Whoever reads on
/// where the last read ended gets ever larger parts of the file read ahead: copying thousands of small items
/// then costs few system calls, and a single small item no more than one.
class FileInStream final : public InStreamBase {
public:
    FileInStream(SharedFile& file, std::uint64_t size) noexcept : file_(file), size_(size) {}

    HRESULT STDMETHODCALLTYPE Read(void* data, UInt32 size, UInt32* processed) noexcept override;
    HRESULT STDMETHODCALLTYPE Seek(Int64 offset, UInt32 origin, UInt64* newPosition) noexcept override;
    HRESULT STDMETHODCALLTYPE GetSize(UInt64* size) noexcept override;

private:
    HRESULT readFile(std::uint64_t offset, void* data, std::uint32_t size, std::uint32_t& done) noexcept;
    std::size_t takeBuffered(void* data, std::size_t size) noexcept;
    HRESULT fill() noexcept;

    SharedFile& file_;
    std::uint64_t size_;
    std::uint64_t position_ = 0;
    std::uint64_t lastEnd_ = ~std::uint64_t{0}; // where the last read from the file ended
    std::unique_ptr<std::byte[]> buffer_;
    std::uint32_t room_ = 0;         // bytes of `buffer_`
    std::uint32_t buffered_ = 0;     // bytes in it
    std::uint64_t bufferOffset_ = 0; // of the first of them in the file
};

/// Reads a caller's stream, on which it holds a reference.
class IStreamInStream final : public InStreamBase {
public:
    explicit IStreamInStream(ComPtr<::IStream> stream) noexcept : stream_(std::move(stream)) {}

    HRESULT STDMETHODCALLTYPE Read(void* data, UInt32 size, UInt32* processed) noexcept override;
    HRESULT STDMETHODCALLTYPE Seek(Int64 offset, UInt32 origin, UInt64* newPosition) noexcept override;
    HRESULT STDMETHODCALLTYPE GetSize(UInt64* size) noexcept override;

private:
    ComPtr<::IStream> stream_;
};

} // namespace Vexel::Storage::Engine
