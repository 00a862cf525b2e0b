#pragma once

/// Going through a storage with all that is below it, and copying it, for callers that want to show how far
/// it is, to end it, or to be told of everything that fails.
///
///     class Watch : public Vexel::TreeObserver {
///         bool onProgress(unsigned long long bytes) override { return bar.advance(bytes); }
///         bool onFault(const Vexel::TreeFault& fault) override { return list.add(fault); }
///     };
///     Watch watch;
///     long status = Vexel::copyTree(document, package, &watch);
///     if (status == S_OK)
///         status = package.commit();

#include <vexel/export.h>
#include <vexel/storage.h>

#include <windows.h>

#include <span>

namespace Vexel {

/// The names of the elements on the way to a node, from below the storage where a walk or a copy began; none
/// for that storage.
using TreePath = std::span<const SharedPathName>;

/// A node that was met. Path and parent hold during the call that has it.
struct TreeNode {
    TreePath path; ///< not empty
    StorageType type;
    unsigned long long size; ///< in bytes, as the listing tells it; 0 for a storage
    FILETIME created;        ///< the times as the format keeps them, 0 where it keeps none
    FILETIME modified;
    bool isLast;              ///< no sibling follows
    const StorageRef& parent; ///< open; `path.back()` is the node's name in it
};

/// What could not be done. The path holds during the call that has it.
struct TreeFault {
    TreePath path;
    StorageType type;
    long status;     ///< a failure
    bool isInTarget; ///< the target failed; else the source, or it cannot be told which of the two
};

/// Somebody who is told of a walk or a copy. The functions are called on the thread that walks, without any
/// lock of the library: other threads may use both roots meanwhile, and so may the functions themselves. Of
/// the target's nodes everybody must keep off until the copy is done. No function may throw.
class TreeObserver {
public:
    TreeObserver() = default;
    TreeObserver(const TreeObserver&) = delete;
    TreeObserver& operator=(const TreeObserver&) = delete;
    virtual ~TreeObserver() = default;

    /// Each node, before it is opened; a storage before what is in it. False leaves it out, without a fault.
    virtual bool onNode(const TreeNode& /*node*/) { return true; }
    /// Each storage that was opened, before what is in it: the one where the walk began first.
    virtual void onStorage(TreePath /*path*/, const StorageRef& /*storage*/) {}
    /// `bytes` of contents have been copied since the last call: called after each 64 KiB, or after a whole
    /// stream that goes from package to package, and, with 0, before each node. False ends the work.
    virtual bool onProgress(unsigned long long /*bytes*/) { return true; }
    /// True goes on with what else can be had, false ends the work.
    virtual bool onFault(const TreeFault& /*fault*/) { return true; }
};

/// Meets every node below `top`, each storage before its contents, siblings in the order in which the format
/// delivers them. Each storage is opened once, for reading, and stays open until what is in it has been met.
/// Contents are not read; those that the observer reads are let go of each time the streams met come to
/// 64 MiB. S_OK, E_ABORT when onProgress ended the walk, else the first fault:
///  - STG_E_INVALIDPARAMETER: a null handle.
///  - STG_E_INVALIDFUNCTION: more than 512 levels below the root, which ends the walk.
///  - Other statuses of opening and listing storages.
VEXEL_API long walkTree(const StorageRef& top, TreeObserver& observer);

/// StorageRef::copyTo with an observer, and exactly that for null. With one, in all formats,
///  - the copy goes from element to element, and a package as target is committed on the way each time 64 MiB
///    of contents wait in it; a stream that would bring it beyond waits until that is done, so that no more
///    than 64 MiB and the largest stream are in memory at a time;
///  - what the observer's false ends leaves no part of a stream in the target, and is never a success: the
///    result is E_ABORT after onProgress, else the first fault, or STG_E_WRITEFAULT as of StorageRef::copyTo.
///    What was copied before stays, in a compound file only in the storages that were done, and nothing is
///    committed any more;
///  - a missing part of a compound file of which no node has told is a fault of `from` itself, at the end;
///  - the target must not stand in `from`: STG_E_ACCESSDENIED.
VEXEL_API long copyTree(const StorageRef& from, const StorageRef& to, TreeObserver* observer);

} // namespace Vexel
