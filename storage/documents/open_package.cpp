// Whole files as COM storages, without items and handles. Callers in C know no exceptions, and a compound
// file goes to the system by other functions here than behind the handles; it is looked at all the same
// before.

#include "archive/szip_storage.h"
#include "base/status_guard.h"
#include "storage/compound/compound_check.h"
#include "storage/tree/error_status.h"

#include <vexel/diagnostics.h>
#include <vexel/open_package.h>
#include <vexel/storage.h>

#include <windows.h>

#include <objbase.h>
#include <wrl/client.h>

#include <algorithm>

using Microsoft::WRL::ComPtr;
using Vexel::Detail::CompoundAccess;
using Vexel::Detail::withStatus;
using Vexel::Storage::openPackage;
using Vexel::Storage::SZipStorage;

namespace {

/// Readers and writers elsewhere, which is the default: the system copies everything first.
constexpr DWORD kCompoundMode = STGM_TRANSACTED | STGM_READ;

class LockBytesSource final : public Vexel::Detail::CompoundSource {
public:
    explicit LockBytesSource(ILockBytes* bytes) : bytes_(bytes) {
        STATSTG info{};
        failed_ = bytes->Stat(&info, STATFLAG_NONAME) != S_OK;
        size_ = failed_ ? 0 : info.cbSize.QuadPart;
    }

    /// Whether the bytes could not be had: then nothing is known about them.
    bool failed() const noexcept { return failed_; }

    std::uint64_t size() const noexcept override { return size_; }

    std::size_t read(std::uint64_t offset, std::span<std::byte> target) noexcept override {
        // Behind the end some report a failure, which is none.
        const std::uint64_t rest = size_ - (std::min)(offset, size_);
        const auto count = static_cast<ULONG>((std::min)(rest, std::uint64_t{target.size()}));
        ULONG done = 0;
        if (count > 0 && FAILED(bytes_->ReadAt({.QuadPart = offset}, target.data(), count, &done)))
            failed_ = true;
        return (std::min)(done, count);
    }

private:
    ComPtr<ILockBytes> bytes_;
    std::uint64_t size_ = 0;
    bool failed_ = false;
};

/// Bytes that cannot be read are left to the system, whose status says more.
HRESULT check(ILockBytes* bytes) {
    LockBytesSource source(bytes);
    if (source.failed())
        return S_OK;
    const auto verdict = Vexel::Detail::checkCompound(source, CompoundAccess::Snapshot);
    if (source.failed() || SUCCEEDED(verdict.status))
        return S_OK;
    VxLog_WriteW(VxLog_Minor, L"the compound file in a stream is damaged: %hs (%llu)", verdict.what,
                 static_cast<unsigned long long>(verdict.where));
    return verdict.status;
}

HRESULT openCompound(::IStream* stream, IStorage** result) {
    ComPtr<ILockBytes> bytes;
    if (const HRESULT status = stream->QueryInterface(IID_PPV_ARGS(bytes.GetAddressOf())); FAILED(status))
        return status;
    if (const HRESULT sound = check(bytes.Get()); FAILED(sound))
        return sound;
    return StgOpenStorageOnILockBytes(bytes.Get(), nullptr, kCompoundMode, nullptr, 0, result);
}

HRESULT openCompound(const wchar_t* path, IStorage** result) {
    const auto verdict = Vexel::Detail::checkCompoundFile(path, CompoundAccess::Snapshot);
    if (FAILED(verdict.status))
        return verdict.status;
    return StgOpenStorage(path, nullptr, kCompoundMode, nullptr, 0, result);
}

template <class Open>
HRESULT handOut(IStorage** result, Open open) {
    ComPtr<SZipStorage> package;
    const HRESULT status = open(package.GetAddressOf());
    *result = package.Detach();
    return status;
}

/// `body` with its exceptions as statuses: these functions have callers in C.
template <class Body>
HRESULT guarded(const Body& body) {
    try {
        return withStatus(body);
    } catch (const std::system_error& failure) {
        return Vexel::Detail::statusOf(failure.code());
    }
}

} // namespace

HRESULT OpenVexelPackage(IStorage** result, const wchar_t* path) {
    if (!result)
        return STG_E_INVALIDPOINTER;
    *result = nullptr;
    return guarded([&]() -> HRESULT {
        switch (StorageRef::getFormat(path).value_or(StorageFormat::None)) {
        case StorageFormat::CompoundFile:
            return openCompound(path, result);
        case StorageFormat::Package:
            return handOut(result,
                           [&](SZipStorage** root) { return openPackage(path, STGM_READ, false, root); });
        default:
            return E_FAIL;
        }
    });
}

HRESULT OpenVexelPackageStream(IStorage** result, ::IStream* stream) {
    if (result)
        *result = nullptr;
    if (!result || !stream)
        return E_INVALIDARG;
    return guarded([&]() -> HRESULT {
        switch (StorageRef::getFormat(stream).value_or(StorageFormat::None)) {
        case StorageFormat::CompoundFile:
            return openCompound(stream, result);
        case StorageFormat::Package:
            return handOut(result, [&](SZipStorage** root) { return openPackage(stream, root); });
        default:
            return E_FAIL;
        }
    });
}
