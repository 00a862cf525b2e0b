#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

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

/// Lets `check` see the bytes cut at every place, and with these bits of every byte changed.
template <class Check>
void sweepDamage(const std::string& whole, std::size_t begin, std::initializer_list<int> masks, Check check) {
    for (std::size_t at = begin; at < whole.size(); ++at) {
        SCOPED_TRACE("damaged at " + std::to_string(at));
        check(whole.substr(0, at));
        for (const int mask : masks) {
            std::string damaged = whole;
            damaged[at] = static_cast<char>(damaged[at] ^ mask);
            check(damaged);
        }
    }
}

} // namespace Support
