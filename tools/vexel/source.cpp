// What `put` reads: a file, or standard input. Reading standard input may wait for ever, and is the one place
// where an interruption ends the process at once.

#include "source.h"

#include "console.h"
#include "failure.h"
#include "file_paths.h"
#include "progress.h"
#include "stopping.h"

#include <algorithm>
#include <vector>

namespace Vexel::Tool {

Source::Source() : name_(L"standard input"), handle_(GetStdHandle(STD_INPUT_HANDLE)) {}

Source::Source(const std::wstring& file)
    : name_(file), file_(CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                     FILE_FLAG_SEQUENTIAL_SCAN, nullptr)),
      handle_(file_.get()) {
    if (!file_)
        checkOpened(lastErrorStatus(), name_);
}

unsigned long long Source::size() const noexcept {
    LARGE_INTEGER size{};
    return file_ && GetFileSizeEx(file_.get(), &size) ? static_cast<unsigned long long>(size.QuadPart) : 0;
}

bool Source::readOnce(std::span<std::byte> buffer, DWORD& done) {
    const auto count = static_cast<DWORD>(std::min(buffer.size(), kChunkSize));
    if (file_)
        return ReadFile(handle_, buffer.data(), count, &done, nullptr) != FALSE;
    const EndableWait wait;
    return ReadFile(handle_, buffer.data(), count, &done, nullptr) != FALSE;
}

std::size_t Source::read(std::span<std::byte> buffer) {
    checkStop();
    DWORD done = 0;
    if (readOnce(buffer, done)) {
        progress().add(done);
        return done;
    }
    // A pipe whose writer is done ends with this error instead of zero bytes.
    if (GetLastError() == ERROR_BROKEN_PIPE)
        return 0;
    throw Failure(L"cannot read", name_, lastErrorStatus());
}

unsigned long long fill(IStream& stream, Source& source, const std::wstring& label) {
    ULARGE_INTEGER size{};
    size.QuadPart = source.size();
    check(stream.SetSize(size), L"cannot write", label);
    std::vector<std::byte> buffer(kChunkSize);
    unsigned long long total = 0;
    while (const std::size_t count = source.read(buffer)) {
        ULONG written = 0;
        check(stream.Write(buffer.data(), static_cast<ULONG>(count), &written), L"cannot write", label);
        if (written != count)
            throw Failure(L"cannot write", label, STG_E_MEDIUMFULL);
        total += count;
    }
    if (total == 0 && source.isStandardInput())
        throw Failure(L"standard input holds nothing for", label, HRESULT_FROM_WIN32(ERROR_HANDLE_EOF));
    size.QuadPart = total; // the file may have shrunk meanwhile
    check(stream.SetSize(size), L"cannot write", label);
    return total;
}

} // namespace Vexel::Tool
