#pragma once

#include "base/platform.h"
#include "support/fault_sweep.h"
#include "support/scarce_memory.h"

#include <windows.h>

#include <functional>
#include <map>
#include <span>
#include <string>

namespace Support {

/// What a call answers instead of doing its work.
struct FaultForm {
    enum Kind {
        Fails,   ///< as such calls do, with `code`: the system's error, or the status of one that returns it
        Short,   ///< a success with half of the bytes moved
        Nothing, ///< a success with none
        Excess,  ///< a success with more bytes than were asked for
        Resized  ///< a success with another size: `code` is added to the one there is
    };
    const char* name;
    Kind kind;
    long code;

    /// Memory or file handles run out.
    bool isShortage() const noexcept;
};

/// Somewhere to fail: a call of the seam, an allocation, an interface's calls, the room on a disk.
struct FaultPoint {
    const char* name;
    std::span<const FaultForm> forms;
    /// Puts itself into the seam. What is opened afterwards can be made to fail.
    void (*install)();
    /// Whether its uses are counted in bytes, and how many a sweep goes on by.
    unsigned step = 1;
    /// Whether a package that is saved meanwhile cannot do without it, nor tells another error.
    bool tellsErrors = false;
};

std::span<const FaultPoint> faultPoints();

/// The calls number `skipped` to `skipped + times - 1` of a point fail in a form.
struct PlannedFault {
    const FaultPoint& point;
    const FaultForm& form;
    unsigned skipped;
    unsigned times;

    static constexpr unsigned kForGood = ~0U;
    std::string name() const;
};

/// Has one thing after the other fail, in all of the library that the test program contains. While it lives
/// the seam is its own.
class FaultDriver {
public:
    FaultDriver();
    FaultDriver(const FaultDriver&) = delete;
    FaultDriver& operator=(const FaultDriver&) = delete;
    ~FaultDriver() { release(); }

    /// Puts a point into the seam, before what it is to reach is opened.
    void install(const FaultPoint& point) const;
    void release() const;
    /// How often a point is used by a call that is not disturbed; not known, and 1, of allocations.
    static unsigned count(const FaultPoint& point, const std::function<void()>& call);
    /// Runs a call with its fault. Whether that was met.
    bool strike(const PlannedFault& fault, const std::function<void()>& call);
    /// How many faults of each point and form there were.
    const std::map<std::string, unsigned>& tally() const noexcept { return tally_; }

private:
    Vexel::Detail::Platform real_;
    std::map<std::string, unsigned> tally_;
};

/// Blocks and pages that the library has from the seam.
std::ptrdiff_t liveBlocks() noexcept;
/// Handles that this process has.
unsigned openHandles() noexcept;

} // namespace Support
