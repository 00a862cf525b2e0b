// What the file system said about paths, kept in their entries while a flags-cache block lives.

#include "paths/spin_lock.h"

#include <vexel/path_name.h>
#include <vexel/paths.h>

#include <mutex>
#include <new>
#include <vector>

using Vexel::Detail::SharedPathEntry;
using Vexel::Detail::SpinLock;

namespace {

constexpr std::uint32_t bit(SharedPathNameFlag flag) { return static_cast<std::uint32_t>(flag); }

constexpr std::uint32_t blockBits = bit(SharedPathNameFlag::FileExistsKnown) |
                                    bit(SharedPathNameFlag::StorageKnown) |
                                    bit(SharedPathNameFlag::UpToDateKnown);

constinit std::atomic<int> liveBlocks{0};

// Held before the table's lock where both are needed: forgetting a name may destroy its entry.
constinit std::atomic<std::uint32_t> registryLock{0};

// The names with facts of the present block, which keep their entries until it ends.
std::vector<SharedPathName>& registry() {
    static std::vector<SharedPathName> names;
    return names;
}

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
    SpinLock spin(registryLock);
    const std::lock_guard guard(spin);
    for (const SharedPathName& name : registry())
        name.entry_->flags.fetch_and(~blockBits, std::memory_order_acq_rel);
    std::vector<SharedPathName>().swap(registry());
}

bool SharedPathNameFlagsCacheBlock::IsActive() noexcept { return liveBlocks.load() != 0; }

// Replaces the flags `known` by `bits` for as long as the present block lives. The block is asked for again
// under the lock: one that ended meanwhile has forgotten its names already and would never forget this one.
// Without memory for the registration nothing is kept, and the file system is asked again next time.
void SharedPathName::cacheFlags(std::uint32_t known, std::uint32_t bits) const noexcept {
    SpinLock spin(registryLock);
    const std::lock_guard guard(spin);
    if (!SharedPathNameFlagsCacheBlock::IsActive())
        return;
    try {
        if (!(entry_->flags.load(std::memory_order_acquire) & blockBits))
            registry().push_back(*this);
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
        constexpr std::uint32_t known = bit(SharedPathNameFlag::FileExistsKnown);
        constexpr std::uint32_t value = bit(SharedPathNameFlag::FileExists);
        cacheFlags(known | value, known | (exists ? value : 0));
    }
    return exists;
}

void SharedPathName::updateFileExists() const {
    if (!entry_ || !flags().has(SharedPathNameFlag::FileExistsKnown))
        return;
    constexpr std::uint32_t value = bit(SharedPathNameFlag::FileExists);
    const bool exists = Vexel::FileSystemEntryExists(asStringView());
    replaceBits(entry_->flags, value, exists ? value : 0);
}

void SharedPathName::setUpToDate(bool value) const {
    if (!entry_ || !SharedPathNameFlagsCacheBlock::IsActive())
        return;
    constexpr std::uint32_t known = bit(SharedPathNameFlag::UpToDateKnown);
    constexpr std::uint32_t mark = bit(SharedPathNameFlag::UpToDate);
    cacheFlags(known | mark, known | (value ? mark : 0));
}

bool SharedPathName::isUpToDate() const noexcept {
    return flags().has(SharedPathNameFlag::UpToDateKnown) && flags().has(SharedPathNameFlag::UpToDate);
}
