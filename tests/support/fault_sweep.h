#pragma once

#include <gtest/gtest.h>

namespace Support {

/// Lets the first call of some kind fail, then the second, and so on: makes `attempt(n)` for each n, until it
/// answers that nothing failed any more, or until the test has. How many faults there were.
template <class Attempt>
unsigned sweepFaults(Attempt attempt, unsigned step = 1) {
    unsigned n = 0;
    for (; attempt(n) && !testing::Test::HasFailure(); n += step)
        EXPECT_LT(n, 20'000U) << "there is no end of faults";
    return n;
}

} // namespace Support
