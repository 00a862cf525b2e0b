#pragma once

/// Benchmarks that are judged by their ratio to a peer, measured in the same run.
///
///     int main(int argc, char** argv) {
///         Vexel::Bench::Suite suite;
///         suite.compare("copy a name", 1.0, copyName, copySharedString);
///         suite.measure("intern", intern)->Threads(1)->Threads(2)->Threads(4);
///         return suite.run(argc, argv);
///     }
///
/// Absolute times say little on a shared machine. So the repetitions of all benchmarks of a program are run
/// in random order, which spreads whatever else the machine does over both sides, and the medians are
/// compared.

#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <vector>

namespace Vexel::Bench {

using Function = std::function<void(benchmark::State&)>;

class Suite {
public:
    /// Measures `ours` against `peer`. Times count by the wall clock. `limit` is the largest ratio, ours by
    /// peer, that is acceptable.
    void compare(const std::string& name, double limit, const Function& ours, const Function& peer);

    /// Measures something without a peer; the result takes further settings, such as threads. With several
    /// threads the time printed is that of one iteration of all of them together.
    benchmark::internal::Benchmark* measure(const std::string& name, const Function& function);

    /// Runs what was added and prints one line each. Takes Google Benchmark's options. 0 when every ratio is
    /// within its limit and no benchmark reported an error, else 1.
    int run(int argc, char** argv);

private:
    struct Comparison {
        std::string name;
        double limit;
    };
    std::vector<Comparison> comparisons_;
};

} // namespace Vexel::Bench
