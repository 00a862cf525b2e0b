#pragma once

namespace Vexel::Detail {

/// What a tree asks of whoever keeps its root. A root without a keeper has nobody to clean up for it, and its
/// temporary files stay in memory.
class RootKeeper {
public:
    /// Frees what no handle uses, so that a call that failed for want of memory or file handles can be made
    /// once more. Returns whether anything was freed.
    virtual bool freeForRetry() = 0;
    /// Whether temporary roots are made as files instead of in memory.
    virtual bool isMakingFiles() const = 0;

protected:
    RootKeeper() = default;
    RootKeeper(const RootKeeper&) = default;
    RootKeeper& operator=(const RootKeeper&) = default;
    ~RootKeeper() = default;
};

} // namespace Vexel::Detail
