#include "bench/ratio_reporter.h"

#include <algorithm>
#include <cstdio>

namespace vxbench {
namespace {

// Splits "case:impl/args" into ("case/args", "impl"); names without ':' are not compared.
bool SplitName(const std::string &name, std::string &caseName, std::string &impl)
{
    const size_t colon = name.find(':');
    if (colon == std::string::npos)
        return false;
    const size_t slash = name.find('/', colon);
    caseName = name.substr(0, colon) + (slash == std::string::npos ? "" : name.substr(slash));
    impl = name.substr(colon + 1, slash == std::string::npos ? std::string::npos : slash - colon - 1);
    return true;
}

}  // namespace

bool RatioReporter::ReportContext(const Context &context) { return ConsoleReporter::ReportContext(context); }

void RatioReporter::ReportRuns(const std::vector<Run> &runs)
{
    ConsoleReporter::ReportRuns(runs);
    for (const Run &run : runs) {
        if (run.error_occurred)
            continue;
        const bool isMedian = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
        if (run.run_type == Run::RT_Aggregate && !isMedian)
            continue;
        std::string caseName, impl;
        if (!SplitName(run.run_name.str(), caseName, impl))
            continue;
        entries_.push_back({caseName, impl, run.GetAdjustedRealTime(), isMedian, run.family_index});
    }
}

void RatioReporter::Finalize()
{
    ConsoleReporter::Finalize();
    // Per case: the implementation registered first is ours; medians replace single runs when
    // present.
    std::vector<std::string> order;
    std::map<std::string, std::vector<Entry>> byCase;
    for (const Entry &e : entries_) {
        auto &list = byCase[e.caseName];
        if (list.empty())
            order.push_back(e.caseName);
        bool replaced = false;
        for (Entry &known : list) {
            if (known.impl == e.impl) {
                if (e.median || !known.median)
                    known = e;
                replaced = true;
            }
        }
        if (!replaced)
            list.push_back(e);
    }
    std::printf("\nRatios (our time / peer time; below 1.0 means ours is faster):\n");
    for (auto &[caseName, list] : byCase)
        std::stable_sort(list.begin(), list.end(), [](const Entry &a, const Entry &b) { return a.family < b.family; });
    std::stable_sort(order.begin(), order.end(), [&byCase](const std::string &a, const std::string &b) {
        return byCase[a].front().family < byCase[b].front().family;
    });
    for (const std::string &caseName : order) {
        const auto &list = byCase[caseName];
        for (size_t i = 1; i < list.size(); ++i)
            std::printf("  %-40s %-14s vs %-22s %6.2fx\n", caseName.c_str(), list[0].impl.c_str(),
                        list[i].impl.c_str(), list[0].time / list[i].time);
    }
    std::fflush(stdout);
}

}  // namespace vxbench
