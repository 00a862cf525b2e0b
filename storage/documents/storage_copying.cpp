// Copying a storage with all that is in it.

#include "base/status.h"
#include "base/status_guard.h"
#include "storage/compound/compound_check.h"
#include "storage/documents/tree_walk.h"
#include "storage/handles/root_tables.h"
#include "storage/tree/element_name.h"
#include "storage/tree/storage_item.h"

#include <vexel/copying.h>
#include <vexel/diagnostics.h>
#include <vexel/storage.h>

using Vexel::Detail::CompoundAccess;
using Vexel::Detail::CompoundVerdict;
using Vexel::Detail::elementName;
using Vexel::Detail::outcomeOf;
using Vexel::Detail::TreeWalk;
using Vexel::Detail::withStatus;

namespace {

bool isMemoryExhausted(HRESULT status) {
    return FAILED(status) && (status & 0xFFFF) == ERROR_NOT_ENOUGH_MEMORY;
}

/// Commits a storage and those above it, as far as they are open.
HRESULT commitUpwards(VxStorage* storage) {
    HRESULT status = S_OK;
    for (; storage && storage->isOpen() && SUCCEEDED(status); storage = storage->parent())
        status = storage->commit();
    return status;
}

/// Whether a source can be copied and nothing of it is missing, which no reading would tell. A caller's
/// interface is not looked at.
CompoundVerdict checkSource(const VxStorage& source, CompoundAccess access) {
    if (source.hasLostElements())
        return {STG_E_REVERTED};
    const SharedPathName& file = source.root()->name();
    if (source.format() != StorageFormat::CompoundFile || file.empty())
        return {S_FALSE};
    return Vexel::Detail::checkCompoundFile(file.asString(), access);
}

HRESULT plainCopy(VxStorage& source, VxStorage& target) {
    const auto copy = [&]() -> HRESULT {
        if (!source.isOpen() || !target.isOpen())
            return STG_E_INVALIDPARAMETER; // closed by the clean-up before the second attempt
        const HRESULT status = source.storage()->CopyTo(0, nullptr, nullptr, target.storage());
        return isMemoryExhausted(status) ? STG_E_INSUFFICIENTMEMORY : status;
    };
    const HRESULT status = copy();
    if (SUCCEEDED(status))
        return status;
    const bool isExhausted = status == STG_E_INSUFFICIENTMEMORY || status == STG_E_TOOMANYOPENFILES;
    const bool again = isExhausted ? SUCCEEDED(commitUpwards(&target)) : source.retryAfterFailure(status);
    return again ? copy() : status;
}

/// Whether `storage` is `other` or stands below it.
bool isAtOrBelow(const VxStorage* storage, const VxStorage& other) {
    while (storage && storage != &other)
        storage = storage->parent();
    return storage != nullptr;
}

/// A copy by the storage's own means. The system's stops at the first element that it cannot copy, and takes
/// streams that deliver less than their size for whole; packages do neither. So where no look has found that
/// the source `isComplete`, all of it is read once more.
HRESULT copyByItself(const StorageRef& from, const StorageRef& to, bool isComplete) {
    VxStorage& source = *TreeWalk::itemOf(from);
    VxStorage& target = *TreeWalk::itemOf(to);
    HRESULT status = outcomeOf(withStatus([&] { return plainCopy(source, target); }));
    if (source.format() != StorageFormat::CompoundFile)
        return status;
    if (status == S_OK && !isComplete)
        status = TreeWalk(from, {}, nullptr).run();
    const bool isFull =
        status == STG_E_MEDIUMFULL || status == STG_E_TOOMANYOPENFILES || isMemoryExhausted(status);
    // From a package a part can be taken away also then.
    const bool isEnd = isFull || status == E_OUTOFMEMORY;
    if (FAILED(status) && (!isEnd || target.format() == StorageFormat::Package) &&
        !isAtOrBelow(&target, source) && TreeWalk(from, to, nullptr).redo() == STG_E_WRITEFAULT)
        return STG_E_WRITEFAULT; // a part may be left
    return status;
}

/// Documents of other programs are known by their "\1Ole"; they go over as the system copies them.
bool isForeign(const StorageRef& document) {
    HRESULT status = E_FAIL;
    return TreeWalk::itemOf(document)->resumeChildStream(elementName(L"\1Ole"), &status).get() != nullptr;
}

/// Both are open, and the target is for writing.
HRESULT copyAll(const StorageRef& from, const StorageRef& to, Vexel::TreeObserver* observer) {
    VxStorage& source = *TreeWalk::itemOf(from);
    const bool isInside = isAtOrBelow(TreeWalk::itemOf(to), source);
    if (observer && isInside)
        return STG_E_ACCESSDENIED;
    const bool converts =
        from.format() == StorageFormat::CompoundFile && to.format() == StorageFormat::Package;
    const bool byElement = observer || (converts && !isForeign(from));
    // Where the source is damaged, the system's copy would not come back, and what reading makes of it is not
    // the whole. A row of elements that is too long for that takes as much time as its length squared.
    const CompoundVerdict look =
        checkSource(source, byElement ? CompoundAccess::Copy : CompoundAccess::Snapshot);
    if (SUCCEEDED(look.status) && !byElement)
        return copyByItself(from, to, look.status == S_OK);
    TreeWalk walk(from, to, observer);
    const HRESULT status = look.isTooLong || isInside ? S_OK : walk.run();
    return SUCCEEDED(status) && FAILED(look.status) ? walk.fail(look.status) : status;
}

} // namespace

long Vexel::walkTree(const StorageRef& top, TreeObserver& observer) {
    if (top.null())
        return STG_E_INVALIDPARAMETER;
    const Vexel::Detail::TreeLock lock(*TreeWalk::itemOf(top));
    return withStatus([&] { return TreeWalk(top, {}, &observer).run(); });
}

long Vexel::copyTree(const StorageRef& from, const StorageRef& to, TreeObserver* observer) {
    if (from.null() || to.null() || from == to)
        return STG_E_INVALIDPARAMETER;
    const VxStorage& source = *TreeWalk::itemOf(from);
    VxStorage& target = *TreeWalk::itemOf(to);
    const Vexel::Detail::TreePairLock locks(source, target);
    target.deleteUnusedObjects(false);
    return withStatus([&]() -> long {
        const StorageRef kept[] = {from, to}; // whatever becomes of the caller's handles
        IStorage* const opened = from.storage();
        IStorage* const destination = to.storage();
        if (!opened || !destination || opened == destination)
            return STG_E_INVALIDPARAMETER;
        if (to.readOnly())
            return STG_E_ACCESSDENIED;
        const HRESULT status = copyAll(kept[0], kept[1], observer);
        if (FAILED(status))
            VxLog_WriteW(VxLog_Minor, L"Failed to copy \"%ls\" to \"%ls\": 0x%08x",
                         source.whereabouts().c_str(), target.whereabouts().c_str(),
                         static_cast<unsigned>(status));
        return status;
    });
}

long StorageRef::copyTo(const StorageRef& target) const { return Vexel::copyTree(*this, target, nullptr); }

long StorageRef::convert(const SharedPathName& path, RootStorageOpenMode mode) {
    return withStatus([&, kept = path] {
        close();
        long status = E_FAIL;
        item_ = Vexel::Detail::rootTables()
                    .convert(kept, Vexel::Detail::rootOptions(mode, false), status)
                    .detach();
        return status;
    });
}
