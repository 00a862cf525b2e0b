// The look at a file by its path. The file is opened without keeping anyone out and read at places given with
// each read. Damage is only believed when it stays: a commit of another process shows for some milliseconds
// as contradictions.

#include "base/handles.h"
#include "base/platform.h"
#include "storage/compound/compound_check.h"

#include <vexel/diagnostics.h>

#include <windows.h>

#include <algorithm>
#include <new>
#include <optional>

namespace Vexel::Detail {

namespace {

/// How often and at what distance a file that someone else is writing is looked at again. A commit writes its
/// tables within milliseconds.
constexpr int kLooks = 4;
constexpr DWORD kMillisecondsBetweenLooks = 20;

FileHandle openFile(const wchar_t* path, DWORD share) noexcept {
    return FileHandle(platform().createFile(path, GENERIC_READ, share, nullptr, OPEN_EXISTING,
                                            FILE_FLAG_RANDOM_ACCESS, nullptr));
}

class FileSource final : public CompoundSource {
public:
    FileSource(FileHandle file, std::uint64_t size) noexcept : file_(std::move(file)), size_(size) {}

    static std::optional<std::uint64_t> sizeOf(const FileHandle& file) noexcept {
        LARGE_INTEGER size;
        if (!platform().getFileSize(file.get(), &size))
            return std::nullopt;
        return static_cast<std::uint64_t>(size.QuadPart);
    }

    std::uint64_t size() const noexcept override { return size_; }

    std::size_t read(std::uint64_t offset, std::span<std::byte> target) noexcept override {
        OVERLAPPED position{};
        position.Offset = static_cast<DWORD>(offset);
        position.OffsetHigh = static_cast<DWORD>(offset >> 32);
        DWORD done = 0;
        if (!platform().readFile(file_.get(), target.data(), static_cast<DWORD>(target.size()), &done,
                                 &position) &&
            GetLastError() != ERROR_HANDLE_EOF)
            failed_ = true;
        failed_ |= done > target.size();
        return (std::min)(std::size_t{done}, target.size());
    }

    /// Whether a read failed for another reason than the end of the file.
    bool failed() const noexcept { return failed_; }

private:
    FileHandle file_;
    std::uint64_t size_;
    bool failed_ = false;
};

constexpr CompoundVerdict kUnknown{S_FALSE};

CompoundVerdict look(const wchar_t* path, CompoundAccess access) {
    FileHandle file = openFile(path, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    if (!file)
        return kUnknown;
    const auto size = FileSource::sizeOf(file);
    if (!size)
        return kUnknown;
    FileSource source(std::move(file), *size);
    const CompoundVerdict verdict = checkCompound(source, access);
    return source.failed() ? kUnknown : verdict;
}

bool isBeingWritten(const wchar_t* path) noexcept {
    return !openFile(path, FILE_SHARE_READ | FILE_SHARE_DELETE) && GetLastError() == ERROR_SHARING_VIOLATION;
}

CompoundVerdict lookUntilSteady(const wchar_t* path, CompoundAccess access) {
    CompoundVerdict verdict = look(path, access);
    bool written = true;
    for (int i = 1; i < kLooks && written && FAILED(verdict.status); ++i) {
        // Once more without a writer too: it may have finished just now.
        written = isBeingWritten(path);
        if (written)
            Sleep(kMillisecondsBetweenLooks);
        verdict = look(path, access);
    }
    return verdict;
}

} // namespace

CompoundVerdict checkCompoundFile(const wchar_t* path, CompoundAccess access) noexcept {
    try {
        const CompoundVerdict verdict = lookUntilSteady(path, access);
        if (verdict.status == STG_E_DOCFILECORRUPT)
            VxLog_WriteW(VxLog_Minor, L"the compound file \"%ls\" is damaged: %hs (%llu)", path, verdict.what,
                         static_cast<unsigned long long>(verdict.where));
        return verdict;
    } catch (const std::bad_alloc&) {
        return {STG_E_INSUFFICIENTMEMORY};
    }
}

} // namespace Vexel::Detail
