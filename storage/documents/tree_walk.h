#pragma once

#include "base/status.h"
#include "storage/tree/item_ref.h"
#include "storage/tree/storage_item.h"

#include <vexel/copying.h>

#include <windows.h>

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

namespace Vexel::Detail {

/// Meets every element of a storage. With a target it copies each into that; else, with an observer, it tells
/// of each; else it reads each to its end. What cannot be had is left out, the rest follows, and the first
/// failure is the result; but STG_E_WRITEFAULT where the target may have a part of a stream. A package as
/// target is committed on the way, so that memory does not have to hold the whole document.
///
/// No recursion: the depth comes from the file. The storages on the way stay open, and a storage of a
/// compound file is committed when all below it has been. Whoever runs this holds the locks of the roots; the
/// observer is called without them, and finds and leaves everything as other threads may: so the walk holds
/// its nodes, asks them for their interfaces each time, and goes by its own positions in their streams.
class TreeWalk {
public:
    TreeWalk(StorageRef source, StorageRef target, TreeObserver* observer) noexcept
        : source_(std::move(source)), target_(std::move(target)), observer_(observer) {}

    HRESULT run();
    /// The same behind another copy, which may have left parts of streams in the target.
    HRESULT redo() {
        isRedone_ = true;
        return run();
    }
    /// Tells what keeps the source as a whole from being copied.
    HRESULT fail(HRESULT status) { return note(status, StorageType::Storage); }

    static VxStorage* itemOf(const StorageRef& storage) noexcept { return storage.item_; }

private:
    struct Level {
        StorageRef from, to; // `to` is null without a target
        std::unique_ptr<VxStorageEnumerator> children;
    };

    void enter(Level level);
    void leave();
    void meet();
    void meetStorage(const SharedPathName& name);
    HRESULT openTarget(const SharedPathName& name, StorageRef& target) const;
    void meetStream(const SharedPathName& name, unsigned long long listedSize);
    void copyInPackages(const SharedPathName& name, unsigned long long size);
    void checkClass(const SharedPathName& name);
    void copyStream(const SharedPathName& name);
    void passOver(const SharedPathName& name, StorageType type);
    void passOverRest() noexcept { mayHavePart_ = mayHavePart_ || isRedone_; }
    void discardPart(VxStorage& to, const SharedPathName& name);
    void endWithPart();
    HRESULT moveBytes(::IStream* from, unsigned long long size, VxStream* to);

    bool isCopying() const noexcept { return target_.notNull(); }
    /// Whether the work goes on.
    bool tell(unsigned long long bytes);
    HRESULT note(HRESULT status, StorageType type, bool isInTarget = false);
    bool makeRoom(unsigned long long size);
    void take(unsigned long long size);
    void giveBack();

    const StorageRef source_, target_;
    TreeObserver* const observer_;
    std::vector<Level> levels_;
    std::vector<SharedPathName> path_; // to the node that is met, or to the storage that is entered or left
    std::vector<std::byte> buffer_;
    unsigned long long inMemory_ = 0; // bytes
    FirstFailure first_;
    HRESULT end_ = S_OK; // why the work ended before its end
    bool isRedone_ = false;
    bool mayHavePart_ = false;
};

} // namespace Vexel::Detail
