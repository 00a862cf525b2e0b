#include "ratio.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <string_view>
#include <utility>

namespace Vexel::Bench {

namespace {

constexpr int kRepetitions = 9;
constexpr double kSecondsEach = 0.05;
constexpr const char* kOurs = ", ours";
constexpr const char* kPeer = ", peer";
constexpr std::string_view kRowsOption = "--rows=";

double median(std::vector<double> times) {
    const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
    std::nth_element(times.begin(), middle, times.end());
    return *middle;
}

// Collects the time of each repetition, in seconds and in their order, by benchmark.
class Collector : public benchmark::BenchmarkReporter {
public:
    using Times = std::vector<double>;

    /// By the function's name, for those that do not go by the wall clock.
    explicit Collector(const std::map<std::string, Clock>& clocks) : clocks_(clocks) {}

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
                const auto clock = clocks_.find(run.run_name.function_name);
                const bool byProcessor = clock != clocks_.end() && clock->second == Clock::Processor;
                const double seconds = (byProcessor ? run.cpu_accumulated_time : run.real_accumulated_time) /
                                       static_cast<double>(run.iterations);
                times_[name].push_back(seconds);
                if (const auto rate = run.counters.find("bytes_per_second"); rate != run.counters.end())
                    bytes_[name] = rate->second * seconds;
            }
        }
    }

    bool failed() const { return failed_; }

    /// Takes a benchmark's times out of the collection; none when it was not run.
    Times take(const std::string& name) {
        auto times = times_.extract(name);
        return times ? std::move(times.mapped()) : Times();
    }

    const std::map<std::string, Times>& rest() const { return times_; }

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
    const std::map<std::string, Clock>& clocks_;
    std::map<std::string, Times> times_;
    std::map<std::string, double> bytes_; // in one iteration
    bool failed_ = false;
};

// Two numbers a run gives for the same ratio: that of its first half and that of its second.
double differenceOfHalves(const Collector::Times& ours, const Collector::Times& peer) {
    const auto half = [](const Collector::Times& times, bool second) {
        const auto count = static_cast<std::ptrdiff_t>((times.size() + 1) / 2);
        return median(second ? Collector::Times(times.end() - count, times.end())
                             : Collector::Times(times.begin(), times.begin() + count));
    };
    return std::abs(half(ours, false) / half(peer, false) - half(ours, true) / half(peer, true));
}

enum class Verdict { None, Within, Above, Noisy };

Verdict judge(double ratio, double difference, double limit) {
    if (std::isinf(limit))
        return Verdict::None;
    if (difference > std::abs(ratio - limit))
        return Verdict::Noisy;
    return ratio <= limit ? Verdict::Within : Verdict::Above;
}

const char* textOf(Verdict verdict) {
    static constexpr const char* kTexts[] = {"", "", " ABOVE THE LIMIT", " noisy, not judged"};
    return kTexts[static_cast<int>(verdict)];
}

// Where the caller wants the results for further use, each is a line there: the name, our median and the
// peer's in seconds, the limit, how much the halves differ, and the verdict.
class Rows {
public:
    /// Takes its option out of the arguments.
    explicit Rows(std::vector<char*>& arguments) {
        const auto option = std::find_if(arguments.begin(), arguments.end(), [](const char* argument) {
            return std::string_view(argument).starts_with(kRowsOption);
        });
        if (option == arguments.end())
            return;
        file_.reset(std::fopen(*option + kRowsOption.size(), "a"));
        arguments.erase(option);
    }
    void add(const std::string& name, double ours, double peer, double limit, double difference,
             const char* verdict) const {
        if (file_)
            std::fprintf(file_.get(), "%s\t%.9g\t%.9g\t%.3f\t%.4f\t%s\n", name.c_str(), ours, peer, limit,
                         difference, verdict);
    }

private:
    struct Closer {
        void operator()(std::FILE* file) const noexcept { std::fclose(file); }
    };
    std::unique_ptr<std::FILE, Closer> file_;
};

} // namespace

void Suite::compare(const std::string& name, double limit, const Function& ours, const Function& peer,
                    Clock clock) {
    for (const auto& [side, function] : {std::pair(kOurs, &ours), std::pair(kPeer, &peer)}) {
        measure(name + side, *function);
        clocks_[name + side] = clock;
    }
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
    const Rows rows(arguments);
    arguments.insert(arguments.begin() + 1, interleave); // before the caller's own, which so prevail
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data()))
        return 1;

    Collector collector(clocks_);
    benchmark::RunSpecifiedBenchmarks(&collector);
    bool passed = !collector.failed();
    for (const Comparison& comparison : comparisons_) {
        const auto ourTimes = collector.take(comparison.name + kOurs);
        const auto peerTimes = collector.take(comparison.name + kPeer);
        if (ourTimes.empty() || peerTimes.empty())
            continue; // filtered out, or failed and already reported
        const double ours = median(ourTimes), peer = median(peerTimes);
        const double difference = differenceOfHalves(ourTimes, peerTimes);
        const Verdict verdict = judge(ours / peer, difference, comparison.limit);
        std::printf("%s: ours %s, peer %s, ratio %.2f (limit %.2f, halves differ by %.2f)%s\n",
                    comparison.name.c_str(), collector.text(comparison.name + kOurs, ours).c_str(),
                    collector.text(comparison.name + kPeer, peer).c_str(), ours / peer, comparison.limit,
                    difference, textOf(verdict));
        rows.add(comparison.name, ours, peer, comparison.limit, difference, textOf(verdict));
        passed = passed && verdict != Verdict::Above;
    }
    for (const auto& [name, times] : collector.rest()) {
        std::printf("%s: %s\n", name.c_str(), collector.text(name, median(times)).c_str());
        rows.add(name, median(times), 0, 0, 0, "");
    }
    return passed ? 0 : 1;
}

} // namespace Vexel::Bench
