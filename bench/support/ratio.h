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
#include <map>
#include <string>
#include <vector>

namespace Vexel::Bench {

using Function = std::function<void(benchmark::State&)>;

/// Which time counts. The thread's processor time is for what is done in memory by one thread alone: it says
/// the same whatever else the machine does, but is told in steps of 10 ms.
enum class Clock { Wall, Processor };

class Suite {
public:
    /// Measures `ours` against `peer`. `limit` is the largest ratio, ours by peer, that is acceptable.
    void compare(const std::string& name, double limit, const Function& ours, const Function& peer,
                 Clock clock = Clock::Wall);

    /// Measures something without a peer; the result takes further settings, such as threads. With several
    /// threads the time printed is that of one iteration of all of them together.
    benchmark::internal::Benchmark* measure(const std::string& name, const Function& function);

    /// Runs what was added and prints one line each. Takes Google Benchmark's options, and --rows=FILE, to
    /// which it appends the results for programs to read. 1 when a ratio is above its limit or a benchmark
    /// reported an error, else 0. A ratio is not judged where its two halves differ by more than what
    /// separates it from its limit.
    int run(int argc, char** argv);

private:
    struct Comparison {
        std::string name;
        double limit;
    };
    std::vector<Comparison> comparisons_;
    std::map<std::string, Clock> clocks_;
};

} // namespace Vexel::Bench
