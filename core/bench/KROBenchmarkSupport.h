// Pieces shared by the benchmark programs of core/bench.
#pragma once

#include <benchmark/benchmark.h>

#include <iomanip>
#include <iostream>
#include <map>
#include <string>
#include <vector>

// The console output, keeping one counter of every iteration run by its
// benchmark name (without the "/iterations:", "/real_time", "/manual_time"
// and "/process_time" suffixes), so that a program's Finalize can print its figure beside the
// peer's.
class KROCounterReporter : public benchmark::ConsoleReporter {
public:
    // The counter's values are multiplied by scale as they are kept.
    explicit KROCounterReporter(std::string counter, double scale = 1.0)
        : counter_(std::move(counter)), scale_(scale) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.error_occurred) {
                continue;
            }
            const auto value = run.counters.find(counter_);
            if (value != run.counters.end()) {
                figures_[plainName(run.benchmark_name())] = value->second.value * scale_;
            }
        }
    }

protected:
    // The kept figure of a benchmark, 0 when it did not run.
    double figure(const std::string& name) const {
        const auto found = figures_.find(name);
        return found == figures_.end() ? 0.0 : found->second;
    }
    // "  read/WAVE/float   0.59x": the figure of base + "/" + ours over that of
    // base + "/" + theirs, nothing when either did not run.
    void printRatio(const std::string& base, const std::string& ours, const std::string& theirs,
                    int width) const {
        const double numerator = figure(base + "/" + ours);
        const double denominator = figure(base + "/" + theirs);
        if (numerator > 0 && denominator > 0) {
            std::cout << "  " << std::left << std::setw(width) << base << std::fixed
                      << std::setprecision(2) << numerator / denominator << "x\n";
        }
    }

private:
    static std::string plainName(std::string name) {
        name = name.substr(0, name.find("/iterations:"));
        name = name.substr(0, name.find("/manual_time"));
        name = name.substr(0, name.find("/process_time"));
        return name.substr(0, name.find("/real_time"));
    }

    std::string counter_;
    double scale_;
    std::map<std::string, double> figures_;
};

// The common end of each program's main: runs what was registered with the
// program's reporter.
inline int KRORunBenchmarks(int argc, char** argv, benchmark::BenchmarkReporter& reporter) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
