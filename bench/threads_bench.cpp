// Thread groups against what an application would otherwise write: plain std::thread start
// and join, a relaxed std::atomic flag for the abort poll, and one thread for a memory-bound
// sum.
#include <vxtools3/threads.h>

#include "bench/ratio_reporter.h"

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

namespace {

// ---- Start and join n empty workers ------------------------------------------------------------

int EmptyWorker(MTThreadID) { return 0; }

void GroupRunEmpty(benchmark::State &state)
{
    const int workers = static_cast<int>(state.range(0));
    MTGroupID group = MTGroupCreate(workers);
    for (int i = 0; i < workers; ++i)
        MTGroupAddThread(group, EmptyWorker, nullptr, 0);
    for (auto _ : state)
        if (!MTGroupRun(group))
            state.SkipWithError("MTGroupRun failed");
    MTGroupDestroy(group);
}

void StdThreadEmpty(benchmark::State &state)
{
    const auto workers = static_cast<size_t>(state.range(0));
    std::vector<std::thread> threads;
    threads.reserve(workers);
    for (auto _ : state) {
        for (size_t i = 0; i < workers; ++i)
            threads.emplace_back([] {});
        for (std::thread &t : threads)
            t.join();
        threads.clear();
    }
}

#define RUN_CASE(n)                                                                                \
    BENCHMARK(GroupRunEmpty)->Name("run_" #n ":MTGroupRun")->Arg(n)->Unit(benchmark::kMicrosecond)->UseRealTime(); \
    BENCHMARK(StdThreadEmpty)->Name("run_" #n ":std::thread")->Arg(n)->Unit(benchmark::kMicrosecond)->UseRealTime();

RUN_CASE(1)
RUN_CASE(2)
RUN_CASE(4)

// ---- The abort poll: 1000 polls per iteration -------------------------------------------------

constexpr int kPolls = 1000;

void TestAbortPoll(benchmark::State &state)
{
    MTGroupID group = MTGroupCreate(1);
    MTThreadID thread = MTGroupAddThread(group, EmptyWorker, nullptr, 0);
    for (auto _ : state) {
        int aborts = 0;
        for (int i = 0; i < kPolls; ++i)
            aborts += MTThreadTestAbort(thread);
        benchmark::DoNotOptimize(aborts);
    }
    state.SetItemsProcessed(state.iterations() * kPolls);
    MTGroupDestroy(group);
}

void AtomicFlagPoll(benchmark::State &state)
{
    std::atomic<int> running{0};
    benchmark::DoNotOptimize(&running);
    for (auto _ : state) {
        int aborts = 0;
        for (int i = 0; i < kPolls; ++i)
            aborts += running.load(std::memory_order_relaxed) == 0;
        benchmark::DoNotOptimize(aborts);
    }
    state.SetItemsProcessed(state.iterations() * kPolls);
}

BENCHMARK(TestAbortPoll)->Name("test_abort_x1000:MTThreadTestAbort")->Unit(benchmark::kNanosecond);
BENCHMARK(AtomicFlagPoll)->Name("test_abort_x1000:std::atomic")->Unit(benchmark::kNanosecond);

// ---- Sum of 256 MiB of 32-bit numbers ----------------------------------------------------------

constexpr size_t kSumBytes = size_t{256} << 20;
constexpr size_t kSumCount = kSumBytes / sizeof(uint32_t);
constexpr int kSumWorkers = 2;

const std::vector<uint32_t> &SumInput()
{
    static const std::vector<uint32_t> data = [] {
        std::vector<uint32_t> values(kSumCount);
        uint32_t x = 12345;
        for (uint32_t &v : values) {
            x = x * 1664525u + 1013904223u;
            v = x >> 8;
        }
        return values;
    }();
    return data;
}

uint64_t ExpectedSum()
{
    static const uint64_t sum = [] {
        uint64_t total = 0;
        for (uint32_t v : SumInput())
            total += v;
        return total;
    }();
    return sum;
}

// The same loop for every contestant.
[[gnu::noinline]] uint64_t SumRange(const uint32_t *values, size_t count)
{
    uint64_t total = 0;
    for (size_t i = 0; i < count; ++i)
        total += values[i];
    return total;
}

struct SumSlice {
    const uint32_t *values;
    size_t count;
    uint64_t total;
};

int SumWorker(MTThreadID thread)
{
    auto *slice = static_cast<SumSlice *>(MTThreadGetArg(thread));
    slice->total = SumRange(slice->values, slice->count);
    return 0;
}

std::vector<SumSlice> Slices(int parts)
{
    const auto n = static_cast<size_t>(parts);
    std::vector<SumSlice> slices(n);
    for (size_t i = 0; i < n; ++i) {
        const size_t first = kSumCount * i / n;
        slices[i] = {SumInput().data() + first, kSumCount * (i + 1) / n - first, 0};
    }
    return slices;
}

void CheckSum(benchmark::State &state, uint64_t total)
{
    if (total != ExpectedSum())
        state.SkipWithError("wrong sum");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kSumBytes));
}

void GroupSum(benchmark::State &state)
{
    std::vector<SumSlice> slices = Slices(kSumWorkers);
    MTGroupID group = MTGroupCreate(kSumWorkers);
    for (SumSlice &slice : slices)
        MTGroupAddThread(group, SumWorker, &slice, 0);
    uint64_t total = 0;
    for (auto _ : state) {
        MTGroupRun(group);
        total = 0;
        for (const SumSlice &slice : slices)
            total += slice.total;
    }
    CheckSum(state, total);
    MTGroupDestroy(group);
}

void OneThreadSum(benchmark::State &state)
{
    uint64_t total = 0;
    for (auto _ : state)
        total = SumRange(SumInput().data(), kSumCount);
    CheckSum(state, total);
}

void StdThreadSum(benchmark::State &state)
{
    std::vector<SumSlice> slices = Slices(kSumWorkers);
    uint64_t total = 0;
    for (auto _ : state) {
        std::vector<std::thread> threads;
        for (SumSlice &slice : slices)
            threads.emplace_back([&slice] { slice.total = SumRange(slice.values, slice.count); });
        total = 0;
        for (size_t i = 0; i < threads.size(); ++i) {
            threads[i].join();
            total += slices[i].total;
        }
    }
    CheckSum(state, total);
}

BENCHMARK(GroupSum)->Name("sum_256MiB:MTGroupRun_x2")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(OneThreadSum)->Name("sum_256MiB:one_thread")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(StdThreadSum)->Name("sum_256MiB:std::thread_x2")->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
