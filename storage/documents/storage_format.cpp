// The first six bytes decide, without opening the file as either format: the question is asked often, and of
// files that are neither.

#include "base/handles.h"
#include "base/last_error.h"
#include "base/platform.h"

#include <vexel/storage.h>

#include <array>
#include <cstddef>
#include <system_error>

using Vexel::Detail::FileHandle;
using Vexel::Detail::platform;

namespace {

using Signature = std::array<unsigned char, 6>;

constexpr Signature kPackageSignature{0x37, 0x7A, 0xBC, 0xAF, 0x27, 0x1C};
constexpr Signature kCompoundSignature{0xD0, 0xCF, 0x11,
                                       0xE0, 0xA1, 0xB1}; // two of its 8 bytes do not matter

StorageFormat formatOf(const Signature& start, std::size_t count) noexcept {
    if (count < start.size())
        return StorageFormat::None;
    if (start == kPackageSignature)
        return StorageFormat::Package;
    return start == kCompoundSignature ? StorageFormat::CompoundFile : StorageFormat::None;
}

} // namespace

std::optional<StorageFormat> StorageRef::getFormat(const wchar_t* path) {
    if (!path || !*path)
        return std::nullopt;
    const FileHandle file(platform().createFile(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                                nullptr, OPEN_EXISTING, 0, nullptr));
    if (!file)
        return std::nullopt;
    Signature start{};
    DWORD read = 0;
    if (!platform().readFile(file.get(), start.data(), static_cast<DWORD>(start.size()), &read, nullptr))
        throw std::system_error(static_cast<int>(Vexel::Detail::lastError()), std::system_category());
    return formatOf(start, read);
}

std::optional<StorageFormat> StorageRef::getFormat(::IStream* stream) {
    Signature start{};
    ULONG read = 0;
    if (!stream || FAILED(stream->Seek({}, STREAM_SEEK_SET, nullptr)) ||
        FAILED(stream->Read(start.data(), static_cast<ULONG>(start.size()), &read)))
        return std::nullopt;
    return formatOf(start, read);
}

std::optional<bool> StorageRef::isStorage(const wchar_t* path) {
    const auto format = getFormat(path);
    return format ? std::optional(*format != StorageFormat::None) : std::nullopt;
}

std::optional<bool> StorageRef::isStorage(const CStringW& path) { return isStorage(path.GetString()); }

std::optional<bool> StorageRef::isStorage(const SharedPathName& path) { return isStorage(path.asString()); }
