// Benchmark naming and the ratio table printed after a run.
//
// Name benchmarks "<case>:<implementation>[/args]", registering our implementation first,
// e.g. "sort_random:OrdSort/1000000" then "sort_random:qsort/1000000". After the run, every
// case prints the ratio of our time to each peer's time (below 1.0: ours is faster), using
// the median when the run has repetitions (--benchmark_repetitions=N). Registration order,
// not the order of the runs, tells ours from the peers, so the table holds with
// --benchmark_enable_random_interleaving=true, which spreads a noisy machine's slow spells
// over all contestants.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vxbench {

class RatioReporter : public benchmark::ConsoleReporter {
public:
    bool ReportContext(const Context &context) override;
    void ReportRuns(const std::vector<Run> &runs) override;
    void Finalize() override;

private:
    struct Entry {
        std::string caseName;  // "<case>" plus the arguments
        std::string impl;
        double time;  // real time per iteration, in the run's time unit
        bool median;
        int64_t family;  // registration order
    };
    std::vector<Entry> entries_;
};

}  // namespace vxbench
