// Ordered arrays against the C and C++ standard libraries. Every contestant calls the same
// three-way comparator through a function pointer, as a library user's callback would be.
#include <vxtools3/lists.h>

#include "bench/ratio_reporter.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

namespace {

int ThreeWay(void *a, void *b)
{
    const auto x = reinterpret_cast<uintptr_t>(a);
    const auto y = reinterpret_cast<uintptr_t>(b);
    return (x > y) - (x < y);
}

OrdCompare *Comparator()
{
    static OrdCompare *compare = ThreeWay;
    benchmark::DoNotOptimize(compare);  // keep every contestant calling through the pointer
    return compare;
}

OrdCompare *g_qsortCompare;
int QsortAdapter(const void *a, const void *b)
{
    return g_qsortCompare(*static_cast<void *const *>(a), *static_cast<void *const *>(b));
}

enum Input { kRandom, kSorted, kFewDistinct };

std::vector<void *> MakeInput(Input kind, size_t n)
{
    std::mt19937_64 rng(12345);
    std::vector<void *> items(n);
    for (size_t i = 0; i < n; ++i) {
        uint64_t v = kind == kSorted ? i * 8 : kind == kFewDistinct ? rng() % 8 : rng();
        items[i] = reinterpret_cast<void *>(static_cast<uintptr_t>(v));
    }
    return items;
}

template <class SortFn>
void RunSort(benchmark::State &state, Input kind, SortFn sort)
{
    const std::vector<void *> input = MakeInput(kind, static_cast<size_t>(state.range(0)));
    std::vector<void *> work(input.size());
    for (auto _ : state) {
        std::memcpy(work.data(), input.data(), input.size() * sizeof(void *));
        sort(work);
        benchmark::DoNotOptimize(work.data());
    }
    if (!std::is_sorted(work.begin(), work.end(),
                        [](void *a, void *b) { return ThreeWay(a, b) < 0; }))
        state.SkipWithError("not sorted");
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void OrdSortRun(std::vector<void *> &work)
{
    VxOrd ord{work.data(), static_cast<int32_t>(work.size()), static_cast<int32_t>(work.size())};
    OrdSort(&ord, Comparator());
}

void QsortRun(std::vector<void *> &work)
{
    g_qsortCompare = Comparator();
    std::qsort(work.data(), work.size(), sizeof(void *), QsortAdapter);
}

void StdSortRun(std::vector<void *> &work)
{
    OrdCompare *compare = Comparator();
    std::sort(work.begin(), work.end(), [compare](void *a, void *b) { return compare(a, b) < 0; });
}

constexpr int64_t kSortSize = 1000000;

#define SORT_CASE(caseName, kind)                                                                  \
    BENCHMARK_CAPTURE(RunSort, caseName##_OrdSort, kind, OrdSortRun)                              \
        ->Name(#caseName ":OrdSort")->Arg(kSortSize)->Unit(benchmark::kMillisecond);              \
    BENCHMARK_CAPTURE(RunSort, caseName##_qsort, kind, QsortRun)                                  \
        ->Name(#caseName ":qsort")->Arg(kSortSize)->Unit(benchmark::kMillisecond);                \
    BENCHMARK_CAPTURE(RunSort, caseName##_std_sort, kind, StdSortRun)                             \
        ->Name(#caseName ":std::sort")->Arg(kSortSize)->Unit(benchmark::kMillisecond);

SORT_CASE(sort_random, kRandom)
SORT_CASE(sort_sorted, kSorted)
SORT_CASE(sort_few_distinct, kFewDistinct)

// Inserting n random keys one at a time, then looking each of them up.
void OrdInsertRun(benchmark::State &state)
{
    const std::vector<void *> keys = MakeInput(kRandom, static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        VxOrd ord;
        OrdInit(&ord);
        for (void *key : keys)
            OrdInsert(&ord, key, Comparator());
        benchmark::DoNotOptimize(ord.items);
        OrdFree(&ord);
    }
}

void VectorInsertRun(benchmark::State &state)
{
    const std::vector<void *> keys = MakeInput(kRandom, static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        std::vector<void *> sorted;
        OrdCompare *compare = Comparator();
        for (void *key : keys)
            sorted.insert(std::upper_bound(sorted.begin(), sorted.end(), key,
                                           [compare](void *a, void *b) { return compare(a, b) < 0; }),
                          key);
        benchmark::DoNotOptimize(sorted.data());
    }
}

void OrdLookupRun(benchmark::State &state)
{
    std::vector<void *> keys = MakeInput(kRandom, static_cast<size_t>(state.range(0)));
    std::vector<void *> sorted = keys;
    std::sort(sorted.begin(), sorted.end());
    VxOrd ord{sorted.data(), static_cast<int32_t>(sorted.size()), static_cast<int32_t>(sorted.size())};
    for (auto _ : state)
        for (void *key : keys)
            benchmark::DoNotOptimize(OrdLookup(&ord, key, Comparator()));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void VectorLookupRun(benchmark::State &state)
{
    std::vector<void *> keys = MakeInput(kRandom, static_cast<size_t>(state.range(0)));
    std::vector<void *> sorted = keys;
    std::sort(sorted.begin(), sorted.end());
    for (auto _ : state) {
        OrdCompare *compare = Comparator();
        for (void *key : keys)
            benchmark::DoNotOptimize(std::lower_bound(sorted.begin(), sorted.end(), key,
                                                      [compare](void *a, void *b) { return compare(a, b) < 0; }));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

BENCHMARK(OrdInsertRun)->Name("insert_random:OrdInsert")->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(VectorInsertRun)->Name("insert_random:vector+upper_bound")->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(OrdLookupRun)->Name("lookup:OrdLookup")->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(VectorLookupRun)->Name("lookup:vector+lower_bound")->Arg(100000)->Unit(benchmark::kMicrosecond);

}  // namespace
