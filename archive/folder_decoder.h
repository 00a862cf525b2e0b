#pragma once

#include "archive/database.h"

#include <vexel/memory_streams.h>

#include <cstdint>

namespace Vexel::Storage::Engine {

struct DecodedFolder {
    HRESULT status = S_OK;     ///< the decoder's, or that of the input
    bool dataAfterEnd = false; ///< packed data were left over, which the decoder calls a success
    std::uint32_t crc = 0;     ///< of the bytes that came out, where they went into a buffer

    bool isWhole() const noexcept { return status == S_OK && !dataAfterEnd; }
};

/// Whether the folder can be decoded at all, to be asked before memory is taken for it.
///  - E_NOTIMPL: it uses methods that are not known here, encryption for one. That is no damage.
///  - STG_E_READFAULT: there is no such folder, or it promises more than its packed bytes can hold: the known
///  methods do not expand more than about 7,100 to 1.
HRESULT checkFolder(const NArchive::N7z::CDbEx& database, unsigned folder);

/// Decodes a whole folder from `input`, a cursor of the database, into `output`. Decoders are kept for the
/// next call, because making one takes longer than decoding a small item. May run on many threads at once,
/// each with a cursor of its own.
DecodedFolder decodeFolder(const NArchive::N7z::CDbEx& database, unsigned folder, InStreamBase& input,
                           ISequentialOutStream* output);
/// Appends it to `bytes`, which has room for it and is not enlarged.
DecodedFolder decodeFolder(const NArchive::N7z::CDbEx& database, unsigned folder, InStreamBase& input,
                           DynamicBuffer& bytes);

} // namespace Vexel::Storage::Engine
