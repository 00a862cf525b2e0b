#pragma once

#include "archive/database.h"
#include "archive/engine.h"
#include "archive/engine_outputs.h"

#include <vexel/framework.h>

#include <windows.h>

#include <cstdint>
#include <optional>
#include <vector>

namespace Vexel::Storage::Engine {

/// What an item of the archive to be written is made from.
struct UpdateEntry {
    int databaseIndex = -1; ///< of its record in the old archive, whose packed data are copied; or no record
    CString name;
    std::uint64_t size = 0;
    FILETIME creation{}; ///< zero: none is written, as for the next
    FILETIME modification{};
    bool isDirectory = false;
    bool isAnti = false;
    std::optional<std::uint32_t> attributes; ///< as they stood in the old archive
    bool hasNewData = false;
    ComPtr<::IStream> contents; ///< of its own for the new data
};

/// Writes a whole archive: compresses what is new, each item for itself so that each can be read for itself,
/// and copies the packed data of the others from `old`, which may be null when there are none. Of a folder
/// that several items share, either all must be copied or none. Failures are logged with the archive's name
/// and give the status of the stream that failed, or the engine's. Nothing but `output` is changed.
///
/// Up to `threads` threads pack, the caller's among them, and for an item of several blocks as many of the
/// engine's. The contents of an entry are read, and `output` is written, by one thread at a time. None of
/// them is left afterwards. What is written does not depend on their number.
HRESULT writeArchive(const std::vector<UpdateEntry>& entries, const DatabaseStream* old, OutStream* output,
                     const wchar_t* archiveName, unsigned threads = threadCount());

} // namespace Vexel::Storage::Engine
