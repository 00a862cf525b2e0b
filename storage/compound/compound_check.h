#pragma once

#include "storage/compound/sector_reader.h"

#include <windows.h>

#include <cstdint>

/// A look at a compound file before the system's structured storage opens it. That service trusts what it
/// reads: on a chain of sectors or a tree of elements that runs in circles it hangs or takes memory without
/// end, and on some contradictions in the allocation it aborts the process once something is written. This
/// finds such damage beforehand. It reads the header, the allocation tables and the directory, never the
/// contents, and takes time and memory in proportion to these. docs/damaged-files.md tells what is refused.
namespace Vexel::Detail {

/// What the system is going to do with the file.
enum class CompoundAccess {
    /// Opens it and reads what it is asked for: that has to end. A part may be missing.
    Read,
    /// The same, but everything is going to be read, and taken for the whole. For what a sector that is cut
    /// off lacks the system gives what its memory holds, and says nothing, so nothing may be missing.
    Copy,
    /// Copies all of it by itself, as a snapshot or into another storage. That makes each stream as long as
    /// it claims to be, says nothing of what cannot be read, and recurses from element to element.
    Snapshot,
    /// Changes it. The allocation must have no contradictions: a sector that two chains share, or that counts
    /// as free although it is in use, would be given out again, and the tables themselves with it.
    Write
};

struct CompoundVerdict {
    /// S_OK; STG_E_INVALIDHEADER: not a compound file; STG_E_DOCFILECORRUPT: damaged; S_FALSE: nothing is
    /// known of it.
    HRESULT status = S_OK;
    /// What is wrong, for the log; empty for S_OK.
    const char* what = "";
    /// Where: the number of the sector, mini sector or element that `what` speaks of, else 0.
    std::uint64_t where = 0;
    /// What is wrong is only that going from element to element takes too long, or too much of the stack.
    bool isTooLong = false;
};

/// Judges the bytes. Throws std::bad_alloc.
CompoundVerdict checkCompound(CompoundSource& source, CompoundAccess access);

/// Judges the file at `path`, without keeping anyone else from reading, writing or deleting it. A damaged
/// file is logged with what is wrong where. S_FALSE when the file cannot be read: the system's own open says
/// better why. A file that another process is writing may look damaged for a moment; it is looked at
/// again before it is refused.
///  - STG_E_INVALIDHEADER, STG_E_DOCFILECORRUPT: as above. STG_E_INSUFFICIENTMEMORY.
CompoundVerdict checkCompoundFile(const wchar_t* path, CompoundAccess access) noexcept;

} // namespace Vexel::Detail
