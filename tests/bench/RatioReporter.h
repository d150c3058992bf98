#pragma once
// The console report, then each benchmark's figures as ratios against a baseline of the same
// run: absolute times differ from machine to machine, ratios carry over.

#include <benchmark/benchmark.h>

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace kestrelvue::bench {

class RatioReporter : public benchmark::ConsoleReporter {
public:
    struct Times {
        double realUs = 0, cpuUs = 0;  // microseconds
    };
    using Figures = std::map<std::string, Times>;  // by function name
    /// `summary` prints what it makes of the figures once every benchmark has run.
    explicit RatioReporter(std::function<void(const Figures&)> summary)
        : summary_(std::move(summary)) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            // With repetitions the median stands for the benchmark; otherwise its one run.
            if (run.error_occurred ||
                (run.run_type != Run::RT_Iteration && run.aggregate_name != "median"))
                continue;
            const double toUs = benchmark::GetTimeUnitMultiplier(benchmark::kMicrosecond) /
                                benchmark::GetTimeUnitMultiplier(run.time_unit);
            figures_[run.run_name.function_name] = {run.GetAdjustedRealTime() * toUs,
                                                    run.GetAdjustedCPUTime() * toUs};
        }
        ConsoleReporter::ReportRuns(runs);
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        summary_(figures_);
    }

    /// Runs the benchmarks the command line selects with this reporter.
    static int run(int argc, char** argv, std::function<void(const Figures&)> summary) {
        benchmark::Initialize(&argc, argv);
        if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
        RatioReporter reporter(std::move(summary));
        benchmark::RunSpecifiedBenchmarks(&reporter);
        benchmark::Shutdown();
        return 0;
    }

private:
    std::function<void(const Figures&)> summary_;
    Figures figures_;
};

}  // namespace kestrelvue::bench
