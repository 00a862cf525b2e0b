#include "storage/package_root.h"

#include "storage/platform_storage.h"

#include <vexel/diagnostics.h>

#include <algorithm>
#include <array>
#include <utility>

namespace {

using Signature = std::array<std::byte, 6>;

constexpr Signature archiveSignature{std::byte{0x37}, std::byte{0x7A}, std::byte{0xBC},
                                     std::byte{0xAF}, std::byte{0x27}, std::byte{0x1C}};

/// S_OK for a 7z archive.
HRESULT judge(const SharedPathName& path) {
    Signature start{};
    size_t done = 0;
    const DWORD error = Vexel::Detail::StoragePlatform().readStart(path.asString(), start, done);
    if (error != ERROR_SUCCESS)
        return Vexel::Detail::storageStatus(error);
    return done == start.size() && start == archiveSignature ? S_OK : STG_E_INVALIDHEADER;
}

/// Stands in the place of the package format, which this build does not have. It never opens, so it has no
/// children and is no one's handle.
class UnsupportedPackage final : public VxStorage {
public:
    explicit UnsupportedPackage(SharedPathName path) : VxStorage(std::move(path), nullptr, nullptr) {}

    StorageFormat format() const noexcept override { return StorageFormat::Package; }
    long createTemporary(bool /*flag*/) override { return refuse(L"Temporary packages"); }
    long borrowPackedData(VxStorage* /*source*/) override { return STG_E_INVALIDFUNCTION; }
    bool getFileTimes(FILETIME*, FILETIME*, FILETIME*) override { return false; }
    std::unique_ptr<VxStorage> newChildStorage(const SharedPathName&) override { return nullptr; }
    std::unique_ptr<VxStream> newChildStream(const SharedPathName&) override { return nullptr; }
    std::unique_ptr<VxStorageEnumerator> createEnumerator() override { return nullptr; }
    long clear() override { return STG_E_INVALIDFUNCTION; }

    long createRoot(DWORD stgm, DWORD /*reserved*/) override {
        // Converting goes by what the file is.
        return stgm & STGM_CONVERT ? openRoot(stgm) : refuse(L"New packages");
    }
    long openRoot(DWORD /*stgm*/) override {
        const HRESULT status = judge(name_);
        return FAILED(status) ? status : refuse(L"Packages");
    }

private:
    long refuse(const wchar_t* what) const {
        VxLog_WriteW(VxLog_Minor, L"%ls are not supported: \"%ls\"", what, name_.asString());
        return STG_E_UNIMPLEMENTEDFUNCTION;
    }
};

} // namespace

std::unique_ptr<VxStorage> Vexel::Detail::newPackageRoot(const SharedPathName& path) {
    return std::make_unique<UnsupportedPackage>(path);
}
