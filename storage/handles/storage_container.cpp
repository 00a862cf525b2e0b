// The container of open roots as the application sees it. The tables behind it are root_tables.h's.

#include "storage/handles/root_tables.h"

#include <vexel/storage.h>
#include <vexel/temp_files.h>

using Vexel::Detail::RootTables;
using Vexel::Detail::rootTables;

namespace {

// Makes the tables while the module is loaded: at the end of the process no local static object can be made.
// NOLINTNEXTLINE(bugprone-throwing-static-initialization): without the memory for it nothing can be opened.
[[maybe_unused]] const RootTables& madeEarly = rootTables();

} // namespace

/// The tables themselves are never destroyed, nor are their roots: handles in static storage may still be on
/// them. But files that are to be deleted must not be open then.
RootTables& Vexel::Detail::rootTables() {
    static auto& tables = *new RootTables;
    struct AtExit {
        AtExit() { TempFileContainer::Instance(); } // which goes after this, and deletes the files
        AtExit(const AtExit&) = delete;
        AtExit& operator=(const AtExit&) = delete;
        ~AtExit() { tables.closeTemporaryRoots(); }
    };
    static const AtExit kAtExit;
    return tables;
}

StorageContainer& StorageContainer::Instance() {
    static constinit StorageContainer instance;
    return instance;
}

bool StorageContainer::GetCreateOnDisk() const { return rootTables().isMakingFiles(); }

bool StorageContainer::SetCreateOnDisk(bool onDisk) { return rootTables().setMakingFiles(onDisk); }

void StorageContainer::setDeleteUnusedObjectsCallback(bool (*callback)()) {
    rootTables().setCallback(callback);
}

bool StorageContainer::deleteUnusedObjects() { return rootTables().deleteUnusedObjects(); }

void StorageContainer::clearAll() { rootTables().clearAll(); }
