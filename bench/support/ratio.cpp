#include "ratio.h"

#include <algorithm>
#include <cstdio>
#include <map>

namespace Vexel::Bench {

namespace {

constexpr int kRepetitions = 9;
constexpr double kSecondsEach = 0.05;
constexpr const char* kOurs = ", ours";
constexpr const char* kPeer = ", peer";

// Collects the time of each repetition, in seconds, by benchmark.
class Collector : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context&) override { return true; }

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred) {
                std::printf("%s: %s\n", run.run_name.function_name.c_str(), run.error_message.c_str());
                failed_ = true;
            } else if (run.run_type == Run::RT_Iteration) {
                const std::string threads =
                    run.threads > 1 ? ", " + std::to_string(run.threads) + " threads" : "";
                const std::string name = run.run_name.function_name + threads;
                const double seconds = run.real_accumulated_time / static_cast<double>(run.iterations);
                times_[name].push_back(seconds);
                if (const auto rate = run.counters.find("bytes_per_second"); rate != run.counters.end())
                    bytes_[name] = rate->second * seconds;
            }
        }
    }

    bool failed() const { return failed_; }

    /// Takes a benchmark's median out of the collection; 0 when it was not run.
    double takeMedian(const std::string& name) {
        auto times = times_.extract(name);
        return times ? median(times.mapped()) : 0;
    }

    void printTheRest() {
        for (auto& [name, times] : times_)
            std::printf("%s: %s\n", name.c_str(), text(name, median(times)).c_str());
    }

    /// The time, and what it means in bytes a second where the benchmark counted them.
    std::string text(const std::string& name, double seconds) const {
        static constexpr struct {
            double size;
            const char* name;
        } kUnits[] = {{1, "s"}, {1e-3, "ms"}, {1e-6, "us"}, {1e-9, "ns"}};
        const auto* unit =
            std::find_if(std::begin(kUnits), std::end(kUnits) - 1,
                         [seconds](const auto& candidate) { return seconds >= candidate.size; });
        char buffer[64];
        const int length = std::snprintf(buffer, sizeof buffer, "%.3g %s", seconds / unit->size, unit->name);
        if (const auto bytes = bytes_.find(name); bytes != bytes_.end())
            std::snprintf(buffer + length, sizeof buffer - static_cast<std::size_t>(length), " (%.3g GB/s)",
                          bytes->second / seconds / 1e9);
        return buffer;
    }

private:
    static double median(std::vector<double>& times) {
        const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
        std::nth_element(times.begin(), middle, times.end());
        return *middle;
    }

    std::map<std::string, std::vector<double>> times_;
    std::map<std::string, double> bytes_; // in one iteration
    bool failed_ = false;
};

} // namespace

void Suite::compare(const std::string& name, double limit, const Function& ours, const Function& peer) {
    measure(name + kOurs, ours);
    measure(name + kPeer, peer);
    comparisons_.push_back({name, limit});
}

benchmark::internal::Benchmark* Suite::measure(const std::string& name, const Function& function) {
    return benchmark::RegisterBenchmark(name.c_str(), function)
        ->Repetitions(kRepetitions)
        ->MinTime(kSecondsEach)
        ->UseRealTime();
}

int Suite::run(int argc, char** argv) {
    char interleave[] = "--benchmark_enable_random_interleaving=true";
    std::vector<char*> arguments(argv, argv + argc);
    arguments.insert(arguments.begin() + 1, interleave); // before the caller's own, which so prevail
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data()))
        return 1;

    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    bool passed = !collector.failed();
    for (const Comparison& comparison : comparisons_) {
        const double ours = collector.takeMedian(comparison.name + kOurs);
        const double peer = collector.takeMedian(comparison.name + kPeer);
        if (ours == 0 || peer == 0)
            continue; // filtered out, or failed and already reported
        const bool within = ours / peer <= comparison.limit;
        std::printf("%s: ours %s, peer %s, ratio %.2f (limit %.2f)%s\n", comparison.name.c_str(),
                    collector.text(comparison.name + kOurs, ours).c_str(),
                    collector.text(comparison.name + kPeer, peer).c_str(), ours / peer, comparison.limit,
                    within ? "" : " ABOVE THE LIMIT");
        passed = passed && within;
    }
    collector.printTheRest();
    return passed ? 0 : 1;
}

} // namespace Vexel::Bench
