// Copying a storage with all that is in it.

#include "base/status.h"
#include "base/status_guard.h"
#include "io/com_stream.h"
#include "storage/compound/compound_check.h"
#include "storage/handles/root_tables.h"
#include "storage/tree/element_name.h"
#include "storage/tree/item_ref.h"
#include "storage/tree/storage_item.h"

#include <vexel/diagnostics.h>
#include <vexel/storage.h>

#include <wrl/client.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using Microsoft::WRL::ComPtr;
using Vexel::Detail::CompoundAccess;
using Vexel::Detail::CompoundVerdict;
using Vexel::Detail::elementName;
using Vexel::Detail::ItemRef;
using Vexel::Detail::outcomeOf;
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
CompoundVerdict checkSource(const VxStorage& source, CompoundAccess access) {
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

/// A stream of a storage, open. One that the application has open stays where it is.
ItemRef<VxStream> openUnmoved(VxStorage& parent, const SharedPathName& name, HRESULT& status) {
    if (parent.VxStorage::hasChild(name, StorageType::Stream)) { // in the table
        ItemRef<VxStream> known = parent.openChildStream(name, true, true, &status);
        if (known && known->isOpen())
            return known;
    }
    return parent.openChildStream(name, true, false, &status);
}

/// Moves a stream to its start, and back at the end.
class Rewound {
public:
    explicit Rewound(::IStream* stream)
        : stream_(stream), before_(Vexel::Detail::position(stream)),
          status_(outcomeOf(stream->Seek({}, STREAM_SEEK_SET, nullptr))) {}
    Rewound(const Rewound&) = delete;
    Rewound& operator=(const Rewound&) = delete;
    ~Rewound() {
        unsigned long long reached = 0;
        Vexel::Detail::seek(stream_, STREAM_SEEK_SET, static_cast<long long>(before_), reached);
    }

    HRESULT status() const noexcept { return status_; }

private:
    ::IStream* stream_;
    unsigned long long before_;
    HRESULT status_;
};

HRESULT sizeOf(::IStream* stream, unsigned long long& size) {
    STATSTG info{};
    const HRESULT status = outcomeOf(stream->Stat(&info, STATFLAG_NONAME));
    size = info.cbSize.QuadPart;
    return status;
}

/// Reads a stream to the end that its size tells.
HRESULT readWhole(::IStream* stream, unsigned long long size) {
    std::vector<std::byte> buffer(0x10000);
    for (ULONG done = 0; size > 0; size -= done) {
        const auto count =
            static_cast<ULONG>((std::min)(size, static_cast<unsigned long long>(buffer.size())));
        const HRESULT status = outcomeOf(stream->Read(buffer.data(), count, &done));
        if (status == S_OK && done == count)
            continue;
        // Some systems' streams just end where their sectors do, others say that the file is damaged.
        return status == S_OK || status == STG_E_DOCFILECORRUPT ? STG_E_READFAULT : status;
    }
    return S_OK;
}

/// Copies a stream's contents into a new one. Fewer bytes than the size tells are a failure.
HRESULT copyWhole(::IStream* source, unsigned long long size, VxStream& target) {
    ::IStream* const to = target.stream();
    if (!to || to == source)
        return STG_E_INVALIDPARAMETER;
    constexpr ULARGE_INTEGER everything{.QuadPart = ~0ULL};
    ULARGE_INTEGER written{.QuadPart = size};
    // A package's contents get their memory in one piece; where there is none, writing says so.
    if (target.format() == StorageFormat::Package)
        to->SetSize(written);
    const HRESULT status = outcomeOf(source->CopyTo(to, everything, nullptr, &written));
    return FAILED(status) || written.QuadPart == size ? status : STG_E_READFAULT;
}

/// Meets every element of a storage, and copies it into another one, if there is a target. What cannot be had
/// is left out, the rest is copied, and the first failure is the result. Into a package the copy is committed
/// on the way, so that memory does not have to hold the whole document.
///
/// No recursion: the depth comes from the file. The storages on the way stay open, and a storage of a
/// compound file is committed when all below it has been.
class ElementWalk {
public:
    ElementWalk(VxStorage& source, VxStorage* target) : target_(target) { levels_.push_back(level(source)); }

    HRESULT run() {
        enter();
        while (!levels_.empty()) {
            Level& current = levels_.back();
            if (current.children && current.children->moveNext())
                note(withStatus([&] { return meet(current.children->type(), current.children->name()); }));
            else
                leave();
        }
        return first_;
    }

private:
    struct Level {
        ItemRef<VxStorage> from, to; // `to` is null without a target
        std::unique_ptr<VxStorageEnumerator> children;
    };

    static constexpr unsigned long long largestUncommitted = 64ULL << 20;

    Level level(VxStorage& source) const {
        return {ItemRef<VxStorage>(&source), ItemRef<VxStorage>(target_), nullptr};
    }

    void note(HRESULT status) {
        if (first_ == S_OK)
            first_ = outcomeOf(status);
    }

    /// Begins with the storage that was put on top.
    void enter() {
        const Level& current = levels_.back();
        if (current.to)
            note(copyClass(*current.from.get(), *current.to.get()));
        auto children = current.from->createEnumerator();
        const HRESULT status = outcomeOf(children ? children->reset(current.from.get()) : E_FAIL);
        note(status);
        if (status == S_OK)
            levels_.back().children = std::move(children);
    }

    void leave() {
        Level done = std::move(levels_.back());
        levels_.pop_back();
        if (done.children && done.children->status() != S_FALSE)
            note(FAILED(done.children->status()) ? done.children->status()
                                                 : STG_E_READFAULT); // there may be more
        done.children.reset();
        if (levels_.empty())
            return;
        close(std::move(done.from));
        if (!done.to)
            return;
        if (done.to->format() == StorageFormat::CompoundFile)
            note(done.to->commit());
        close(std::move(done.to));
    }

    /// Gives back what a storage takes in memory, unless the application uses it.
    static void close(ItemRef<VxStorage> storage) {
        storage->deleteUnusedObjects(false);
        storage.detach()->releaseHandle();
    }

    HRESULT meet(StorageType type, const SharedPathName& name) {
        return type == StorageType::Storage ? meetStorage(name) : meetStream(name);
    }

    HRESULT meetStorage(const SharedPathName& name) {
        const Level& parent = levels_.back();
        HRESULT status = E_FAIL;
        Level child{parent.from->openChildStorage(name, true, false, &status), {}, nullptr};
        if (status == STG_E_INVALIDFUNCTION)
            return stop(status); // deeper than items go; storages that hold each other would keep us for ever
        if (child.from && parent.to)
            child.to = parent.to->hasChild(name, StorageType::Storage)
                           ? parent.to->openChildStorage(name, false, false, &status)
                           : parent.to->createChildStorage(name, &status, false);
        if (!child.from || (parent.to && !child.to))
            return missing(status);
        levels_.push_back(std::move(child));
        enter();
        return S_OK;
    }

    HRESULT meetStream(const SharedPathName& name) {
        const Level& parent = levels_.back();
        HRESULT status = E_FAIL;
        const ItemRef<VxStream> source = openUnmoved(*parent.from.get(), name, status);
        // Held: others may close the node while a clean-up runs that the target needs.
        const ComPtr<::IStream> stream = source ? source->stream() : nullptr;
        if (!stream)
            return missing(status);
        unsigned long long size = 0;
        const Rewound rewound(stream.Get());
        status = FAILED(rewound.status()) ? rewound.status() : sizeOf(stream.Get(), size);
        if (FAILED(status))
            return status;
        return parent.to ? copyStream(stream.Get(), size, *parent.to.get(), name)
                         : readWhole(stream.Get(), size);
    }

    HRESULT copyStream(::IStream* source, unsigned long long size, VxStorage& to,
                       const SharedPathName& name) {
        HRESULT status = E_FAIL;
        ItemRef<VxStream> target = to.createChildStream(name, &status);
        if (!target)
            return status;
        status = copyWhole(source, size, *target.get());
        target = {};
        if (FAILED(status)) {
            to.destroyChild(name); // a part is not taken for the whole
            return status;
        }
        uncommitted_ += size;
        if (uncommitted_ >= largestUncommitted && target_->format() == StorageFormat::Package)
            commit();
        return S_OK;
    }

    /// What cannot be committed now would not find memory for what is still to come.
    void commit() {
        uncommitted_ = 0;
        const HRESULT status = outcomeOf(target_->commit());
        target_->deleteUnusedObjects(false); // gives back what the file holds now
        if (status != S_OK)
            note(stop(status));
    }

    HRESULT stop(HRESULT status) {
        levels_.clear();
        return status;
    }

    /// For an element that cannot be opened. Whoever only looks leaves open what the system's copy, which
    /// goes round its own interfaces, could read all the same.
    HRESULT missing(HRESULT status) const {
        if (!target_)
            return S_OK;
        return FAILED(status) ? status : STG_E_READFAULT;
    }

    static HRESULT copyClass(VxStorage& from, VxStorage& to) {
        const ComPtr<IStorage> source = from.storage(), target = to.storage(); // held, as streams are
        if (!source || !target)
            return STG_E_INVALIDPARAMETER;
        STATSTG info{};
        const HRESULT status = outcomeOf(source->Stat(&info, STATFLAG_NONAME));
        return FAILED(status) || info.clsid == CLSID_NULL ? status : target->SetClass(info.clsid);
    }

    VxStorage* target_;
    std::vector<Level> levels_;
    unsigned long long uncommitted_ = 0; // bytes
    HRESULT first_ = S_OK;               // failure
};

/// A copy by the storage's own means. The system's stops at the first element that it cannot copy, and takes
/// streams that deliver less than their size for whole; packages do neither. So where no look has found that
/// the source `isComplete`, all of it is read once more.
HRESULT copyByItself(VxStorage& source, VxStorage& target, bool isComplete) {
    HRESULT status = outcomeOf(plainCopy(source, target));
    if (source.format() != StorageFormat::CompoundFile)
        return status;
    if (status == S_OK && !isComplete)
        status = ElementWalk(source, nullptr).run();
    const bool isFull =
        status == STG_E_MEDIUMFULL || status == STG_E_TOOMANYOPENFILES || isMemoryExhausted(status);
    if (FAILED(status) && !isFull && status != E_OUTOFMEMORY && !isAtOrBelow(&target, source))
        ElementWalk(source, &target).run();
    return status;
}

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
        if (to->readOnly())
            return STG_E_ACCESSDENIED;
        // Documents of other programs are known by their "\1Ole"; they go over as the system copies them.
        const auto isForeign = [&from] {
            HRESULT status = E_FAIL;
            return openUnmoved(*from.get(), elementName(L"\1Ole"), status).get() != nullptr;
        };
        const bool converts =
            format() == StorageFormat::CompoundFile && target.format() == StorageFormat::Package;
        const bool byElement = converts && !isForeign();
        // Where the source is damaged, the system's copy would not come back, and what reading makes of it is
        // not the whole. A row of elements that is too long for that takes as much time as its length
        // squared.
        const CompoundVerdict look =
            checkSource(*from.get(), byElement ? CompoundAccess::Copy : CompoundAccess::Snapshot);
        HRESULT status = S_OK;
        if (SUCCEEDED(look.status) && !byElement)
            status = copyByItself(*from.get(), *to.get(), look.status == S_OK);
        else if (!look.isTooLong && !isAtOrBelow(to.get(), *from.get()))
            status = ElementWalk(*from.get(), to.get()).run();
        if (SUCCEEDED(status) && FAILED(look.status))
            status = look.status;
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
        long status = E_FAIL;
        item_ = Vexel::Detail::rootTables()
                    .convert(kept, Vexel::Detail::rootOptions(mode, false), status)
                    .detach();
        return status;
    });
}
