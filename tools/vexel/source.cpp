#include "source.h"

#include "console.h"
#include "failure.h"
#include "progress.h"
#include "stopping.h"

#include <algorithm>

namespace Vexel::Tool {

Source::Source() : name_(L"standard input"), handle_(GetStdHandle(STD_INPUT_HANDLE)) {}

Source::Source(const std::wstring& file)
    : name_(file), file_(CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                     FILE_FLAG_SEQUENTIAL_SCAN, nullptr)),
      handle_(file_.get()) {
    if (!file_)
        throw Failure(L"cannot open", name_, lastErrorStatus());
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

} // namespace Vexel::Tool
