#pragma once

#include "base/handles.h"

#include <objidl.h>

#include <cstddef>
#include <span>
#include <string>

namespace Vexel::Tool {

/// The bytes that go into a document: a file's, or those of standard input.
class Source {
public:
    /// Standard input. While it is waited for, nothing may be half-made that would stay when the process
    /// ends.
    Source();

    /// The file is kept from writers while it is read, so that it cannot be the very document that is
    /// changed. Throws Failure when it cannot be opened.
    explicit Source(const std::wstring& file);

    /// Fills as much of `buffer` as there is, 0 at the end. Throws Failure on a read error, and Stopped.
    std::size_t read(std::span<std::byte> buffer);

    bool isStandardInput() const noexcept { return !file_; }
    /// What the file's size was when it was opened; 0 for standard input.
    unsigned long long size() const noexcept;

private:
    bool readOnce(std::span<std::byte> buffer, DWORD& done);

    std::wstring name_;
    Detail::FileHandle file_; // none: standard input, which is not ours to close
    HANDLE handle_;
};

/// Writes all that the source has into a new stream, whose memory is had at once where the size is known:
/// grown, there would be twice as much. The number of bytes. `label` names the stream in failures. Standard
/// input without a byte fails: it is mostly a source that was forgotten, and would empty the stream.
unsigned long long fill(IStream& stream, Source& source, const std::wstring& label);

} // namespace Vexel::Tool
