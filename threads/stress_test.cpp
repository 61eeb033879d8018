// Stress tests, meant for ThreadSanitizer: the shared counters are plain integers guarded only
// by the group's locks, so a lock that fails to order the workers shows as a reported race or
// a wrong total. Each test runs under a watchdog, so a lost wake-up ends it with a message.
#include <vxtools3/memory.h>
#include <vxtools3/threads.h>

#include "testkit/fault_alloc.h"
#include "threads/thread_test_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using vxtest::Watchdog;

constexpr int kGroupSizes[] = {1, 2, 3, 5, 8, 16};

// Guarded by the group lock (total, progress) or by user mutex n (perMutex[n]).
struct Shared {
    int64_t total = 0;
    int64_t progress = 0;
    int64_t perMutex[MT_USER_MUTEXES] = {};
};

// A worker's argument, copied into the group: the numbers it adds and how often it signals.
struct Task {
    Shared *shared;
    int64_t first;
    int64_t count;
    int signalEvery;
};

// Adds first ... first + count - 1 to the shared total under the group lock, counts each item
// under its user mutex, signals the controller now and then, and returns the items it did.
int SumWorker(MTThreadID self)
{
    const Task task = *static_cast<const Task *>(MTThreadGetArg(self));
    MTGroupID group = MTThreadGetGroupID(self);
    int done = 0;
    for (int64_t i = 0; i < task.count; ++i) {
        if (MTThreadTestAbort(self))
            break;
        MTThreadLockCS(self);
        task.shared->total += task.first + i;
        ++task.shared->progress;
        MTThreadUnlockCS(self);
        const int n = static_cast<int>((task.first + i) % MT_USER_MUTEXES);
        MTUtilLockMutex(group, n);
        ++task.shared->perMutex[n];
        MTUtilUnlockMutex(group, n);
        ++done;
        if (task.signalEvery && done % task.signalEvery == 0)
            MTUtilSignal(group);
    }
    return done;
}

int64_t SumOfRange(int64_t first, int64_t count) { return count * first + count * (count - 1) / 2; }

// Gives every worker of `group` a fresh task for this cycle; returns the expected total.
int64_t AssignTasks(MTGroupID group, Shared *shared, int cycle, int itemsPerWorker, int signalEvery)
{
    int64_t expected = 0;
    const int count = MTGroupGetThreadCount(group);
    for (int i = 0; i < count; ++i) {
        const int64_t first = (int64_t{cycle} * 16 + i) * 1000;
        Task task{shared, first, itemsPerWorker, signalEvery};
        EXPECT_EQ(MTGroupModifyArg(group, i, &task, sizeof task), 1);
        expected += SumOfRange(first, itemsPerWorker);
    }
    return expected;
}

void ExpectMutexCountsMatch(const Shared &shared, int64_t items)
{
    int64_t counted = 0;
    for (int64_t n : shared.perMutex)
        counted += n;
    EXPECT_EQ(counted, items);
}

MTGroupID MakeSumGroup(int workers)
{
    MTGroupID group = MTGroupCreate(workers);
    Task placeholder{};
    for (int i = 0; i < workers; ++i)
        EXPECT_NE(MTGroupAddThread(group, SumWorker, &placeholder, sizeof placeholder), nullptr);
    return group;
}

TEST(ThreadGroupStress, BeginAndWaitCyclesWithSignalsLocksAndNewArguments)
{
    Watchdog watchdog(120s);
    constexpr int kCycles = 60;
    constexpr int kItems = 150;
    for (int workers : kGroupSizes) {
        SCOPED_TRACE(::testing::Message() << workers << " workers");
        MTGroupID group = MakeSumGroup(workers);
        for (int cycle = 0; cycle < kCycles; ++cycle) {
            Shared shared;
            const int64_t expected = AssignTasks(group, &shared, cycle, kItems, 1 + cycle % 7);
            ASSERT_EQ(MTGroupBegin(group), 1);
            int wakes = 0;
            int64_t lastProgress = 0;
            while (MTUtilWait(group)) {
                ++wakes;
                MTGroupLockCS(group);
                EXPECT_GE(shared.progress, lastProgress);
                lastProgress = shared.progress;
                MTGroupUnlockCS(group);
            }
            EXPECT_EQ(MTGroupWaitCompletion(group), 0);
            EXPECT_LE(wakes, workers * kItems);
            EXPECT_EQ(shared.total, expected);
            EXPECT_EQ(shared.progress, int64_t{workers} * kItems);
            ExpectMutexCountsMatch(shared, int64_t{workers} * kItems);
            for (int i = 0; i < workers; ++i)
                EXPECT_EQ(MTGroupGetReturn(group, i), kItems);
        }
        MTGroupDestroy(group);
    }
}

TEST(ThreadGroupStress, RunCyclesWithNewArguments)
{
    Watchdog watchdog(120s);
    constexpr int kCycles = 30;
    for (int workers : kGroupSizes) {
        SCOPED_TRACE(::testing::Message() << workers << " workers");
        MTGroupID group = MakeSumGroup(workers);
        for (int cycle = 0; cycle < kCycles; ++cycle) {
            Shared shared;
            const int items = 20 + cycle * 5;
            const int64_t expected = AssignTasks(group, &shared, cycle, items, cycle % 3);
            ASSERT_EQ(MTGroupRun(group), 1);
            EXPECT_EQ(shared.total, expected);
            ExpectMutexCountsMatch(shared, int64_t{workers} * items);
            for (int i = 0; i < workers; ++i)
                EXPECT_EQ(MTGroupGetReturn(group, i), items);
        }
        MTGroupDestroy(group);
    }
}

TEST(ThreadGroupStress, AbortsAtRandomMoments)
{
    Watchdog watchdog(120s);
    constexpr int kCycles = 360;
    constexpr int kItems = 400;
    std::mt19937 rng(2024);
    for (int workers : kGroupSizes) {
        SCOPED_TRACE(::testing::Message() << workers << " workers");
        MTGroupID group = MakeSumGroup(workers);
        for (int cycle = 0; cycle < kCycles / 6; ++cycle) {
            Shared shared;
            AssignTasks(group, &shared, cycle, kItems, static_cast<int>(rng() % 4));
            ASSERT_EQ(MTGroupBegin(group), 1);
            // Abort at once, after a few signals, or after a random pause: before, during or
            // after the workers' own end.
            switch (rng() % 3) {
            case 0:
                break;
            case 1:
                for (int w = 0; w < 3 && MTUtilWait(group); ++w) {
                }
                break;
            default:
                std::this_thread::sleep_for(std::chrono::microseconds(rng() % 2000));
            }
            MTGroupAbort(group);
            EXPECT_EQ(MTGroupTestDone(group), 1);
            const int flags = MTGroupWaitCompletion(group);
            EXPECT_EQ(flags & MT_GROUP_RUNNING, 0);
            // Whatever each worker says it did is exactly what the shared counts hold.
            int64_t reported = 0;
            bool allFinished = true;
            for (int i = 0; i < workers; ++i) {
                const int done = MTGroupGetReturn(group, i);
                EXPECT_GE(done, 0);
                EXPECT_LE(done, kItems);
                allFinished = allFinished && done == kItems;
                reported += done;
            }
            EXPECT_EQ(shared.progress, reported);
            ExpectMutexCountsMatch(shared, reported);
            if (!allFinished) {
                EXPECT_EQ(flags, MT_GROUP_ABORTED) << "workers stopped early without an abort";
            }
            if (flags & MT_GROUP_ABORTED) {
                for (int i = 0; i < workers; ++i)
                    EXPECT_EQ(MTThreadTestAbort(MTGroupGetThreadID(group, i)), 1);
            }
        }
        MTGroupDestroy(group);
    }
}

// Destroying a group in the middle of a run aborts it first.
TEST(ThreadGroupStress, DestroyWhileRunningAbortsAndFreesEverything)
{
    Watchdog watchdog(60s);
    for (int workers : kGroupSizes) {
        MTGroupID group = MakeSumGroup(workers);
        Shared shared;
        constexpr int kItems = 1 << 24;  // far more than a worker does before the abort
        AssignTasks(group, &shared, 0, kItems, 0);
        ASSERT_EQ(MTGroupBegin(group), 1);
        std::this_thread::sleep_for(200us);
        MTGroupDestroy(group);
        EXPECT_LT(shared.progress, int64_t{workers} * kItems);
        ExpectMutexCountsMatch(shared, shared.progress);
    }
}

// Kills cut workers off anywhere, also inside the group's locks and signals. ThreadSanitizer
// keeps its own locks inside those calls, which a kill would leave taken, so this one runs in
// the other builds only.
#if defined(__SANITIZE_THREAD__)
#define VX_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VX_TSAN 1
#endif
#endif

#if !VX_TSAN
TEST(ThreadGroupStress, KillsAtRandomMomentsLeaveTheGroupReusable)
{
    Watchdog watchdog(120s);
    std::mt19937 rng(99);
    for (int workers : kGroupSizes) {
        SCOPED_TRACE(::testing::Message() << workers << " workers");
        MTGroupID group = MakeSumGroup(workers);
        for (int cycle = 0; cycle < 8; ++cycle) {
            Shared doomed;
            AssignTasks(group, &doomed, cycle, 1 << 24, 1 + static_cast<int>(rng() % 3));
            ASSERT_EQ(MTGroupBegin(group), 1);
            if (rng() % 2)
                MTUtilWait(group);
            std::this_thread::sleep_for(std::chrono::microseconds(rng() % 1000));
            MTGroupKill(group);
            ASSERT_EQ(MTGroupTestDone(group), 1);
            // The next run must find every lock free and no stale signal.
            Shared shared;
            const int64_t expected = AssignTasks(group, &shared, cycle, 50, 5);
            ASSERT_EQ(MTGroupBegin(group), 1);
            while (MTUtilWait(group)) {
            }
            EXPECT_EQ(MTGroupWaitCompletion(group), 0);
            EXPECT_EQ(shared.total, expected);
            ExpectMutexCountsMatch(shared, int64_t{workers} * 50);
        }
        MTGroupDestroy(group);
    }
}

// Allocates and frees in a loop, holding kills off around the heap in nested brackets.
int AllocateInBrackets(MTThreadID self)
{
    auto *rounds = static_cast<std::atomic<int> *>(MTThreadGetArg(self));
    for (;;) {
        MTThreadHoldKill(self);
        void *outer = StdAlloc(48);
        MTThreadHoldKill(self);
        void *inner = StdAlloc(16);
        MTThreadAllowKill(self);
        FreeHeap(inner, 16);
        FreeHeap(outer, 48);
        MTThreadAllowKill(self);
        rounds->fetch_add(1, std::memory_order_relaxed);
    }
}

TEST(ThreadGroupStress, KillsOfWorkersThatBracketTheHeapLoseNothing)
{
    Watchdog watchdog(60s);
    vxtest::FaultAllocator heap;
    std::mt19937 rng(5);
    std::atomic<int> rounds{0};
    MTGroupID group = MTGroupCreate(4);
    for (int i = 0; i < 4; ++i)
        ASSERT_NE(MTGroupAddThread(group, AllocateInBrackets, &rounds, 0), nullptr);
    const size_t groupBytes = heap.LiveBytes();
    for (int cycle = 0; cycle < 40; ++cycle) {
        const int before = rounds.load();
        ASSERT_EQ(MTGroupBegin(group), 1);
        while (rounds.load() < before + 8)
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::microseconds(rng() % 500));
        MTGroupKill(group);
        ASSERT_EQ(heap.LiveBytes(), groupBytes) << "cycle " << cycle;
    }
    MTGroupDestroy(group);
    EXPECT_EQ(heap.LiveBytes(), 0u);
    EXPECT_EQ(heap.BadFrees(), 0);
}
#endif

}  // namespace
