#pragma once

#include "archive/engine_inputs.h"
#include "storage/salvage/salvage_output.h"

#include <vexel/salvage.h>

namespace Vexel::Detail::Salvage {

/// The source as the engine reads it.
class SourceInStream final : public Vexel::Storage::Engine::InStreamBase {
public:
    explicit SourceInStream(SalvageSource& source) noexcept : source_(source) {}

    HRESULT STDMETHODCALLTYPE Read(void* data, UInt32 size, UInt32* processed) noexcept override;
    HRESULT STDMETHODCALLTYPE Seek(Int64 offset, UInt32 origin, UInt64* newPosition) noexcept override;
    HRESULT STDMETHODCALLTYPE GetSize(UInt64* size) noexcept override;

private:
    SalvageSource& source_;
    std::uint64_t position_ = 0;
};

/// Whether a package begins there.
bool beginsAsPackage(SalvageSource& source, std::uint64_t offset = 0);

/// Reads the package's list of items: from the header that its beginning refers to; from there although the
/// checksum is wrong; or from one near the end of the file. False if there is none of which anything can be
/// read.
bool readHeader(SalvageSource& source, NArchive::N7z::CDbEx& database, Output& output);

} // namespace Vexel::Detail::Salvage
