// What the file system said about paths, kept in their entries while a flags-cache block lives.

#include "paths/path_name_flags.h"

#include "base/spin_lock.h"

#include <vexel/path_name.h>
#include <vexel/paths.h>

#include <memory>
#include <new>
#include <utility>
#include <vector>

using Vexel::Detail::bit;
using Vexel::Detail::SpinGuard;

namespace {

using Names = std::vector<SharedPathName>;

constexpr std::uint32_t kBlockBits = bit(SharedPathNameFlag::FileExistsKnown) |
                                     bit(SharedPathNameFlag::StorageKnown) |
                                     bit(SharedPathNameFlag::UpToDateKnown);

constinit std::atomic<unsigned> liveBlocks{0};
constinit std::atomic<std::uint64_t> periodsEnded{0};

// The names with facts of the present period, which hold their entries until it ends. Made with the first of
// them and gone with the last block, so that blocks may be static objects. The lock is never taken together
// with the table's.
constinit std::atomic<std::uint32_t> registryLock{0};
constinit Names* registered = nullptr;

void replaceBits(std::atomic<std::uint32_t>& flags, std::uint32_t clear, std::uint32_t set) noexcept {
    std::uint32_t before = flags.load(std::memory_order_acquire);
    while (!flags.compare_exchange_weak(before, (before & ~clear) | set, std::memory_order_acq_rel)) {
    }
}

} // namespace

SharedPathNameFlagsCacheBlock::SharedPathNameFlagsCacheBlock() noexcept { liveBlocks.fetch_add(1); }

SharedPathNameFlagsCacheBlock::~SharedPathNameFlagsCacheBlock() {
    if (liveBlocks.fetch_sub(1) != 1)
        return;
    periodsEnded.fetch_add(1);
    std::unique_ptr<Names> names; // let go outside the lock: entries may go with them
    const SpinGuard guard(registryLock);
    if (!guard || IsActive()) // a block that began meanwhile goes on with what is known, and forgets it
        return;
    names.reset(std::exchange(registered, nullptr));
    if (!names)
        return;
    for (const SharedPathName& name : *names)
        name.entry_->flags.fetch_and(~kBlockBits, std::memory_order_acq_rel);
}

bool SharedPathNameFlagsCacheBlock::IsActive() noexcept { return liveBlocks.load() != 0; }

std::uint64_t Vexel::Detail::flagsCachePeriod() noexcept {
    const std::uint64_t ended = periodsEnded.load();
    return SharedPathNameFlagsCacheBlock::IsActive() ? ended + 1 : 0;
}

// Replaces the flags `known` by `bits` until the present period ends. Whether it lasts is asked under the
// lock: one that ended meanwhile has forgotten its names already and would never forget this one.
// Without memory for the registration nothing is kept, and the file system is asked again next time.
void SharedPathName::cacheFlags(std::uint32_t known, std::uint32_t bits) const noexcept {
    const SpinGuard guard(registryLock);
    if (!guard || !SharedPathNameFlagsCacheBlock::IsActive())
        return;
    try {
        if (!registered)
            registered = std::make_unique<Names>().release();
        if (!(entry_->flags.load(std::memory_order_acquire) & kBlockBits))
            registered->push_back(*this);
    } catch (const std::bad_alloc&) {
        return;
    }
    replaceBits(entry_->flags, known, bits);
}

bool SharedPathName::fileExists() const {
    if (!entry_)
        return false;
    const std::uint32_t flags = entry_->flags.load(std::memory_order_acquire);
    if (flags & bit(SharedPathNameFlag::FileExistsKnown))
        return (flags & bit(SharedPathNameFlag::FileExists)) != 0;
    const bool exists = Vexel::FileSystemEntryExists(asStringView());
    if (SharedPathNameFlagsCacheBlock::IsActive()) {
        constexpr std::uint32_t kKnown = bit(SharedPathNameFlag::FileExistsKnown);
        constexpr std::uint32_t kValue = bit(SharedPathNameFlag::FileExists);
        cacheFlags(kKnown | kValue, kKnown | (exists ? kValue : 0));
    }
    return exists;
}

void SharedPathName::updateFileExists() const {
    if (!entry_ || !flags().has(SharedPathNameFlag::FileExistsKnown))
        return;
    constexpr std::uint32_t kValue = bit(SharedPathNameFlag::FileExists);
    const bool exists = Vexel::FileSystemEntryExists(asStringView());
    replaceBits(entry_->flags, kValue, exists ? kValue : 0);
}

void SharedPathName::setUpToDate(bool value) const {
    if (!entry_ || !SharedPathNameFlagsCacheBlock::IsActive())
        return;
    constexpr std::uint32_t kKnown = bit(SharedPathNameFlag::UpToDateKnown);
    constexpr std::uint32_t kMark = bit(SharedPathNameFlag::UpToDate);
    cacheFlags(kKnown | kMark, kKnown | (value ? kMark : 0));
}

bool SharedPathName::isUpToDate() const noexcept {
    return flags().has(SharedPathNameFlag::UpToDateKnown) && flags().has(SharedPathNameFlag::UpToDate);
}
