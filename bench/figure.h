// The rows of the one table that `make bench` ends with: each is a figure, the limit that was
// measured beside it in the same run, and what that limit is. scripts/bench collects them from
// what the programs print.
#pragma once

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

namespace orla::bench {

// `make bench-smoke` wants to know only that a program still runs: once, with a hundredth of the
// work. What it then prints are no figures.
inline bool Smoke() {
    static const bool smoke = std::getenv("ORLA_BENCH_SMOKE") != nullptr;
    return smoke;
}
inline int Rounds(int full) {
    return Smoke() ? 1 : full;
}
inline int Share(int full) {
    return Smoke() ? std::max(1, full / 100) : full;
}

inline double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// `ours` and `limit` are of the same `unit`; `peer` says who reached the limit.
inline void Figure(const std::string& what, const std::string& unit, double ours, double limit,
                   const std::string& peer) {
    fmt::print("figure\t{}\t{}\t{:.4g}\t{:.4g}\t{:.2f}\t{}\n", what, unit, ours, limit,
               ours / limit, peer);
}

inline void Repeated(benchmark::internal::Benchmark* benchmark) {
    benchmark->Repetitions(5)->ReportAggregatesOnly()->MinTime(Smoke() ? 0.001 : 0.2);
}

// Runs all benchmarks of the program, and keeps the median nanoseconds of each by its name.
class Medians : public benchmark::ConsoleReporter {
public:
    Medians() : ConsoleReporter(OO_None) { benchmark::RunSpecifiedBenchmarks(this); }

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
                times_[run.run_name.function_name +
                       (run.run_name.args.empty() ? "" : "/" + run.run_name.args)] =
                    run.GetAdjustedRealTime();
            }
        }
    }
    double operator[](const std::string& name) const { return times_.at(name); }

private:
    std::map<std::string, double> times_;
};

}  // namespace orla::bench
