#pragma once

#include "archive/database.h"

#include <vexel/framework.h>

#include <windows.h>

#include <cstdint>
#include <vector>

namespace Vexel::Storage::Engine {

/// What an item of the archive to be written is made from.
struct UpdateEntry {
    int databaseIndex = -1; ///< of its record in the old archive
    CString name;
    std::uint64_t size = 0;
    FILETIME creation{}; ///< zero: none is written, as for the next
    FILETIME modification{};
    bool isDirectory = false;
    bool isAnti = false;
    bool hasNewData = false;    ///< else the old archive's packed data are copied
    ComPtr<::IStream> contents; ///< of its own for the new data
};

/// Writes a whole archive: compresses what is new, each item for itself so that each can be read for itself,
/// and copies the packed data of the others from `old`, which may be null. Failures are logged with the
/// archive's name and give the engine's code, or those of the streams. Nothing but `output` is changed.
HRESULT writeArchive(const std::vector<UpdateEntry>& entries, const DatabaseStream* old, IOutStream* output,
                     const wchar_t* archiveName);

} // namespace Vexel::Storage::Engine
