#pragma once

#include "archive/engine_api.h"

#include <vexel/com.h>
#include <vexel/memory_streams.h>

#include <cstdint>
#include <vector>

namespace Vexel::Storage::Engine {

/// Takes the decoded bytes of a folder that several files share, and gives each file that is wanted its own.
class FolderSplitter final : public IUnknownImpl<ISequentialOutStream> {
public:
    /// A file that is wanted. The bytes have room for the size in its record.
    struct Part {
        unsigned record = 0;
        DynamicBuffer bytes;
        std::uint32_t crc = 0;
    };

    /// `parts`: by record, which may occur more than once. Both have to stay as long as this.
    FolderSplitter(const NArchive::N7z::CDbEx& database, unsigned folder, std::vector<Part>& parts) noexcept;

    /// E_FAIL for more than the folder's files have.
    HRESULT STDMETHODCALLTYPE Write(const void* data, UInt32 size, UInt32* processed) noexcept override;

private:
    bool nextFile() noexcept;
    void append(const std::byte* data, std::uint32_t size) noexcept;

    const NArchive::N7z::CDbEx& database_;
    std::vector<Part>& parts_;
    std::vector<Part>::iterator first_; // of the parts that are not behind the file at hand
    unsigned record_;
    unsigned filesLeft_;
    std::uint64_t left_ = 0; // of the file at hand
};

} // namespace Vexel::Storage::Engine
