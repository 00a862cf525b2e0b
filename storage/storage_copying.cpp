// Copying a storage with all that is in it.

#include "paths/status_guard.h"
#include "storage/compound_check.h"
#include "storage/element_name.h"
#include "storage/item_ref.h"
#include "storage/storage_item.h"

#include <vexel/diagnostics.h>
#include <vexel/storage.h>

#include <string>
#include <utility>
#include <vector>

using Vexel::Detail::CompoundAccess;
using Vexel::Detail::elementName;
using Vexel::Detail::ItemRef;
using Vexel::Detail::withStatus;

namespace {

bool isMemoryExhausted(HRESULT status) {
    return FAILED(status) && (status & 0xFFFF) == ERROR_NOT_ENOUGH_MEMORY;
}

/// For the log: the file, and behind a bar the node's path in it.
std::wstring whereabouts(const VxStorageItem& item) {
    std::wstring path;
    for (const VxStorageItem* node = &item; node->parent(); node = node->parent())
        path.insert(0, node->name().asString()).insert(0, 1, node->parent()->parent() ? L'/' : L'|');
    return path.insert(0, item.root()->name().asString());
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
HRESULT checkSource(const VxStorage& source, CompoundAccess access) {
    const SharedPathName& file = source.root()->name();
    if (source.format() != StorageFormat::CompoundFile || file.empty())
        return S_OK;
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

/// Copies a compound file's storage into a package, element by element, committing on the way so that memory
/// does not have to hold the whole document.
class DocumentCopy {
public:
    explicit DocumentCopy(StorageRef target) : root_(std::move(target)) {}

    HRESULT run(const StorageRef& source) {
        pending_.push_back({source, root_});
        HRESULT status = S_OK;
        while (SUCCEEDED(status) && !pending_.empty()) {
            const Pair pair = std::move(pending_.back());
            pending_.pop_back();
            status = copyChildren(pair);
        }
        return status;
    }

private:
    struct Pair {
        StorageRef from, to;
    };

    static constexpr unsigned long long largestUncommitted = 64ULL << 20;

    HRESULT copyChildren(const Pair& pair) {
        const auto& [from, to] = pair;
        copyClass(from, to);
        StorageEnumerator child;
        HRESULT status = child.reset(from);
        while (SUCCEEDED(status) && child.moveNext())
            status = child.type() == StorageType::Storage ? copyStorage(pair, child.name())
                                                          : copyStream(from, to, child.name());
        if (SUCCEEDED(status) && FAILED(child.status()))
            return child.status(); // there may have been more
        return status;
    }

    static void copyClass(const StorageRef& from, const StorageRef& to) {
        IStorage* const source = from.storage();
        IStorage* const target = to.storage();
        STATSTG info{};
        if (source && target && SUCCEEDED(source->Stat(&info, STATFLAG_NONAME)) && info.clsid != CLSID_NULL)
            target->SetClass(info.clsid);
    }

    HRESULT copyStorage(const Pair& pair, const SharedPathName& name) {
        const auto& [from, to] = pair;
        StorageRef source;
        HRESULT status = source.open(name, from, true);
        if (FAILED(status))
            return status;
        StorageRef target;
        status = to.hasChild(name, StorageType::Storage) ? target.open(name, to, false)
                                                         : target.create(name, to, false);
        if (SUCCEEDED(status))
            pending_.push_back({std::move(source), std::move(target)});
        return status;
    }

    HRESULT copyStream(const StorageRef& from, const StorageRef& to, const SharedPathName& name) {
        StreamRef source;
        HRESULT status = source.open(name, from, true);
        if (FAILED(status))
            return status;
        StreamRef target;
        status = target.create(name, to);
        if (SUCCEEDED(status))
            status = source.copyTo(target);
        if (FAILED(status))
            return status;
        const auto size = source.size();
        if (target.size() != size)
            return STG_E_READFAULT;
        target.close();
        uncommitted_ += size;
        return uncommitted_ < largestUncommitted ? S_OK : commit();
    }

    HRESULT commit() {
        uncommitted_ = 0;
        const HRESULT status = root_.commit();
        root_.deleteUnusedObjects(); // gives back what the file holds now
        return status;
    }

    StorageRef root_;
    std::vector<Pair> pending_;
    unsigned long long uncommitted_ = 0; // bytes
};

} // namespace

long StorageRef::copyTo(const StorageRef& target) const {
    if (null() || target.null() || item_ == target.item_)
        return STG_E_INVALIDPARAMETER;
    const Vexel::Detail::TreePairLock locks(*item_, *target.item_);
    target.item_->deleteUnusedObjects(false);
    return withStatus([&]() -> long {
        const ItemRef<VxStorage> from(item_);
        const ItemRef<VxStorage> to(target.item_);
        IStorage* const source = from->storage();
        IStorage* const destination = to->storage();
        if (!source || !destination || source == destination)
            return STG_E_INVALIDPARAMETER;
        // Documents of other programs are known by their "\1Ole"; they go over as the system copies them.
        const auto isForeign = [this] {
            return StreamRef().open(elementName(L"\1Ole"), *this, true) == S_OK;
        };
        const bool converts =
            format() == StorageFormat::CompoundFile && target.format() == StorageFormat::Package;
        const bool byElement = converts && !isForeign();
        HRESULT status =
            checkSource(*from.get(), byElement ? CompoundAccess::Copy : CompoundAccess::Snapshot);
        if (SUCCEEDED(status))
            status = byElement ? DocumentCopy(target).run(*this) : plainCopy(*from.get(), *to.get());
        if (FAILED(status))
            VxLog_WriteW(VxLog_Minor, L"Failed to copy \"%ls\" to \"%ls\": 0x%08x",
                         whereabouts(*from.get()).c_str(), whereabouts(*to.get()).c_str(),
                         static_cast<unsigned>(status));
        return status;
    });
}

long StorageRef::convert(const SharedPathName& path, RootStorageOpenMode mode) {
    return withStatus([&, kept = path] {
        close();
        const bool readOnly = mode != RootStorageOpenMode::ReadWrite;
        const bool keyed = mode != RootStorageOpenMode::ReadOnly;
        long status = E_FAIL;
        item_ = StorageContainer::Instance().createRoot(kept, true, readOnly, keyed, status).detach();
        return status;
    });
}
